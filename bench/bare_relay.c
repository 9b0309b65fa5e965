// The relay and nothing else: what the service is measured against (see relay_bench.cpp).
//
// usage: bare_relay VIDEO_PORT VIEWER_PORT...
//
// Each datagram on the video port goes to the viewer ports of 127.0.0.1 behind the 12-byte header
// of the viewer protocol, with a pause of 1 ms after every send. No registration, no status, no
// threads.
#include <arpa/inet.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

enum {
  kMaxViewers = 10,
  kHeaderSize = 12,
  kMaxDatagram = 60000,
  kPauseAfterSendUs = 1000,
  kReceiveBufferBytes = 4 * 1024 * 1024,  // as the service
};

static struct sockaddr_in address_of(uint32_t host, uint16_t port) {
  const struct sockaddr_in address = {
      .sin_family = AF_INET, .sin_port = htons(port), .sin_addr = {htonl(host)}};
  return address;
}

// Fills in what is not always zero.
static void put_header(uint8_t* frame, uint32_t number) {
  frame[0] = 0x42;
  frame[1] = 1;
  for (int i = 0; i < 4; ++i) frame[4 + i] = (uint8_t)(number >> (8 * i));
}

static void relay(int in, int out, const struct sockaddr_in* viewers, int count) {
  // Header and payload stand in one buffer, so that a frame is one plain sendto.
  static uint8_t frame[kHeaderSize + kMaxDatagram];
  for (uint32_t number = 0;; ++number) {
    const ssize_t length = recvfrom(in, frame + kHeaderSize, kMaxDatagram, 0, NULL, NULL);
    if (length < 1) return;
    put_header(frame, number);
    for (int i = 0; i < count; ++i) {
      sendto(out, frame, kHeaderSize + (size_t)length, 0, (const struct sockaddr*)&viewers[i],
             sizeof(viewers[i]));
      usleep(kPauseAfterSendUs);
    }
  }
}

static uint16_t port_of(const char* text) { return (uint16_t)strtoul(text, NULL, 10); }

int main(int argc, char** argv) {
  struct sockaddr_in viewers[kMaxViewers];
  const int count = argc - 2;
  if (count < 1 || count > kMaxViewers) {
    fprintf(stderr, "usage: bare_relay VIDEO_PORT VIEWER_PORT... (1 to %d viewers)\n", kMaxViewers);
    return 2;
  }
  for (int i = 0; i < count; ++i) viewers[i] = address_of(INADDR_LOOPBACK, port_of(argv[2 + i]));

  prctl(PR_SET_TIMERSLACK, 1UL);
  const int in = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
  const int out = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
  const int size = kReceiveBufferBytes;
  if (setsockopt(in, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof(size)) != 0) {
    setsockopt(in, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
  }
  const struct sockaddr_in any = address_of(INADDR_ANY, port_of(argv[1]));
  if (bind(in, (const struct sockaddr*)&any, sizeof(any)) != 0) {
    perror("bare_relay: cannot bind the video port");
    return 1;
  }
  fputs("ready\n", stderr);
  relay(in, out, viewers, count);
  perror("bare_relay: read failed");
  return 3;
}
