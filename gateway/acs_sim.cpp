// acsSim: the operator's simulated ACS, the server the gateway's TR-069 client
// (tr69) holds its Inform sessions with.
//
//   acsSim [ADDRESS:PORT]   listens there (default 127.0.0.1:7547) until SIGTERM
//   acsSim mode MODE        how the running ACS treats the next sessions:
//     answer   answers every Inform, and provisions a device that still has
//              the factory credentials: new connection-request credentials
//              when those are "KPRTV4826", new ACS credentials when those are
//              "WBN5937" (the default)
//     stall    answers, but sets only the connection-request credentials: the
//              device's registration never completes
//     silent   reads the Inform and hangs up without an answer
// The mode is the file /var/run/acsSim.mode, read at every session. Each
// session is a line in /var/log/acsSim: "inform EVENT CONREQUSER ACSUSER:
// answered|silent". The line protocol is the client's (see tr69_client.cpp).
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

namespace {

const char kModePath[] = "/var/run/acsSim.mode";
const char kLogPath[] = "/var/log/acsSim";

volatile sig_atomic_t stopping = 0;
void OnStop(int) { stopping = 1; }

std::string Mode() {
  char mode[16] = {0};
  FILE* f = fopen(kModePath, "re");
  if (f == nullptr) return "answer";
  if (fscanf(f, "%15s", mode) != 1) mode[0] = '\0';
  fclose(f);
  return mode;
}

// Reads the request line, at most 5 seconds and 1 KiB.
std::string ReadLine(int fd) {
  std::string line;
  char c;
  while (line.size() < 1024) {
    pollfd p = {fd, POLLIN, 0};
    if (poll(&p, 1, 5000) <= 0 || recv(fd, &c, 1, 0) != 1 || c == '\n') break;
    line += c;
  }
  return line;
}

void Serve(int fd) {
  std::string line = ReadLine(fd);
  char event[32], conReq[129], acs[129];
  if (sscanf(line.c_str(), "INFORM %31s %128s %128s", event, conReq, acs) != 3) return;
  std::string mode = Mode();
  bool answer = mode != "silent";
  if (answer) {
    std::string reply;
    if (strcmp(conReq, "KPRTV4826") == 0) reply += "SET conReq cr-gateway cr-secret\n";
    if (strcmp(acs, "WBN5937") == 0 && mode != "stall") reply += "SET acs acs-gateway acs-secret\n";
    reply += "END\n";
    if (send(fd, reply.data(), reply.size(), MSG_NOSIGNAL) < 0) answer = false;
  }
  FILE* log = fopen(kLogPath, "ae");
  if (log != nullptr) {
    fprintf(log, "inform %s %s %s: %s\n", event, conReq, acs, answer ? "answered" : "silent");
    fclose(log);
  }
}

int SetMode(const char* mode) {
  if (strcmp(mode, "answer") != 0 && strcmp(mode, "stall") != 0 && strcmp(mode, "silent") != 0) {
    fprintf(stderr, "acsSim: mode is answer, stall or silent\n");
    return 2;
  }
  std::string tmp = std::string(kModePath) + ".new";
  FILE* f = fopen(tmp.c_str(), "we");
  if (f == nullptr || fprintf(f, "%s\n", mode) < 0 || fclose(f) != 0 ||
      rename(tmp.c_str(), kModePath) != 0) {
    fprintf(stderr, "acsSim: cannot write %s: %s\n", kModePath, strerror(errno));
    return 1;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && strcmp(argv[1], "mode") == 0) return SetMode(argv[2]);
  std::string where = argc == 2 ? argv[1] : "127.0.0.1:7547";
  size_t colon = where.rfind(':');
  sockaddr_in addr = {};
  addr.sin_family = AF_INET;
  long port = colon == std::string::npos ? 0 : strtol(where.c_str() + colon + 1, nullptr, 10);
  if (argc > 2 || port < 1 || port > 65535 ||
      inet_pton(AF_INET, where.substr(0, colon).c_str(), &addr.sin_addr) != 1) {
    fprintf(stderr, "usage: acsSim [ADDRESS:PORT] | acsSim mode answer|stall|silent\n");
    return 2;
  }
  addr.sin_port = htons(static_cast<uint16_t>(port));
  struct sigaction stop = {};
  stop.sa_handler = OnStop;  // no SA_RESTART: a stop interrupts accept
  sigaction(SIGTERM, &stop, nullptr);
  sigaction(SIGINT, &stop, nullptr);
  int one = 1;
  int srv = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (srv < 0 || setsockopt(srv, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) < 0 ||
      bind(srv, reinterpret_cast<sockaddr*>(&addr), sizeof addr) < 0 || listen(srv, 16) < 0) {
    fprintf(stderr, "acsSim: cannot listen on %s: %s\n", where.c_str(), strerror(errno));
    return 1;
  }
  while (!stopping) {
    int fd = accept4(srv, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;  // EINTR on a stop, or a connection that went away
    Serve(fd);
    close(fd);
  }
  close(srv);
  return 0;
}
