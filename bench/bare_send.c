/* The least that can be done for many TCP connections: accepts so many, and then sends each message
   that comes on standard input, behind its length in 4 bytes (little-endian), to every one of them.
   What does not fit at once is lost.

   usage: bare_send PORT CONNECTIONS */
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

static int read_all(unsigned char* to, size_t size) {
  while (size > 0) {
    const ssize_t got = read(STDIN_FILENO, to, size);
    if (got <= 0) return 0;
    to += got;
    size -= (size_t)got;
  }
  return 1;
}

static int listen_on(uint16_t port) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  const int on = 1;
  struct sockaddr_in address = {.sin_family = AF_INET, .sin_port = htons(port)};
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  if (bind(fd, (struct sockaddr*)&address, sizeof(address)) != 0 || listen(fd, 128) != 0) {
    perror("bare_send");
    exit(1);
  }
  return fd;
}

int main(int argc, char** argv) {
  static unsigned char message[1 << 20];
  static int connections[1000];
  if (argc != 3) return 2;
  const int listener = listen_on((uint16_t)atoi(argv[1]));
  const int count = atoi(argv[2]);
  for (int i = 0; i < count; ++i) {
    const int on = 1;
    connections[i] = accept(listener, NULL, NULL);
    setsockopt(connections[i], IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  }
  unsigned char length[4];
  while (read_all(length, sizeof(length))) {
    const size_t size = (size_t)length[0] | (size_t)length[1] << 8 | (size_t)length[2] << 16;
    if (size > sizeof(message) || !read_all(message, size)) return 1;
    for (int i = 0; i < count; ++i) {
      if (send(connections[i], message, size, MSG_DONTWAIT | MSG_NOSIGNAL) < 0) continue;
    }
  }
  return 0;
}
