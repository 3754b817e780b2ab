// voiceApp: the gateway's simulated voice application, the process that
// watchdogd's VoIP modules ask for call statistics and the SIP registration.
//
//   voiceApp [-c SECONDS]   runs until SIGTERM or SIGINT
//   voiceApp ctl WORDS...   hands one control command to the running voiceApp
//
// Queries are attributes of the tree node VoipCurSet_WDQuery, noticed through a
// watch on /etc (and looked for once a second anyway) and taken, i.e. read and
// removed in one step: Query=0x3/ppp0 asks for the registration record;
// Query=0x4/ppp0 starts a statistics query that its wordData completes:
// wordData=1 asks for a record at the end of every call from now on, any other
// number stops that and asks for an interval record now. Answers go to
// WD_CMD_SOCK_PATH, one datagram each: a wdCmdMsg (MSG_QORVWATCHDOG_QUERY,
// sequenceNumber 7 statistics or 8 registration, wordData 1), then the record
// in the device's byte order (gateway/peer_wire.h), the 23 words of Word or
// counter and status. Without a daemon the answer is lost, as for any peer.
//
// The line: an answered call carries 50 packets of 172 bytes a second each way
// and loses every 997th packet it receives. An interval record counts all since
// the previous one. Registration status 0 is registered; any other accrues
// ServerDownTime and counts a failed attempt per registration answer. With -c a
// call starts every SECONDS (incoming, outgoing, missed in turn) lasting
// SECONDS/2, at least 1. A call writes its id to /var/tmp/iptk_callid.
//
// Control commands, one a line, on the FIFO /var/run/voiceApp.ctl:
//   register STATUS [COUNTER]  set the status; COUNTER goes out as is in the
//                              next answer (without it, status 0 resets it)
//   call in|out SECONDS [ID]   an answered call lasting SECONDS
//   call missed                an incoming call nobody answers
//   hangup | drop              end the call in progress, normally or dropped
//   burst N                    N registration answers in a row, "registered"
//                              each, as a voice application catching up on
//                              queries it missed: sent as fast as the command
//                              socket takes them, waiting for room (5 s at most)
// Each event is a line in /var/log/voiceApp, written once it is done, e.g.
// "query Query=0x3/ppp0", "query wordData=6", "answer register counter=N
// status=S", "burst sent=K of N[: REASON]", "answer stats interval|call START END sent=...", "answer lost:
// SendSigToApp: REASON (...)", "call out 30 call-1@gateway started", "call
// call-1@gateway ended|dropped", "call missed", "bad command: LINE".
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <sstream>
#include <string>
#include <vector>

#include "libwdfunc.h"
#include "peer_wire.h"
#include "tcapi.h"
#include "wd_wire.h"

namespace {

const char kNode[] = "VoipCurSet_WDQuery";
const char kFifo[] = "/var/run/voiceApp.ctl";
const char kLogPath[] = "/var/log/voiceApp";
const char kCallIdPath[] = "/var/tmp/iptk_callid";
const char kTreeName[] = "tcapi.conf";  // TCAPI_TREE_PATH, in /etc
const size_t kMaxLine = 512;
const int64_t kPacketsPerSec = 50, kPacketBytes = 172, kLossEvery = 997;

// The words of a statistics record.
// clang-format off
enum Word {
  kStart, kEnd, kPktSent, kPktRecv, kBytesSent, kBytesRecv, kLost, kJitter, kRtt,
  kInRecv, kInAnswered, kInConnected, kInFailed,
  kOutAttempted, kOutAnswered, kOutConnected, kOutFailed,
  kDropped, kCallTime, kDownTime, kMos, kCodec, kJitterBuf, kWords
};
// clang-format on
static_assert(kWords * sizeof(int32_t) == 92, "statistics record is 92 bytes");
using Tally = std::array<int64_t, kWords>;  // counts of one call or interval

struct Datagram {
  wdCmdMsg head;
  int32_t words[kWords];
};
static_assert(sizeof(Datagram) == sizeof(wdCmdMsg) + 92, "no padding after the header");

int64_t NowMs() {
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return ts.tv_sec * int64_t{1000} + ts.tv_nsec / 1000000;
}
int64_t Now() { return NowMs() / 1000; }

__attribute__((format(printf, 1, 2))) void Log(const char* format, ...) {
  char line[kMaxLine + 256];
  va_list ap;
  va_start(ap, format);
  int n = vsnprintf(line, sizeof line - 1, format, ap);
  va_end(ap);
  if (n < 0) return;
  size_t len = std::min(static_cast<size_t>(n), sizeof line - 2);
  line[len++] = '\n';
  int fd = open(kLogPath, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) return;
  if (write(fd, line, len) < 0) {  // nowhere left to report it
  }
  close(fd);
}

// Text from the tree or the FIFO, made safe for one log line.
std::string Clean(std::string text) {
  for (char& c : text)
    if (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) >= 0x7f)
      c = c == '\t' || c == '\r' ? ' ' : '?';
  return text;
}

bool ParseInt(const std::string& text, int64_t lo, int64_t hi, int64_t* out) {
  if (text.empty() || text.size() > 24) return false;
  char* end = nullptr;
  errno = 0;
  long long value = strtoll(text.c_str(), &end, 10);
  if (errno != 0 || *end != '\0' || value < lo || value > hi) return false;
  *out = value;
  return true;
}

// Adds the traffic of seconds [from, to) of a call (counted from its start).
void AddTraffic(Tally& t, int64_t from, int64_t to) {
  int64_t packets = (to - from) * kPacketsPerSec;
  int64_t lost = to * kPacketsPerSec / kLossEvery - from * kPacketsPerSec / kLossEvery;
  t[kPktSent] += packets;
  t[kPktRecv] += packets - lost;
  t[kLost] += lost;
  t[kBytesSent] += packets * kPacketBytes;
  t[kBytesRecv] += (packets - lost) * kPacketBytes;
  t[kCallTime] += to - from;
}

// Received, answered, connected; or attempted, answered, connected.
void CountAnswered(Tally& t, bool in) {
  for (int w = in ? kInRecv : kOutAttempted, i = 0; i < 3; ++i) ++t[w + i];
}

// Sends one answer to the daemon; `what` describes it in the log.
void Answer(uint16_t mod, const int32_t* words, size_t count, const std::string& what) {
  wdCmdMsg head = {};
  head.signaltype = MSG_QORVWATCHDOG_QUERY;
  head.sequenceNumber = mod;
  head.wordData = 1;
  head.dataLength = static_cast<uint32_t>(count * sizeof(int32_t));
  int32_t device[kWords];
  for (size_t i = 0; i < count && i < kWords; ++i) device[i] = peer::Device32(words[i]);
  if (peer::SendToDaemon(WD_CMD_SOCK_PATH, head, device) < 0)
    Log("answer lost: SendSigToApp: %s (%s)", strerror(errno), what.c_str());
  else
    Log("answer %s", what.c_str());
}

void WriteCallId(const std::string& id) {
  mkdir("/var/tmp", 0755);
  std::string tmp = std::string(kCallIdPath) + ".tmp", text = id + "\n";
  int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  bool ok = fd >= 0 && write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  if (fd >= 0) close(fd);
  if (!ok || rename(tmp.c_str(), kCallIdPath) != 0)
    Log("call id not written: %s: %s", kCallIdPath, strerror(errno));
}

class VoiceApp {
 public:
  explicit VoiceApp(int64_t period) : period_(period), next_auto_(iv_start_ + period) {}

  // Takes and acts on the queries waiting in the tree.
  void CheckTree() {
    char value[256];
    if (tcapi_take(kNode, "Query", value, sizeof value) == 0) {
      std::string q = Clean(value);
      Log("query Query=%s%s", q.c_str(),
          q == "0x3/ppp0" || q == "0x4/ppp0" ? "" : " not understood");
      if (q == "0x3/ppp0") AnswerRegister();
    }
    if (tcapi_take(kNode, "wordData", value, sizeof value) != 0) return;
    std::string word = Clean(value);
    int64_t mode = 0;
    bool number = ParseInt(word, INT64_MIN, INT64_MAX, &mode);
    Log("query wordData=%s%s", word.c_str(), number ? "" : " not a number");
    if (!number) return;
    if (mode == 1 || per_call_) Log(mode == 1 ? "subscribed per-call" : "unsubscribed per-call");
    per_call_ = mode == 1;
    if (mode != 1) AnswerInterval();
  }

  // Reads what the FIFO holds and runs each whole line; a longer line than
  // kMaxLine is refused whole.
  void ReadCommands(int fd) {
    char buf[kMaxLine];
    for (ssize_t n; (n = read(fd, buf, sizeof buf)) > 0;) {
      pending_.append(buf, static_cast<size_t>(n));
      for (size_t eol; (eol = pending_.find('\n')) != std::string::npos;
           pending_.erase(0, eol + 1)) {
        if (eol <= kMaxLine)
          Command(Clean(pending_.substr(0, eol)));
        else
          Log("bad command: longer than %zu bytes", kMaxLine);
      }
      if (pending_.size() > kMaxLine) pending_.resize(kMaxLine + 1);  // too long already
    }
  }

  // Ends the call whose time is up and starts the automatic call when due.
  void Tick() {
    int64_t now = Now();
    if (call_.up && now >= call_.end) EndCall(call_.end, false);
    if (period_ == 0 || now < next_auto_) return;
    next_auto_ = std::max(next_auto_ + period_, now + 1);
    int kind = auto_calls_++ % 3;  // incoming, outgoing, missed
    StartCall(kind != 1, kind == 2 ? -1 : std::max<int64_t>(period_ / 2, 1), "");
  }

  // Milliseconds until Tick or CheckTree (last done at `checked_ms`) is due.
  int TimeoutMs(int64_t checked_ms) const {
    int64_t due = checked_ms + 1000;
    if (call_.up) due = std::min(due, call_.end * 1000);
    if (period_ > 0) due = std::min(due, next_auto_ * 1000);
    return static_cast<int>(std::clamp<int64_t>(due - NowMs(), 0, 1000));
  }

 private:
  struct Call {
    bool up = false, in = false;
    int64_t start = 0, end = 0, counted = 0;  // counted: seconds already in the interval
    std::string id;
  };

  void Command(const std::string& line) {
    std::istringstream in(line);
    std::vector<std::string> w;
    for (std::string word; w.size() < 5 && in >> word;) w.push_back(word);
    size_t n = w.size();
    int64_t a = 0, b = 0;
    if (n == 0) return;
    if (w[0] == "register" && (n == 2 || n == 3) && ParseInt(w[1], INT32_MIN, INT32_MAX, &a) &&
        (n == 2 || ParseInt(w[2], INT32_MIN, INT32_MAX, &b))) {
      Accrue(Now());  // the time so far counts under the old status
      status_ = static_cast<int32_t>(a);
      if (n == 3 || a == 0) counter_ = static_cast<int32_t>(b);
      pinned_ = n == 3;
      Log("register status=%d counter=%d", status_, counter_);
    } else if (w[0] == "call" && n == 2 && w[1] == "missed") {
      StartCall(true, -1, "");
    } else if (w[0] == "call" && (n == 3 || n == 4) && (w[1] == "in" || w[1] == "out") &&
               ParseInt(w[2], 0, INT32_MAX, &a) && (n == 3 || w[3].size() <= 128)) {
      StartCall(w[1] == "in", a, n == 4 ? w[3] : "");
    } else if (w[0] == "burst" && n == 2 && ParseInt(w[1], 1, 1000000, &a)) {
      Burst(a);
    } else if (n == 1 && (w[0] == "hangup" || w[0] == "drop")) {
      if (!call_.up) return Log("%s: no call in progress", w[0].c_str());
      EndCall(Now(), w[0] == "drop");
    } else {
      Log("bad command: %s", line.c_str());
    }
  }

  void AnswerRegister() {
    if (!pinned_ && status_ != 0 && counter_ < INT32_MAX) ++counter_;
    pinned_ = false;
    int32_t words[2] = {counter_, status_};
    Answer(MOD_VOIP_REGISTER, words, 2,
           "register counter=" + std::to_string(counter_) + " status=" + std::to_string(status_));
  }

  void Burst(int64_t count) {
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    timeval limit = {5, 0};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s", WD_CMD_SOCK_PATH);
    Datagram msg = {};
    msg.head.signaltype = MSG_QORVWATCHDOG_QUERY;
    msg.head.sequenceNumber = MOD_VOIP_REGISTER;
    msg.head.wordData = 1;
    msg.head.dataLength = 2 * sizeof(int32_t);  // counter 0, status 0: registered
    size_t size = sizeof msg.head + msg.head.dataLength;
    msg.head = peer::DeviceHead(msg.head);
    int64_t sent = 0;
    while (sent < count && sendto(fd, &msg, size, 0, reinterpret_cast<sockaddr*>(&addr),
                                  sizeof addr) == static_cast<ssize_t>(size)) {
      ++sent;
    }
    const char* reason = sent < count ? strerror(errno) : nullptr;
    close(fd);
    Log("burst sent=%lld of %lld%s%s", static_cast<long long>(sent), static_cast<long long>(count),
        reason ? ": " : "", reason ? reason : "");
  }

  void AnswerInterval() {
    int64_t now = Now();
    Accrue(now);
    SendStats("interval", iv_, iv_start_, now);
    iv_.fill(0);
    iv_start_ = now;
  }

  void SendStats(const char* kind, const Tally& t, int64_t start, int64_t end) {
    int32_t w[kWords];
    for (int i = 0; i < kWords; ++i)
      w[i] = static_cast<int32_t>(std::clamp<int64_t>(t[i], INT32_MIN, INT32_MAX));
    // Times keep their low 32 bits, as a device with a 32-bit clock sends them.
    w[kStart] = static_cast<int32_t>(static_cast<uint32_t>(start));
    w[kEnd] = static_cast<int32_t>(static_cast<uint32_t>(end));
    bool traffic = t[kPktSent] > 0;
    w[kJitter] = traffic ? (t[kLost] > 0 ? 4 : 2) : 0;  // ms
    w[kRtt] = traffic ? 38 : 0;                         // ms
    w[kMos] = t[kLost] > 0 ? 410 : 440;                 // MOS x 100
    w[kCodec] = 8;                                      // G.711 A-law payload type
    w[kJitterBuf] = 60;                                 // ms
    char what[400];
    snprintf(what, sizeof what,
             "stats %s %d %d sent=%d received=%d lost=%d calltime=%d downtime=%d "
             "in=%d/%d/%d/%d out=%d/%d/%d/%d dropped=%d",
             kind, w[kStart], w[kEnd], w[kPktSent], w[kPktRecv], w[kLost], w[kCallTime],
             w[kDownTime], w[kInRecv], w[kInAnswered], w[kInConnected], w[kInFailed],
             w[kOutAttempted], w[kOutAnswered], w[kOutConnected], w[kOutFailed], w[kDropped]);
    Answer(MOD_VOIP_STATS, w, kWords, what);
  }

  // Counts the down time and the call's traffic up to `now` in the interval.
  void Accrue(int64_t now) {
    if (status_ != 0) iv_[kDownTime] += std::max<int64_t>(now - down_mark_, 0);
    down_mark_ = std::max(down_mark_, now);
    int64_t upto = std::min(now, call_.end) - call_.start;
    if (!call_.up || upto <= call_.counted) return;
    AddTraffic(iv_, call_.counted, upto);
    call_.counted = upto;
  }

  // Starts an answered call of `secs` seconds, or with secs < 0 a missed one.
  void StartCall(bool in, int64_t secs, std::string id) {
    if (call_.up) return Log("call refused: %s in progress", call_.id.c_str());
    int64_t now = Now();
    if (secs < 0) {
      Tally t{};
      for (Word w : {kInRecv, kInFailed}) ++iv_[w], ++t[w];
      Log("call missed");
      if (per_call_) SendStats("call", t, now, now);
      return;
    }
    if (id.empty()) id = "call-" + std::to_string(calls_ + 1) + "@gateway";
    ++calls_;
    call_ = Call{true, in, now, now + secs, 0, id};
    CountAnswered(iv_, in);
    WriteCallId(id);
    Log("call %s %lld %s started", in ? "in" : "out", static_cast<long long>(secs), id.c_str());
  }

  void EndCall(int64_t at, bool dropped) {
    at = std::clamp(at, call_.start, call_.end);
    Accrue(at);
    call_.up = false;
    Tally t{};
    CountAnswered(t, call_.in);
    AddTraffic(t, 0, at - call_.start);
    iv_[kDropped] += dropped;
    t[kDropped] = dropped;
    Log("call %s %s", call_.id.c_str(), dropped ? "dropped" : "ended");
    if (per_call_) SendStats("call", t, call_.start, at);
  }

  const int64_t period_;  // seconds between automatic calls, 0 for none
  int64_t iv_start_ = Now(), down_mark_ = iv_start_, next_auto_;
  Tally iv_{};  // counts since the previous interval answer
  Call call_;
  int32_t status_ = 0, counter_ = 0;
  bool pinned_ = false;  // counter_ was set by a command: the next answer sends it as is
  bool per_call_ = false;
  int calls_ = 0, auto_calls_ = 0;
  std::string pending_;  // the FIFO's unfinished line
};

// Drains the watch; true when the tree file was replaced or written.
bool TreeChanged(int fd) {
  alignas(inotify_event) char buf[4096];
  bool changed = false;
  ssize_t n;
  while ((n = read(fd, buf, sizeof buf)) > 0) {
    for (ssize_t off = 0; off + static_cast<ssize_t>(sizeof(inotify_event)) <= n;) {
      const auto* ev = reinterpret_cast<const inotify_event*>(buf + off);
      if ((ev->mask & IN_Q_OVERFLOW) ||
          std::string(ev->name, strnlen(ev->name, ev->len)) == kTreeName)
        changed = true;
      off += static_cast<ssize_t>(sizeof(inotify_event) + ev->len);
    }
  }
  return changed;
}

volatile sig_atomic_t stopping = 0;
void OnStop(int) { stopping = 1; }

int Usage() {
  fprintf(stderr, "usage: voiceApp [-c SECONDS] | voiceApp ctl COMMAND...\n");
  return 2;
}

// voiceApp ctl: writes the words as one line into the running voiceApp's FIFO.
int Control(int argc, char** argv) {
  std::string line = argv[2];
  for (int i = 3; i < argc; ++i) line += std::string(" ") + argv[i];
  line += "\n";
  if (line.size() > kMaxLine) return Usage();
  int fd = open(kFifo, O_WRONLY | O_NONBLOCK | O_CLOEXEC);
  bool sent = fd >= 0 && write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size());
  if (!sent) fprintf(stderr, "voiceApp: no voiceApp listening on %s: %s\n", kFifo, strerror(errno));
  if (fd >= 0) close(fd);
  return sent ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 2 && strcmp(argv[1], "ctl") == 0) return argc >= 3 ? Control(argc, argv) : Usage();
  int64_t period = 0;
  if (argc == 3 && strcmp(argv[1], "-c") == 0) {
    if (!ParseInt(argv[2], 1, 365 * 86400, &period)) return Usage();
  } else if (argc != 1) {
    return Usage();
  }
  // The watch comes first: a query written from here on is noticed.
  int watch = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (watch >= 0 && inotify_add_watch(watch, "/etc", IN_MOVED_TO | IN_CLOSE_WRITE) < 0) {
    close(watch);
    watch = -1;
  }
  signal(SIGTERM, OnStop);
  signal(SIGINT, OnStop);
  unlink(kFifo);
  int ctl = mkfifo(kFifo, 0600) == 0 ? open(kFifo, O_RDWR | O_NONBLOCK | O_CLOEXEC) : -1;
  if (ctl < 0) {
    const char* reason = strerror(errno);
    Log("cannot create %s: %s", kFifo, reason);
    fprintf(stderr, "voiceApp: cannot create %s: %s\n", kFifo, reason);
    return 1;
  }
  VoiceApp app(period);
  Log("started");
  if (watch < 0) Log("no watch on /etc: the tree is read once a second");
  app.CheckTree();
  int64_t checked_ms = NowMs();
  while (!stopping) {
    pollfd fds[2] = {{ctl, POLLIN, 0}, {watch, POLLIN, 0}};
    if (poll(fds, 2, app.TimeoutMs(checked_ms)) < 0) {
      if (errno == EINTR) continue;
      Log("poll: %s", strerror(errno));
      break;
    }
    app.Tick();
    if (fds[0].revents & POLLIN) app.ReadCommands(ctl);
    bool check = NowMs() - checked_ms >= 1000;
    if (fds[1].revents & POLLIN) check = TreeChanged(watch) || check;
    if (check) {
      app.CheckTree();
      checked_ms = NowMs();
    }
  }
  unlink(kFifo);
  Log("stopped");
  return 0;
}
