/* Makes recvmsg fail as it does on a system without memory for a datagram.
 *
 * It fails when it has received a datagram that is $FAIL_RECEIVE. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

typedef ssize_t (*receive_function)(int, struct msghdr*, int);

ssize_t recvmsg(int socket, struct msghdr* message, int flags) {
  receive_function receive;
  *(void**)&receive = dlsym(RTLD_NEXT, "recvmsg");
  const ssize_t length = receive(socket, message, flags);
  const char* const mark = getenv("FAIL_RECEIVE");
  if (mark == NULL || length < 0 || (size_t)length != strlen(mark)) return length;
  if (memcmp(message->msg_iov[0].iov_base, mark, (size_t)length) != 0) return length;
  errno = ENOMEM;
  return -1;
}
