// query_bench: times the daemon's command socket from inside a gateway.
//
//   query_bench latency COUNT      COUNT queries (type 4) one after the other,
//                                  each reply timed: p50, p99 and max
//   query_bench flood SECONDS N    N clients send queries and, every fourth
//                                  command, a configuration change for the
//                                  process monitor, as fast as the daemon
//                                  takes them, for SECONDS
//   query_bench burst COUNT        3 clients each send COUNT commands in a row
//                                  to a module of their own (registration
//                                  answers, TR-069 Inform responses, IGMP
//                                  configuration changes) while a fourth
//                                  times a query every
//                                  10 ms until they are done: p50, p99, max
//
// The daemon answers every query on one fixed path, /tmp/wd_result_sock, so
// this program binds it once and reads every reply there; the clients send
// from sockets of their own. A reply that does not come within a second is
// counted as lost. Prints one line of key=value figures.
#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <vector>

#include "libwdfunc.h"
#include "wd_wire.h"

namespace {

int64_t NowNs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

int CommandSocket() {
  int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr;
  memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  strcpy(addr.sun_path, WD_CMD_SOCK_PATH);
  if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    perror("query_bench: " WD_CMD_SOCK_PATH);
    exit(1);
  }
  return fd;
}

int ResultSocket() {
  sockaddr_un addr;
  int fd = WDSockInit(WD_RESULT_SOCK_PATH, &addr);
  if (fd < 0) {
    perror("query_bench: " WD_RESULT_SOCK_PATH);
    exit(1);
  }
  return fd;
}

wdCmdMsg Command(uint32_t type, uint16_t module) {
  wdCmdMsg msg;
  memset(&msg, 0, sizeof msg);
  msg.signaltype = type;
  msg.sequenceNumber = module;
  return msg;
}

// One reply within `timeoutMs`; false when none came.
bool Reply(int fd, int timeoutMs, wdCmdMsg* reply) {
  pollfd p = {fd, POLLIN, 0};
  for (;;) {
    int ready = poll(&p, 1, timeoutMs);
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return false;
    ssize_t n = recv(fd, reply, sizeof *reply, 0);
    if (n >= static_cast<ssize_t>(sizeof *reply)) return true;
    if (n < 0 && errno != EINTR) return false;
  }
}

double Percentile(std::vector<int64_t>& sorted, double p) {
  if (sorted.empty()) return 0;
  size_t i = static_cast<size_t>(p * static_cast<double>(sorted.size() - 1) + 0.5);
  return static_cast<double>(sorted[i]) / 1000.0;
}

int Latency(long count) {
  int cmd = CommandSocket();
  int res = ResultSocket();
  std::vector<int64_t> took;
  took.reserve(static_cast<size_t>(count));
  long lost = 0, wrong = 0;
  int64_t start = NowNs();
  for (long i = 0; i < count; ++i) {
    // The modules that run in the benchmark's gateway, in turn.
    uint16_t module = static_cast<uint16_t>(MOD_PPPOE + i % (MOD_MONITOR - MOD_PPPOE + 1));
    wdCmdMsg msg = Command(MSG_QORVWATCHDOG_QUERY, module);
    int64_t t0 = NowNs();
    if (send(cmd, &msg, sizeof msg, 0) != static_cast<ssize_t>(sizeof msg)) {
      perror("query_bench: send");
      return 1;
    }
    wdCmdMsg reply;
    if (!Reply(res, 1000, &reply)) {
      ++lost;
      continue;
    }
    took.push_back(NowNs() - t0);
    if (reply.sequenceNumber != module) ++wrong;
  }
  double seconds = static_cast<double>(NowNs() - start) / 1e9;
  std::sort(took.begin(), took.end());
  printf("latency queries=%ld replies=%zu lost=%ld other_module=%ld p50_us=%.1f p99_us=%.1f "
         "max_us=%.1f per_second=%.0f\n",
         count, took.size(), lost, wrong, Percentile(took, 0.50), Percentile(took, 0.99),
         took.empty() ? 0.0 : static_cast<double>(took.back()) / 1000.0,
         static_cast<double>(took.size()) / seconds);
  unlink(WD_RESULT_SOCK_PATH);
  return 0;
}

struct Flood {
  int64_t deadline;
  std::atomic<long> queries{0}, changes{0}, replies{0};
  std::atomic<bool> sending{true};
  int res;
  bool realtime = false;
};

void* Client(void* arg) {
  Flood* f = static_cast<Flood*>(arg);
  int cmd = CommandSocket();
  long queries = 0, changes = 0;
  for (unsigned i = 0; NowNs() < f->deadline; ++i) {
    wdCmdMsg msg = i % 4 == 3
                       ? Command(MSG_QORVWATCHDOG_CONFIG_CHANGE, MOD_MONITOR)
                       : Command(MSG_QORVWATCHDOG_QUERY,
                                 static_cast<uint16_t>(MOD_PPPOE + i % (MOD_MONITOR - MOD_PPPOE + 1)));
    // Blocking: a full command queue holds the client until the daemon reads.
    if (send(cmd, &msg, sizeof msg, 0) != static_cast<ssize_t>(sizeof msg)) {
      if (errno == EINTR) continue;
      perror("query_bench: send");
      break;
    }
    if (msg.signaltype == MSG_QORVWATCHDOG_QUERY) ++queries;
    else ++changes;
  }
  f->queries += queries;
  f->changes += changes;
  close(cmd);
  return nullptr;
}

void* Receiver(void* arg) {
  Flood* f = static_cast<Flood*>(arg);
  // The reply socket holds only a few datagrams (the system's dgram queue
  // length): the reader runs before the clients wherever it may, so that a
  // lost reply is one the daemon dropped, not one this reader was too slow for.
  sched_param param = {};
  param.sched_priority = 1;
  f->realtime = pthread_setschedparam(pthread_self(), SCHED_FIFO, &param) == 0;
  wdCmdMsg reply;
  long replies = 0;
  // Until the clients have stopped and no reply came for a second.
  while (Reply(f->res, 1000, &reply) || f->sending) ++replies;
  f->replies = replies;
  return nullptr;
}

int FloodRun(int seconds, int clients) {
  Flood f;
  f.res = ResultSocket();
  int64_t start = NowNs();
  f.deadline = start + static_cast<int64_t>(seconds) * 1000000000;
  pthread_t receiver;
  pthread_create(&receiver, nullptr, Receiver, &f);
  std::vector<pthread_t> senders(static_cast<size_t>(clients));
  for (auto& t : senders) pthread_create(&t, nullptr, Client, &f);
  for (auto& t : senders) pthread_join(t, nullptr);
  double took = static_cast<double>(NowNs() - start) / 1e9;
  f.sending = false;
  pthread_join(receiver, nullptr);
  long sent = f.queries + f.changes;
  printf("flood clients=%d seconds=%.2f queries=%ld changes=%ld commands_per_second=%.0f "
         "replies=%ld lost=%ld reader=%s\n",
         clients, took, f.queries.load(), f.changes.load(), static_cast<double>(sent) / took,
         f.replies.load(), f.queries - f.replies, f.realtime ? "fifo" : "normal");
  unlink(WD_RESULT_SOCK_PATH);
  return 0;
}

struct Burst {
  long count;
  std::atomic<int> sending{3};
};

// One client's burst: `count` commands for one module, as fast as the
// command socket takes them.
void* BurstClient(void* arg, uint32_t type, uint16_t module, uint32_t word, uint32_t length) {
  Burst* b = static_cast<Burst*>(arg);
  int cmd = CommandSocket();
  unsigned char bytes[sizeof(wdCmdMsg) + 8] = {};
  wdCmdMsg head = Command(type, module);
  head.wordData = word;
  head.dataLength = length;
  memcpy(bytes, &head, sizeof head);
  for (long i = 0; i < b->count; ++i) {
    size_t size = sizeof head + length;
    if (send(cmd, bytes, size, 0) != static_cast<ssize_t>(size) && errno != EINTR) {
      perror("query_bench: send");
      break;
    }
  }
  close(cmd);
  --b->sending;
  return nullptr;
}

void* BurstRegister(void* arg) {
  return BurstClient(arg, MSG_QORVWATCHDOG_QUERY, MOD_VOIP_REGISTER, 1, 8);  // registered
}
void* BurstTr069(void* arg) {
  return BurstClient(arg, MSG_QORVWATCHDOG_GET_INFORM_RESPONSE, MOD_TR069, 0, 0);
}
void* BurstIgmp(void* arg) {
  return BurstClient(arg, MSG_QORVWATCHDOG_CONFIG_CHANGE, MOD_IGMP, 0, 0);
}

int BurstRun(long count) {
  Burst b;
  b.count = count;
  int cmd = CommandSocket();
  int res = ResultSocket();
  int64_t start = NowNs();
  pthread_t clients[3];
  void* (*bodies[3])(void*) = {BurstRegister, BurstTr069, BurstIgmp};
  for (int i = 0; i < 3; ++i) pthread_create(&clients[i], nullptr, bodies[i], &b);
  std::vector<int64_t> took;
  long lost = 0;
  while (b.sending > 0) {
    wdCmdMsg msg = Command(MSG_QORVWATCHDOG_QUERY, MOD_ARP);
    int64_t t0 = NowNs();
    wdCmdMsg reply;
    if (send(cmd, &msg, sizeof msg, 0) == static_cast<ssize_t>(sizeof msg) &&
        Reply(res, 1000, &reply)) {
      took.push_back(NowNs() - t0);
    } else {
      ++lost;
    }
    timespec pause = {0, 10000000};
    nanosleep(&pause, nullptr);
  }
  for (pthread_t t : clients) pthread_join(t, nullptr);
  double seconds = static_cast<double>(NowNs() - start) / 1e9;
  std::sort(took.begin(), took.end());
  printf("burst commands=%ld seconds=%.2f queries=%zu lost=%ld p50_us=%.1f p99_us=%.1f "
         "max_us=%.1f\n",
         3 * count, seconds, took.size(), lost, Percentile(took, 0.50), Percentile(took, 0.99),
         took.empty() ? 0.0 : static_cast<double>(took.back()) / 1000.0);
  unlink(WD_RESULT_SOCK_PATH);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && strcmp(argv[1], "latency") == 0) return Latency(atol(argv[2]));
  if (argc == 4 && strcmp(argv[1], "flood") == 0) return FloodRun(atoi(argv[2]), atoi(argv[3]));
  if (argc == 3 && strcmp(argv[1], "burst") == 0) return BurstRun(atol(argv[2]));
  fprintf(stderr, "usage: query_bench latency COUNT | flood SECONDS CLIENTS | burst COUNT\n");
  return 2;
}
