// wdctl: sends commands to watchdogd's command socket, the way the gateway's
// other processes do, and reads query replies.
#include <ctype.h>
#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "libwdfunc.h"
#include "wd_wire.h"

namespace {

enum Exit { kOk = 0, kNoDaemon = 1, kUsage = 2, kTimeout = 3 };

const char* const kModNames[WD_MOD_NUM] = {
    "default",    "pppoe",         "tr069",   "arp",     "ip_route", "periodic_info", "igmp",
    "voip_stats", "voip_register", "general", "monitor", "sample",   "msg_resend"};

struct TypeName {
  const char* name;
  uint32_t type;
};
const TypeName kTypes[] = {
    {"config", MSG_QORVWATCHDOG_CONFIG_CHANGE},
    {"start", MSG_QORVWATCHDOG_THREAD_START},
    {"exit", MSG_QORVWATCHDOG_THREAD_EXIT},
    {"query", MSG_QORVWATCHDOG_QUERY},
    {"inform", MSG_QORVWATCHDOG_GET_INFORM},
    {"inform-response", MSG_QORVWATCHDOG_GET_INFORM_RESPONSE},
    {"cr-name-change", MSG_QORVWATCHDOG_CR_NAME_CHANGE},
    {"name-change", MSG_QORVWATCHDOG_NAME_CHANGE},
    {"monitor", MSG_QORVWATCHDOG_MONITOR_DATA},
    {"reload", MSG_QORVWATCHDOG_SYSLOG_RELOAD},
    {"reload2", MSG_QORVWATCHDOG_SYSLOG_RELOAD_2},
};

// The help. man/wdctl.1 documents the same commands, options, command types,
// modules and exit statuses; tests/manpages.sh compares the two.
void Usage(FILE* out) {
  fprintf(out,
          "usage: wdctl [--timeout SEC] [--json] COMMAND [ARGUMENT...]\n"
          "Commands:\n"
          "  status                    one line per module (--json: one object)\n"
          "  query MODULE              ask whether the module's thread runs\n"
          "  send TYPE MODULE [-w WORD] [-d TEXT | -x HEXBYTES]\n"
          "                            send any command type with its word and data\n"
          "  start|exit|config|inform|inform-response|cr-name-change|name-change MODULE\n"
          "                            send that command type, with -w, -d, -x as for send\n"
          "  monitor [-d TEXT | -x HEXBYTES]\n"
          "                            send monitor data to the monitor module\n"
          "  reload|reload2            ask for the reload mark on the next report line\n"
          "Options (--timeout, --json and --help anywhere, -w, -d and -x at the end):\n"
          "  --timeout SEC             wait at most SEC seconds for each reply (default 3)\n"
          "  --json                    print status and query answers as JSON\n"
          "  -h, --help                print this help and exit\n"
          "  -w WORD                   the command word, 0..4294967295 (default 0)\n"
          "  -d TEXT                   the data: the bytes of TEXT\n"
          "  -x HEXBYTES               the data: hex digit pairs, blanks and colons skipped\n"
          "TYPE is a number or a name:\n");
  // "name(number)" items after two blanks, wrapped before column 79.
  auto list = [out](const std::vector<std::string>& items) {
    size_t col = 0;
    for (const std::string& item : items) {
      if (col > 0 && col + 1 + item.size() > 78) {
        fputc('\n', out);
        col = 0;
      }
      col += static_cast<size_t>(fprintf(out, col == 0 ? "  %s" : " %s", item.c_str()));
    }
    fputc('\n', out);
  };
  std::vector<std::string> items;
  for (const TypeName& t : kTypes) items.push_back(t.name + ("(" + std::to_string(t.type) + ")"));
  list(items);
  fprintf(out, "MODULE is a name or an id 0..65535:\n");
  items.clear();
  for (int i = 0; i < WD_MOD_NUM; ++i)
    items.push_back(kModNames[i] + ("(" + std::to_string(i) + ")"));
  list(items);
  fprintf(out,
          "Exit status: 0 done, 1 watchdogd not reachable, 2 bad usage, 3 no reply in time.\n");
}

bool ParseNumber(const char* text, unsigned long max, unsigned long* out) {
  if (text == nullptr || *text == '\0') return false;
  char* end = nullptr;
  errno = 0;
  unsigned long value = strtoul(text, &end, 0);
  if (errno != 0 || *end != '\0' || value > max || text[0] == '-') return false;
  *out = value;
  return true;
}

bool ParseModule(const char* text, uint16_t* id) {
  unsigned long value;
  if (ParseNumber(text, 0xFFFF, &value)) {
    *id = static_cast<uint16_t>(value);
    return true;
  }
  const char* name = strncasecmp(text, "MOD_", 4) == 0 ? text + 4 : text;
  for (int i = 0; i < WD_MOD_NUM; ++i) {
    if (strcasecmp(name, kModNames[i]) == 0) {
      *id = static_cast<uint16_t>(i);
      return true;
    }
  }
  fprintf(stderr, "wdctl: unknown module '%s' (wdctl --help lists them)\n", text);
  return false;
}

bool ParseType(const char* text, uint32_t* type) {
  unsigned long value;
  if (ParseNumber(text, 0xFFFFFFFFUL, &value)) {
    *type = static_cast<uint32_t>(value);
    return true;
  }
  for (const TypeName& t : kTypes) {
    if (strcmp(text, t.name) == 0) {
      *type = t.type;
      return true;
    }
  }
  fprintf(stderr, "wdctl: unknown command type '%s'\n", text);
  return false;
}

bool ParseHex(const char* text, std::vector<unsigned char>* out) {
  std::string digits;
  for (const char* p = text; *p; ++p) {
    if (*p == ' ' || *p == ':') continue;
    if (!isxdigit(static_cast<unsigned char>(*p))) return false;
    digits += *p;
  }
  if (digits.size() % 2 != 0) return false;
  for (size_t i = 0; i < digits.size(); i += 2) {
    out->push_back(static_cast<unsigned char>(strtoul(digits.substr(i, 2).c_str(), nullptr, 16)));
  }
  return true;
}

std::vector<unsigned char> Command(uint32_t type, uint16_t mod, uint32_t word,
                                   const std::vector<unsigned char>& data) {
  std::vector<unsigned char> buf(sizeof(wdCmdMsg) + data.size());
  wdCmdMsg head;
  memset(&head, 0, sizeof head);
  head.signaltype = type;
  head.sequenceNumber = mod;
  head.wordData = word;
  head.dataLength = static_cast<uint32_t>(data.size());
  memcpy(buf.data(), &head, sizeof head);
  if (!data.empty()) memcpy(buf.data() + sizeof head, data.data(), data.size());
  return buf;
}

int Send(const std::vector<unsigned char>& buf) {
  if (SendSigToApp(WD_CMD_SOCK_PATH,
                   reinterpret_cast<wdCmdMsg*>(const_cast<unsigned char*>(buf.data()))) < 0) {
    fprintf(stderr, "wdctl: watchdogd is not reachable on %s: %s\n", WD_CMD_SOCK_PATH,
            strerror(errno));
    return kNoDaemon;
  }
  return kOk;
}

// The reply socket; queries are answered on a fixed path, so one wdctl at a
// time waits there.
class ReplySocket {
 public:
  ReplySocket() {
    sockaddr_un addr;
    fd_ = WDSockInit(WD_RESULT_SOCK_PATH, &addr);
    if (fd_ < 0)
      fprintf(stderr, "wdctl: cannot bind %s: %s\n", WD_RESULT_SOCK_PATH, strerror(errno));
  }
  ~ReplySocket() {
    if (fd_ >= 0) {
      close(fd_);
      unlink(WD_RESULT_SOCK_PATH);
    }
  }
  ReplySocket(const ReplySocket&) = delete;
  ReplySocket& operator=(const ReplySocket&) = delete;
  bool ok() const { return fd_ >= 0; }

  // Queries module `mod`; fills `answer` with the reply's wordData.
  int Query(uint16_t mod, int timeoutMs, uint32_t* answer) {
    int rc = Send(Command(MSG_QORVWATCHDOG_QUERY, mod, 0, {}));
    if (rc != kOk) return rc;
    for (;;) {
      pollfd p = {fd_, POLLIN, 0};
      int ready = poll(&p, 1, timeoutMs);
      if (ready < 0 && errno == EINTR) continue;
      if (ready <= 0) return kTimeout;
      unsigned char buf[512];
      ssize_t n = recv(fd_, buf, sizeof buf, 0);
      if (n < static_cast<ssize_t>(sizeof(wdCmdMsg))) continue;
      wdCmdMsg reply;
      memcpy(&reply, buf, sizeof reply);
      // A late reply to an earlier query is not ours.
      if (reply.signaltype != MSG_QORVWATCHDOG_QUERY || reply.sequenceNumber != mod) continue;
      *answer = reply.wordData;
      return kOk;
    }
  }

 private:
  int fd_;
};

std::string ModName(uint16_t id) {
  return id < WD_MOD_NUM ? kModNames[id] : "module " + std::to_string(id);
}

}  // namespace

int main(int argc, char** argv) {
  int timeoutMs = 3000;
  bool json = false;
  // Options that start with "--" may stand anywhere; the rest are positional.
  std::vector<char*> words;
  for (int k = 1; k < argc; ++k) {
    if (strcmp(argv[k], "--help") == 0 || strcmp(argv[k], "-h") == 0) {
      Usage(stdout);
      return kOk;
    } else if (strcmp(argv[k], "--json") == 0) {
      json = true;
    } else if (strcmp(argv[k], "--timeout") == 0 && k + 1 < argc) {
      char* end = nullptr;
      double sec = strtod(argv[++k], &end);
      if (*end != '\0' || !(sec > 0 && sec < 3600)) {
        fprintf(stderr, "wdctl: --timeout needs seconds between 0 and 3600\n");
        return kUsage;
      }
      timeoutMs = static_cast<int>(sec * 1000);
    } else if (strncmp(argv[k], "--", 2) == 0) {
      fprintf(stderr, "wdctl: unknown option %s\n", argv[k]);
      Usage(stderr);
      return kUsage;
    } else {
      words.push_back(argv[k]);
    }
  }
  if (words.empty()) {
    Usage(stderr);
    return kUsage;
  }
  std::string cmd = words[0];
  std::vector<char*> rest(words.begin() + 1, words.end());

  if (cmd == "status") {
    if (!rest.empty()) {
      Usage(stderr);
      return kUsage;
    }
    ReplySocket sock;
    if (!sock.ok()) return kNoDaemon;
    std::string out = json ? "{\"modules\":[" : "";
    for (uint16_t mod = 0; mod < WD_MOD_NUM; ++mod) {
      uint32_t answer = 0;
      int rc = sock.Query(mod, timeoutMs, &answer);
      if (rc == kTimeout)
        fprintf(stderr, "wdctl: no reply from watchdogd for %s\n", kModNames[mod]);
      if (rc != kOk) return rc;
      char line[128];
      if (json) {
        snprintf(line, sizeof line, "%s{\"id\":%u,\"module\":\"%s\",\"running\":%s,\"answer\":%u}",
                 mod ? "," : "", mod, kModNames[mod], answer == 0 ? "true" : "false", answer);
      } else {
        snprintf(line, sizeof line, "%2u %-14s %s\n", mod, kModNames[mod],
                 answer == 0 ? "running" : "not running");
      }
      out += line;
    }
    if (json) out += "]}\n";
    fputs(out.c_str(), stdout);
    return kOk;
  }

  uint32_t type = 0;
  uint16_t mod = 0;
  uint32_t word = 0;
  std::vector<unsigned char> data;
  size_t next = 0;
  if (cmd == "send") {
    if (rest.size() < 2 || !ParseType(rest[0], &type) || !ParseModule(rest[1], &mod)) {
      if (rest.size() < 2) Usage(stderr);
      return kUsage;
    }
    next = 2;
  } else if (cmd == "monitor") {
    type = MSG_QORVWATCHDOG_MONITOR_DATA;
    mod = MOD_MONITOR;
  } else if (cmd == "reload" || cmd == "reload2") {
    ParseType(cmd.c_str(), &type);
  } else if (cmd == "query") {
    if (rest.size() != 1 || !ParseModule(rest[0], &mod)) {
      if (rest.size() != 1) Usage(stderr);
      return kUsage;
    }
    ReplySocket sock;
    if (!sock.ok()) return kNoDaemon;
    uint32_t answer = 0;
    int rc = sock.Query(mod, timeoutMs, &answer);
    if (rc == kTimeout) fprintf(stderr, "wdctl: no reply from watchdogd within %d ms\n", timeoutMs);
    if (rc != kOk) return rc;
    if (json) {
      printf("{\"id\":%u,\"module\":\"%s\",\"running\":%s,\"answer\":%u}\n", mod,
             ModName(mod).c_str(), answer == 0 ? "true" : "false", answer);
    } else {
      printf("%s: %s (%u)\n", ModName(mod).c_str(), answer == 0 ? "running" : "not running",
             answer);
    }
    return kOk;
  } else {
    if (!ParseType(cmd.c_str(), &type)) {
      Usage(stderr);
      return kUsage;
    }
    if (rest.empty() || !ParseModule(rest[0], &mod)) {
      if (rest.empty()) Usage(stderr);
      return kUsage;
    }
    next = 1;
  }
  for (size_t k = next; k < rest.size(); ++k) {
    std::string opt = rest[k];
    if (k + 1 >= rest.size()) {
      fprintf(stderr, "wdctl: %s needs a value\n", opt.c_str());
      return kUsage;
    }
    const char* value = rest[++k];
    unsigned long number;
    if (opt == "-w" && ParseNumber(value, 0xFFFFFFFFUL, &number)) {
      word = static_cast<uint32_t>(number);
    } else if (opt == "-d") {
      data.assign(value, value + strlen(value));
    } else if (opt == "-x" && ParseHex(value, &data)) {
    } else {
      fprintf(stderr, "wdctl: bad option or value: %s %s\n", opt.c_str(), value);
      return kUsage;
    }
  }
  return Send(Command(type, mod, word, data));
}
