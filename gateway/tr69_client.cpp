// tr69: the gateway's simulated TR-069 client, started as /userfs/bin/tr69.
//
//   tr69    runs until killed (SIGTERM and SIGINT end it cleanly)
//
// At start it notes "start pid=PID restartmode=MODE" in /var/log/tr69, MODE
// being "restartmode" of Cwmp_Entry as the watchdog left it. Then it holds
// Inform sessions with the ACS at "acsUrl" of Cwmp_Entry (http://HOST:PORT/...):
// the first at once, the next "periodInterval" seconds later (60 when that is
// not a number from 1 to 86400), and a failed one is tried again after at most
// 30 seconds. The first Inform of a start carries the event BOOTSTRAP when the
// watchdog asked for it ("boottrap") or the ACS credentials are still the
// factory ones, else BOOT; later ones PERIODIC.
//
// A session, towards the watchdog's command socket (module tr069):
//   GET_INFORM                      before the Inform goes out
//   CR_NAME_CHANGE / NAME_CHANGE    after the ACS set new connection-request /
//                                   ACS credentials (written to Cwmp_Entry first)
//   GET_INFORM_RESPONSE             once the ACS answered the Inform
// An ACS that cannot be reached or does not answer within 30 seconds gives no
// GET_INFORM_RESPONSE: the client goes silent towards the watchdog as it does
// on a real gateway.
//
// The exchange with the ACS is a line protocol standing in for CWMP:
//   client: INFORM EVENT CONREQUSER ACSUSER      (words without blanks)
//   ACS:    SET conReq USER PASSWORD | SET acs USER PASSWORD (any number)
//           END
// Each session is a line in /var/log/tr69: "inform EVENT answered", "inform
// EVENT no answer: REASON", "set conReq USER", "set acs USER".
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include "libwdfunc.h"
#include "peer_log.h"
#include "peer_wire.h"
#include "tcapi.h"

namespace {

const char kCwmp[] = "Cwmp_Entry";
const char kLogPath[] = "/var/log/tr69";
const char kFactoryAcs[] = "WBN5937";
const int kAnswerWaitMs = 30000;
const int kRetrySec = 30;
const uint16_t kModTr069 = 2;

volatile sig_atomic_t stopping = 0;
void OnStop(int) { stopping = 1; }

std::string Get(const char* attr) {
  char value[512] = {0};
  if (tcapi_get(kCwmp, attr, value) != 0) return "";
  return value;
}

void Tell(uint32_t type) {
  wdCmdMsg msg = {};
  msg.signaltype = type;
  msg.sequenceNumber = kModTr069;
  if (peer::SendToDaemon(WD_CMD_SOCK_PATH, msg, nullptr) < 0)
    PeerLog(kLogPath, "command %u lost: %s", type, strerror(errno));
}

// A word for the line protocol: blanks would split it.
std::string Word(std::string text) {
  if (text.empty()) return "-";
  for (char& c : text) {
    if (c == ' ' || c == '\t' || c == '\r' || c == '\n') c = '_';
  }
  return text;
}

// "http://HOST:PORT/..." with a numeric IPv4 host.
bool ParseUrl(const std::string& url, sockaddr_in* addr) {
  const std::string scheme = "http://";
  if (url.compare(0, scheme.size(), scheme) != 0) return false;
  std::string rest = url.substr(scheme.size());
  rest = rest.substr(0, rest.find('/'));
  size_t colon = rest.find(':');
  std::string host = rest.substr(0, colon);
  long port = 80;
  if (colon != std::string::npos) {
    char* end = nullptr;
    port = strtol(rest.c_str() + colon + 1, &end, 10);
    if (*end != '\0' || port < 1 || port > 65535) return false;
  }
  memset(addr, 0, sizeof *addr);
  addr->sin_family = AF_INET;
  addr->sin_port = htons(static_cast<uint16_t>(port));
  return inet_pton(AF_INET, host.c_str(), &addr->sin_addr) == 1;
}

int64_t NowMs() {
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Waits for `events` on `fd` until `deadline`; false on time-out or stop.
bool WaitFor(int fd, short events, int64_t deadline) {
  while (!stopping) {
    int64_t left = deadline - NowMs();
    if (left <= 0) return false;
    pollfd p = {fd, events, 0};
    int n = poll(&p, 1, static_cast<int>(left < 100 ? left : 100));
    if (n > 0) return true;
    if (n < 0 && errno != EINTR) return false;  // n == 0: the slice is over
  }
  return false;
}

// One exchange with the ACS; the reply lines in `reply`, or the reason why
// there are none.
bool Exchange(const std::string& request, std::string* reply) {
  sockaddr_in addr;
  if (!ParseUrl(Get("acsUrl"), &addr)) {
    *reply = "no usable acsUrl";
    return false;
  }
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    *reply = strerror(errno);
    return false;
  }
  int64_t deadline = NowMs() + kAnswerWaitMs;
  bool ok = false;
  *reply = "no answer in time";
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) < 0 && errno != EINPROGRESS) {
    *reply = strerror(errno);
  } else if (WaitFor(fd, POLLOUT, deadline)) {
    int error = 0;
    socklen_t len = sizeof error;
    getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &len);
    if (error != 0) {
      *reply = strerror(error);
    } else if (send(fd, request.data(), request.size(), MSG_NOSIGNAL) !=
               static_cast<ssize_t>(request.size())) {
      *reply = strerror(errno);
    } else {
      std::string got;
      char buf[512];
      while (got.find("END\n") == std::string::npos && got.size() < 8192 &&
             WaitFor(fd, POLLIN, deadline)) {
        ssize_t n = recv(fd, buf, sizeof buf, 0);
        if (n <= 0) {
          *reply = "closed without an answer";
          break;
        }
        got.append(buf, static_cast<size_t>(n));
      }
      ok = got.find("END\n") != std::string::npos;
      if (ok) *reply = got;
    }
  }
  close(fd);
  return ok;
}

// Applies the ACS's settings and tells the watchdog about each.
void Apply(const std::string& reply) {
  size_t at = 0;
  while (at < reply.size()) {
    size_t end = reply.find('\n', at);
    std::string line = reply.substr(at, end - at);
    at = end == std::string::npos ? reply.size() : end + 1;
    char what[16], user[129], pass[129];
    if (sscanf(line.c_str(), "SET %15s %128s %128s", what, user, pass) != 3) continue;
    bool conReq = strcmp(what, "conReq") == 0;
    if (!conReq && strcmp(what, "acs") != 0) continue;
    tcapi_set(kCwmp, conReq ? "conReqUserName" : "acsUserName", user);
    tcapi_set(kCwmp, conReq ? "conReqPassword" : "acsPassword", pass);
    PeerLog(kLogPath, "set %s %s", what, user);
    Tell(conReq ? MSG_QORVWATCHDOG_CR_NAME_CHANGE : MSG_QORVWATCHDOG_NAME_CHANGE);
  }
}

bool Session(const char* event) {
  Tell(MSG_QORVWATCHDOG_GET_INFORM);
  std::string request = std::string("INFORM ") + event + " " + Word(Get("conReqUserName")) + " " +
                        Word(Get("acsUserName")) + "\n";
  std::string reply;
  if (!Exchange(request, &reply)) {
    if (!stopping) PeerLog(kLogPath, "inform %s no answer: %s", event, reply.c_str());
    return false;
  }
  Apply(reply);
  Tell(MSG_QORVWATCHDOG_GET_INFORM_RESPONSE);
  PeerLog(kLogPath, "inform %s answered", event);
  return true;
}

int PeriodSec() {
  std::string text = Get("periodInterval");
  char* end = nullptr;
  long value = strtol(text.c_str(), &end, 10);
  return text.empty() || *end != '\0' || value < 1 || value > 86400 ? 60 : static_cast<int>(value);
}

// Sleeps `sec` seconds of the gateway's clock unless stopped, in slices of at
// most 100 ms: a sped-up clock (libfaketime) does not always shorten a long
// wait, and the clock is what counts.
void Pause(int sec) {
  int64_t deadline = NowMs() + static_cast<int64_t>(sec) * 1000;
  for (int64_t left; !stopping && (left = deadline - NowMs()) > 0;) {
    timespec slice = {0, static_cast<long>(left < 100 ? left : 100) * 1000000};
    nanosleep(&slice, nullptr);
  }
}

}  // namespace

int main(int argc, char**) {
  if (argc != 1) {
    fprintf(stderr, "usage: tr69\n");
    return 2;
  }
  signal(SIGTERM, OnStop);
  signal(SIGINT, OnStop);
  std::string mode = Get("restartmode");
  PeerLog(kLogPath, "start pid=%d restartmode=%s", static_cast<int>(getpid()), mode.c_str());
  const char* event =
      mode == "boottrap" || Get("acsUserName") == kFactoryAcs ? "BOOTSTRAP" : "BOOT";
  while (!stopping) {
    int period = PeriodSec();
    bool answered = Session(event);
    if (answered) event = "PERIODIC";
    Pause(answered || period < kRetrySec ? period : kRetrySec);
  }
  PeerLog(kLogPath, "stop pid=%d", static_cast<int>(getpid()));
  return 0;
}
