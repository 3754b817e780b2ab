// syslog-stub: a scriptable stand-in for the gateway's syslog-ng, for what the
// real one cannot be made to do: answer report lines with failure, or not at
// all.
//
//   syslog-stub [PID]
//
// Binds /var/wdSyslogTx.chanl like syslog-ng, logs every datagram as a line
// "SIZE TEXT" (the text up to its first zero byte) to /var/log/syslog-stub,
// and answers each one "NUMBER#RESULT#" on /var/wdSyslogRx.chanl as
// /var/run/syslog-stub.plan says. The plan is a string of letters, one per
// datagram: S answers success (0), F failure (1), N nothing; after the last
// letter the last one applies for good. The plan is read again whenever it
// changes, and counting starts anew. With PID, writes it to
// /var/run/syslog-ng.pid as if it were syslog-ng's (any number: a new one
// looks like a restarted syslog-ng). Runs until it is killed.
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

namespace {

sockaddr_un Addr(const char* path) {
  sockaddr_un addr = {};
  addr.sun_family = AF_UNIX;
  snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path);
  return addr;
}

std::string ReadPlan() {
  std::ifstream in("/var/run/syslog-stub.plan");
  std::stringstream ss;
  ss << in.rdbuf();
  std::string plan = ss.str();
  plan.erase(plan.find_last_not_of(" \n") + 1);
  return plan.empty() ? "S" : plan;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1) std::ofstream("/var/run/syslog-ng.pid") << argv[1] << "\n";
  int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
  sockaddr_un tx = Addr("/var/wdSyslogTx.chanl");
  unlink(tx.sun_path);
  if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&tx), sizeof tx) != 0) {
    perror("syslog-stub: /var/wdSyslogTx.chanl");
    return 1;
  }
  int answer = socket(AF_UNIX, SOCK_DGRAM, 0);
  sockaddr_un rx = Addr("/var/wdSyslogRx.chanl");
  std::string plan = ReadPlan();
  size_t next = 0;
  for (;;) {
    char buf[1024];
    ssize_t n = recv(fd, buf, sizeof buf - 1, 0);
    if (n < 0) continue;
    buf[n] = '\0';
    std::string now = ReadPlan();
    if (now != plan) {
      plan = now;
      next = 0;
    }
    char mode = plan[next < plan.size() ? next++ : plan.size() - 1];
    std::ofstream("/var/log/syslog-stub", std::ios::app) << n << " " << buf << "\n";
    const char* hash = strrchr(buf, '#');
    if (mode == 'N' || hash == nullptr) continue;
    std::string reply = std::string(hash + 1) + (mode == 'S' ? "#0#" : "#1#");
    sendto(answer, reply.data(), reply.size(), 0, reinterpret_cast<sockaddr*>(&rx), sizeof rx);
  }
}
