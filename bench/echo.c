// A line echo service and a blocking client for the messaging benchmark. Small and single
// threaded on purpose: it must never be what limits the figures.
//   echo serve PORT          prints "listening PORT" (PORT 0: a free one), echoes every byte back
//   echo client PORT N LINE  N blocking round trips of LINE, prints "us-per-round-trip X"
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

static int serve(int port) {
  int listener = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
  int one = 1;
  setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  struct sockaddr_in address = {.sin_family = AF_INET, .sin_port = htons(port)};
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (bind(listener, (struct sockaddr*)&address, sizeof address) != 0 || listen(listener, 1024)) {
    perror("echo: bind/listen");
    return 1;
  }
  socklen_t length = sizeof address;
  getsockname(listener, (struct sockaddr*)&address, &length);
  printf("listening %d\n", ntohs(address.sin_port));
  fflush(stdout);
  int poller = epoll_create1(0);
  struct epoll_event event = {.events = EPOLLIN, .data.fd = listener};
  epoll_ctl(poller, EPOLL_CTL_ADD, listener, &event);
  static char buffer[1 << 16];
  struct epoll_event ready[256];
  for (;;) {
    int count = epoll_wait(poller, ready, 256, -1);
    for (int i = 0; i < count; ++i) {
      int fd = ready[i].data.fd;
      if (fd == listener) {
        int client;
        while ((client = accept4(listener, NULL, NULL, 0)) >= 0) {
          setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
          struct epoll_event added = {.events = EPOLLIN, .data.fd = client};
          epoll_ctl(poller, EPOLL_CTL_ADD, client, &added);
        }
        continue;
      }
      ssize_t got = read(fd, buffer, sizeof buffer);
      if (got <= 0) {
        close(fd);
        continue;
      }
      // Blocking socket: a write of what was read completes or the peer is gone.
      for (ssize_t done = 0; done < got;) {
        ssize_t wrote = write(fd, buffer + done, (size_t)(got - done));
        if (wrote <= 0) break;
        done += wrote;
      }
    }
  }
}

static double now_us(void) {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return t.tv_sec * 1e6 + t.tv_nsec / 1e3;
}

static int client(int port, long rounds, const char* text) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  struct sockaddr_in address = {.sin_family = AF_INET, .sin_port = htons(port)};
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, (struct sockaddr*)&address, sizeof address) != 0) {
    perror("echo: connect");
    return 1;
  }
  int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  size_t length = strlen(text);
  char* line = malloc(length + 1);
  memcpy(line, text, length);
  line[length] = '\n';
  static char buffer[1 << 16];
  double started = now_us();
  for (long round = 0; round < rounds; ++round) {
    if (write(fd, line, length + 1) != (ssize_t)(length + 1)) return 1;
    size_t seen = 0;
    while (seen < length + 1) {
      ssize_t got = read(fd, buffer, sizeof buffer);
      if (got <= 0) return 1;
      seen += (size_t)got;
    }
  }
  printf("us-per-round-trip %.2f\n", (now_us() - started) / (double)rounds);
  return 0;
}

int main(int argc, char** argv) {
  if (argc >= 3 && strcmp(argv[1], "serve") == 0) return serve(atoi(argv[2]));
  if (argc >= 5 && strcmp(argv[1], "client") == 0) {
    return client(atoi(argv[2]), atol(argv[3]), argv[4]);
  }
  fprintf(stderr, "usage: echo serve PORT | echo client PORT ROUNDS LINE\n");
  return 2;
}
