// The core: module channels, sending and the queues of waiting events, and
// number parsing.

#include "wd_base.h"
#include "wd_chanl.h"

#include <poll.h>

#include "unit_util.h"

namespace {

constexpr int kMod = MOD_SAMPLE;

class ChannelTest : public ::testing::Test {
 protected:
  void SetUp() override {
    snprintf(gSubMod[kMod].chanlPath, WD_CHANL_PATH_SIZE, "/var/wd_smple.chanl");
    ASSERT_EQ(wd_chanlOpen(kMod, &ch_), 0);
  }
  void TearDown() override { wd_chanlClose(&ch_); }
  wdChanl ch_;
};

TEST_F(ChannelTest, EventsArriveAsWholeRecordsWithTheirPayloadRules) {
  EXPECT_EQ(gSubMod[kMod].fd, ch_.fd) << "published once bound";
  std::vector<char> payload(8000, 'p');
  struct Case {
    const char* data;
    unsigned len;
    uint8_t datalen;  // 0: not carried
  } cases[] = {{nullptr, 0, 0},
               {payload.data(), 8, 8},
               {payload.data(), 255, 255},
               {payload.data(), 1999, 255},
               {payload.data(), 2000, 0},
               {nullptr, 10, 0}};
  for (const Case& c : cases) {
    ASSERT_EQ(wd_simpleSendMsg(RECEIVE_FROM, 0, kMod, c.data, c.len), WD_MSG_SIZE);
    wdMsg msg;
    ASSERT_EQ(recv(ch_.fd, &msg, sizeof msg + 1, MSG_DONTWAIT), WD_MSG_SIZE);
    EXPECT_EQ(std::vector<int>({msg.eventType, msg.srcMod, msg.destMod, msg.datalen}),
              std::vector<int>({RECEIVE_FROM, 0, kMod, c.datalen}))
        << c.len;
    size_t carried = c.datalen ? c.len : 0;
    EXPECT_EQ(std::string(msg.data, sizeof msg.data),
              std::string(carried, 'p') + std::string(sizeof msg.data - carried, '\0'));
  }
  EXPECT_EQ(wd_simpleSendMsg(CONFIG_CHANGE, 0, WD_MOD_NUM, nullptr, 0), -1);
  EXPECT_EQ(wd_simpleSendMsg(CONFIG_CHANGE, 0, MOD_ARP, nullptr, 0), -1) << "no channel";
}

// Receives the numbered events of `ch` until `count` have come (or none comes
// for 20 s) and returns their numbers.
std::vector<uint32_t> Numbers(const wdChanl* ch, size_t count) {
  std::vector<uint32_t> got;
  wdMsg msg;
  while (got.size() < count) {
    pollfd p = {ch->fd, POLLIN, 0};
    if (poll(&p, 1, 20000) != 1 || recv(ch->fd, &msg, sizeof msg, 0) != WD_MSG_SIZE) break;
    uint32_t n;
    memcpy(&n, msg.data, sizeof n);
    got.push_back(n);
  }
  return got;
}

TEST(EventQueues, ABurstArrivesWholeAndInOrderAndAStuckModuleLosesOnlyItsOwn) {
  const int busy[] = {MOD_VOIP_STATS, MOD_VOIP_REGISTER, MOD_MONITOR};
  const int stuck = MOD_TR069;
  wdChanl ch[WD_MOD_NUM];
  for (int id : {busy[0], busy[1], busy[2], stuck}) {
    snprintf(gSubMod[id].chanlPath, WD_CHANL_PATH_SIZE, "/var/q%d.chanl", id);
    ASSERT_EQ(wd_chanlOpen(id, &ch[id]), 0);
  }
  // The command loop's part: sends on what waits as the channels make room.
  int stop[2];
  ASSERT_EQ(pipe(stop), 0);
  auto serving = [&] {
    return std::thread([&] {
      while (wd_chanlServe(stop[0], nullptr) == 0) {
      }
      char c;
      EXPECT_EQ(read(stop[0], &c, 1), 1);
    });
  };
  std::thread serve = serving();
  constexpr uint32_t kBurst = 10000;
  constexpr uint32_t kStuckSent = WD_CHANL_PENDING_MAX + 1000;
  std::vector<uint32_t> got[3];
  std::vector<std::thread> readers;
  for (int i = 0; i < 3; ++i)
    readers.emplace_back([&, i] { got[i] = Numbers(&ch[busy[i]], kBurst); });
  std::string said = Said([&] {
    for (uint32_t n = 0; n < kBurst; ++n) {
      for (int id : busy) ASSERT_EQ(wd_simpleSendMsg(RECEIVE_FROM, 0, id, &n, sizeof n), WD_MSG_SIZE);
    }
    for (uint32_t n = 0; n < kStuckSent; ++n) wd_simpleSendMsg(RECEIVE_FROM, 0, stuck, &n, sizeof n);
    for (std::thread& t : readers) t.join();
  });
  std::vector<uint32_t> all(kBurst);
  for (uint32_t n = 0; n < kBurst; ++n) all[n] = n;
  for (int i = 0; i < 3; ++i) EXPECT_EQ(got[i], all) << "module " << busy[i];
  EXPECT_EQ(said, "") << "nothing dropped yet: the stuck module's drops are told once";
  EXPECT_EQ(wd_chanlPending(stuck), WD_CHANL_PENDING_MAX);
  // What went straight into the channel, counted while nothing moves on.
  ASSERT_EQ(write(stop[1], "x", 1), 1);
  serve.join();
  size_t inChannel = 0;
  wdMsg msg;
  while (recv(ch[stuck].fd, &msg, sizeof msg, MSG_DONTWAIT) == WD_MSG_SIZE) ++inChannel;
  serve = serving();
  // The stuck module takes its events again: what waited follows in order,
  // then the count of the dropped ones (the serve thread says it, so it is
  // joined before its words are read).
  std::vector<uint32_t> rest;
  said = Said([&] {
    rest = Numbers(&ch[stuck], WD_CHANL_PENDING_MAX);
    ASSERT_EQ(write(stop[1], "x", 1), 1);
    serve.join();
  });
  std::vector<uint32_t> waited(WD_CHANL_PENDING_MAX);
  for (size_t i = 0; i < waited.size(); ++i) waited[i] = static_cast<uint32_t>(inChannel + i);
  EXPECT_EQ(rest, waited);
  EXPECT_EQ(said, "wd_simpleSendMsg: " + std::to_string(kStuckSent - WD_CHANL_PENDING_MAX - inChannel) +
                      " events for module 2 dropped, its queue of 16384 was full\n");
  for (int id : {busy[0], busy[1], busy[2], stuck}) wd_chanlClose(&ch[id]);
}

TEST_F(ChannelTest, ALaterChannelOfTheModuleIsNeverUndoneByTheEarlierOne) {
  wdChanl later;
  ASSERT_EQ(wd_chanlOpen(kMod, &later), 0);
  wd_chanlClose(&ch_);  // the earlier thread ends
  EXPECT_EQ(gSubMod[kMod].fd, later.fd);
  ASSERT_EQ(wd_simpleSendMsg(NAME_CHANGE, 0, kMod, nullptr, 0), WD_MSG_SIZE);
  wdMsg msg;
  EXPECT_EQ(recv(later.fd, &msg, sizeof msg, MSG_DONTWAIT), WD_MSG_SIZE);
  wd_chanlClose(&later);
  EXPECT_EQ(gSubMod[kMod].fd, 0);
  EXPECT_NE(access("/var/wd_smple.chanl", F_OK), 0) << "the path goes with its channel";

  snprintf(gSubMod[kMod].chanlPath, WD_CHANL_PATH_SIZE, "/var/no/such/dir/x.chanl");
  testing::internal::CaptureStderr();
  ASSERT_EQ(wd_chanlOpen(kMod, &ch_), 0) << "a socket that cannot bind is kept";
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "gModule#11#, Port is currently being used by some other application \n");
}

// The wait-and-dispatch loop: datagrams in order, each cut at the size and
// ended by a 0 byte, an empty one as such, until the callback says stop.
TEST(WaitDispatch, HandsEachDatagramCutAndEndedOrTheEmptyOneUntilTold) {
  int fds[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, fds), 0);
  for (const char* d : {"abc", "", "0123456789", "stop", "never"})
    ASSERT_EQ(send(fds[1], d, strlen(d), 0), static_cast<ssize_t>(strlen(d)));
  std::vector<std::string> seen;
  wd_waitDispatch(
      fds[0], 6,
      [](const wdDispatch& d, void* ctx) {
        auto& out = *static_cast<std::vector<std::string>*>(ctx);
        if (d.what == WD_DISPATCH_EMPTY) out.push_back("(empty)");
        if (d.what != WD_DISPATCH_DATAGRAM) return true;
        out.emplace_back(static_cast<const char*>(d.data));
        EXPECT_EQ(out.back().size(), d.len);
        return out.back() != "stop";
      },
      &seen);
  EXPECT_EQ(seen, (std::vector<std::string>{"abc", "(empty)", "012345", "stop"}));
  char rest[8];
  EXPECT_EQ(recv(fds[0], rest, sizeof rest, MSG_DONTWAIT), 5) << "left queued";
  close(fds[0]);
  close(fds[1]);
}

TEST(Numbers, OutsideNumbersAreRangeChecked) {
  EXPECT_EQ(wd_parseUnsigned("99999999999999999999"), 4294967295u);
  EXPECT_EQ(wd_periodMs(4294967295u), 2147483000);
  long v = 0;
  const char* text = " 42#7";
  EXPECT_EQ(wd_parseLong(&text, 0, 100, &v), 1);
  EXPECT_EQ(v, 42);
  EXPECT_STREQ(text, "#7");
  for (const char* bad : {"", "x1", "101", "-1", "99999999999999999999999"}) {
    EXPECT_EQ(wd_parseLong(&(text = bad), 0, 100, &v), 0) << bad;
  }
}

}  // namespace
