// The report buffer, its flash copy and the loader, without the relay threads.
#include "wd_buffer.h"

#include <sys/eventfd.h>
#include <sys/timerfd.h>

#include "wd_base.h"
#include "wd_flash.h"
#include "wd_syslog.h"

#include <algorithm>
#include <map>
#include <memory>

#include "unit_util.h"

namespace {

// A file system in memory that keeps, across a power cut, only what was
// synced: a file's data up to its last fsync, names up to the last sync of
// the directory. Operations are counted from 1; operation `faultAt` fails
// with `faultErrno`, or, with `powerCut`, it and all that follow fail and
// change nothing, as when the power went at that point. Writes take at most
// `maxWrite` bytes, and fail with ENOSPC once `room` bytes have been written.
class FaultyFs : public wdFlashFs {
 public:
  struct File {
    std::string data, synced;
  };
  typedef std::map<std::string, std::shared_ptr<File>> Names;

  // A file that is already on flash, synced.
  void Put(const char* path, const std::string& text) {
    names[path] = std::make_shared<File>(File{text, text});
    durable = names;
  }
  // What is left after the power went: synced data under synced names.
  void CutPower() {
    names = durable;
    for (auto& n : names) n.second->data = n.second->synced;
    open_.clear();
    faultAt = 0;
  }
  std::string OnDisk(const char* path) {
    return names.count(path) != 0 ? names[path]->data : "(no file)";
  }

  int CreateFresh(const char* path) override {
    if (Fails()) return -1;
    names[path] = open_[++lastFd_] = std::make_shared<File>();
    return lastFd_;
  }
  ssize_t Write(int fd, const void* buf, size_t len) override {
    if (Fails()) return -1;
    len = std::min({len, maxWrite, room});
    if (len == 0) {
      errno = ENOSPC;
      return -1;
    }
    room -= len;
    open_.at(fd)->data.append(static_cast<const char*>(buf), len);
    return static_cast<ssize_t>(len);
  }
  int Sync(int fd) override {
    if (Fails()) return -1;
    open_.at(fd)->synced = open_.at(fd)->data;
    return 0;
  }
  int Close(int fd) override {
    open_.erase(fd);
    return Fails() ? -1 : 0;
  }
  int Rename(const char* from, const char* to) override {
    if (Fails()) return -1;
    names[to] = names.at(from);
    names.erase(from);
    return 0;
  }
  int Unlink(const char* path) override {
    if (Fails()) return -1;
    return names.erase(path) == 1 ? 0 : (errno = ENOENT, -1);
  }
  void SyncDir(const char*) override {
    if (!Fails()) durable = names;
  }
  FILE* OpenRead(const char* path) override {
    if (Fails()) return nullptr;
    if (names.count(path) == 0) return (errno = ENOENT, nullptr);
    reads_.push_back(names[path]->data);
    if (reads_.back().empty()) return fopen("/dev/null", "re");
    return fmemopen(&reads_.back()[0], reads_.back().size(), "r");
  }
  int RemoveRestored(const char* path) override { return Unlink(path) == 0 ? 0 : 1; }

  Names names, durable;
  int steps = 0, faultAt = 0, faultErrno = EIO;
  bool powerCut = false;
  size_t maxWrite = SIZE_MAX, room = SIZE_MAX;

 private:
  bool Fails() {
    ++steps;
    if (faultAt == 0 || steps < faultAt || (steps > faultAt && !powerCut)) return false;
    errno = faultErrno;
    return true;
  }
  std::map<int, std::shared_ptr<File>> open_;
  std::vector<std::string> reads_;
  int lastFd_ = 99;
};

class BufferTest : public ::testing::Test {
 protected:
  void SetUp() override { unlink(WD_FLASH_FILE); }
  void TearDown() override { wd_flashUseFs(nullptr); }

  // The lines as "seq:text:category" from head to tail.
  std::vector<std::string> Lines() {
    std::vector<std::string> out;
    wdLock lock(&bufMutex);
    for (wdBufNode* n = list_.head; n != nullptr; n = n->next) {
      out.push_back(std::to_string(n->obj->seqNum) + ":" + n->obj->msg + ":" +
                    std::to_string(n->obj->category));
    }
    return out;
  }
  static int Push(const std::string& text, uint32_t category) {
    return wd_syslogPushFormat(text.c_str(), category);
  }
  // Removes the line numbered `seq`, as its acknowledgement does.
  int Ack(int seq) {
    int remove = 0, rc;
    uint64_t changes;
    {
      wdLock lock(&bufMutex);
      rc = bufNodeDel(&list_, bufNodeSearch(&list_, seq), &remove);
      changes = bufChanges;
    }
    if (remove) wd_flashRemove(changes);
    return rc;
  }
  // Saves the buffer, as the save timer does; returns the console text.
  std::string Save(int* rc = nullptr) { return Save(Take(), rc); }
  std::string Save(const wdFlashCopy& copy, int* rc = nullptr) {
    int result;
    std::string said = Said([&] { result = saveMsgToFlash(&copy); });
    if (rc != nullptr) *rc = result;
    return said;
  }
  wdFlashCopy Take() {
    wdFlashCopy copy;
    wdLock lock(&bufMutex);
    wd_flashTake(&list_, &copy);
    return copy;
  }
  // Loads `file` as the flash copy and returns what the loader said.
  std::string Load(const std::string& file) {
    std::ofstream(WD_FLASH_FILE, std::ios::binary) << file;
    return Said([] { loadMsgToWDBuf(wd_syslogPush); });
  }

  static void SetSeq(int32_t seq) {
    wdLock lock(&bufMutex);
    maxSeqNum = seq;
  }

  ScopedBuffer buffer_;
  wdBufList& list_ = buffer_.list;
};

TEST_F(BufferTest, PppLinesGoFirstInTheirOwnOrderAndTheSecondWritesFlash) {
  ASSERT_EQ(Push("X", 16), 0);
  ASSERT_EQ(Push("Y", 3), 0);
  ASSERT_EQ(Push("A", 6), 0);
  EXPECT_FALSE(Exists(WD_FLASH_FILE)) << "one ppp line: no flash write";
  ASSERT_EQ(Push("B", 6), 0);
  ASSERT_EQ(Push("C", 6), 0);
  EXPECT_EQ(Lines(), (std::vector<std::string>{"3:A:6", "4:B:6", "5:C:6", "1:X:16", "2:Y:3"}));
  EXPECT_EQ(ReadFile(WD_FLASH_FILE), "5#2#3\nA#6\nB#6\nC#6\nX#16\nY#3\n");
}

TEST_F(BufferTest, LimitsNumbersAndSearches) {
  SetSeq(29999);
  for (int i = 0; i < 500; ++i) ASSERT_EQ(Push("line " + std::to_string(i), 3), 0);
  EXPECT_EQ(Push("one too many", 3), -1);
  EXPECT_EQ(ReadFile(WD_FLASH_FILE).substr(0, 9), "500#499#0") << "a refusal writes the copy";
  for (int i = 0; i < 16; ++i) ASSERT_EQ(Push("ppp " + std::to_string(i), 6), 0);
  EXPECT_EQ(Push("17th ppp", 6), -1);
  EXPECT_EQ(wd_syslogPush("restored ppp", 6), 0) << "restored lines are never refused";
  wdLock lock(&bufMutex);
  EXPECT_EQ(pppMsgNum, 17);
  EXPECT_EQ(list_.objNum, 517);
  EXPECT_EQ(list_.tail->obj->category, 6u) << "and stay at the tail";
  EXPECT_EQ(list_.tail->obj->seqNum, 518) << "30000, 1, ...: refused numbers are not reused";
  wdBufNode* first = bufNodeSearch(&list_, 30000);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first->prev->obj->msg, std::string("ppp 15")) << "ppp lines stand first";
  first->next->obj->seqNum = 30000;  // two lines with one number, after a wrap
  EXPECT_EQ(bufNodeSearch(&list_, 30000), first) << "the one nearer the head";
  wdBufNode foreign = *first;
  foreign.bufNum = list_.bufNum + 1;
  EXPECT_EQ(bufNodeDel(&list_, &foreign, nullptr), -1) << "a node of another list";
}

TEST_F(BufferTest, CopyIsWrittenForEveryChangeAndGoneWithTheLastLine) {
  Push("X", 3);
  Push("A", 6);
  Push("B", 6);  // written: 3#1#2 A B X
  EXPECT_NE(Save().find("not need to update flash\n"), std::string::npos);
  // A acknowledged and C added at the front: count and tail line are as on
  // flash, and yet the copy must now hold C.
  Ack(2);
  Push("C", 6);
  EXPECT_EQ(ReadFile(WD_FLASH_FILE), "3#1#2\nB#6\nC#6\nX#3\n");
  Ack(3);
  Ack(4);
  EXPECT_TRUE(Exists(WD_FLASH_FILE));
  Ack(1);
  EXPECT_FALSE(Exists(WD_FLASH_FILE)) << "every line acknowledged";
  {
    wdLock lock(&bufMutex);
    EXPECT_EQ(buffSaved, 0);
  }

  std::ofstream(WD_FLASH_FILE) << "not ours\n";
  Push("d", 3);
  Ack(5);
  EXPECT_TRUE(Exists(WD_FLASH_FILE)) << "not saved by this buffer: left alone";
}

TEST_F(BufferTest, FailedWritesKeepTheOldCopyAndNeverFollowALink) {
  int rc = 0;
  EXPECT_EQ(Save(&rc), "In saveMsgToFlash() func\n");
  EXPECT_EQ(rc, -1) << "empty list";
  Push("a", 3);
  ASSERT_EQ(symlink("/data/elsewhere", WD_FLASH_FILE ".tmp"), 0);
  Save(&rc);
  EXPECT_EQ(rc, 0);
  EXPECT_FALSE(Exists("/data/elsewhere")) << "the planted link was not written through";
  EXPECT_EQ(ReadFile(WD_FLASH_FILE), "1#1#0\na#3\n");
  Push("evil\r\nmy.app.wd.ppp.x: 1|forged#6", 3);  // no record of its own on flash
  Save();
  EXPECT_EQ(ReadFile(WD_FLASH_FILE), "2#2#0\na#3\nevil  my.app.wd.ppp.x: 1|forged#6#3\n");
}

// Every step of a save (open, write, sync, close, rename, directory sync, the
// reads of the old header) failing once, or the power going there: the flash
// holds the old copy or the new one, whole, and a save that said it wrote
// left the new one.
TEST_F(BufferTest, AFaultOrPowerCutAtAnyStepLeavesTheOldCopyOrTheNewWhole) {
  Push("a", 3);
  Push("b", 6);
  FaultyFs fs;
  wd_flashUseFs(&fs);
  Save();
  const std::string old = fs.OnDisk(WD_FLASH_FILE);
  ASSERT_EQ(old, "2#1#1\nb#6\na#3\n");
  Push("c", 3);
  Push("d", 7);
  const wdFlashCopy copy = Take();
  const std::string now = "4#4#1\nb#6\na#3\nc#3\nd#7\n";
  FaultyFs clean;
  clean.Put(WD_FLASH_FILE, old);
  wd_flashUseFs(&clean);
  Save(copy);
  ASSERT_EQ(clean.OnDisk(WD_FLASH_FILE), now);
  const int steps = clean.steps;
  ASSERT_GE(steps, 8);
  for (bool cut : {false, true}) {
    for (int at = 1; at <= steps; ++at) {
      SCOPED_TRACE((cut ? "power cut at step " : "failure at step ") + std::to_string(at));
      FaultyFs faulty;
      faulty.Put(WD_FLASH_FILE, old);
      faulty.faultAt = at;
      faulty.powerCut = cut;
      wd_flashUseFs(&faulty);
      int rc;
      Save(copy, &rc);
      if (cut) faulty.CutPower();
      std::string disk = faulty.OnDisk(WD_FLASH_FILE);
      EXPECT_TRUE(disk == old || disk == now) << disk;
      if (!cut) {
        EXPECT_EQ(disk, rc == 0 ? now : old);
      }
    }
  }
}

// The flash fills up in the middle of the new copy; room is made and the
// next save writes it; writes that take a few bytes at a time still give the
// whole copy. What the loader then restores is every line.
TEST_F(BufferTest, AFullFlashKeepsTheOldCopyAndShortWritesLoseNoLine) {
  FaultyFs fs;
  wd_flashUseFs(&fs);
  Push("a", 3);
  Save();
  const std::string old = fs.OnDisk(WD_FLASH_FILE);
  Push("b", 6);
  Push("c", 3);
  fs.room = 10;
  int rc;
  std::string said = Save(&rc);
  EXPECT_EQ(rc, -1);
  EXPECT_NE(said.find("could not write /data/syslogmsg, the flash copy is unchanged\n"),
            std::string::npos)
      << said;
  EXPECT_EQ(fs.OnDisk(WD_FLASH_FILE), old);
  EXPECT_EQ(fs.names.count(WD_FLASH_FILE ".tmp"), 0u) << "no temporary file is left behind";
  fs.room = SIZE_MAX;
  fs.maxWrite = 3;
  Save(&rc);
  EXPECT_EQ(rc, 0);
  fs.CutPower();
  EXPECT_EQ(fs.OnDisk(WD_FLASH_FILE), "3#3#1\nb#6\na#3\nc#3\n");
  buffer_.Clear();
  SetSeq(0);
  Said([] { loadMsgToWDBuf(wd_syslogPush); });
  EXPECT_EQ(Lines(), (std::vector<std::string>{"1:b:6", "2:a:3", "3:c:3"}));
  EXPECT_EQ(fs.names.count(WD_FLASH_FILE), 0u) << "restored, then removed";
}

TEST_F(BufferTest, LoaderRestoresLinesRenumberedAndRemovesTheFile) {
  EXPECT_EQ(Load("3#12#1\nmy.app.wd.ppp.x: 1|PPP_DOWN_RESET#6\nmy.app.wd.route.x: 2|table#16\n"),
            "In loadMsgToWDBuf() func\nbuf=3#12#1\nobjNum=3, seqNum=12 pppMsgNum=1\n"
            "buf=my.app.wd.ppp.x: 1|PPP_DOWN_RESET#6\nbuf=my.app.wd.route.x: 2|table#16\n");
  EXPECT_EQ(Lines(), (std::vector<std::string>{"1:my.app.wd.ppp.x: 1|PPP_DOWN_RESET:6",
                                               "2:my.app.wd.route.x: 2|table:16"}));
  {
    wdLock lock(&bufMutex);
    EXPECT_EQ(pppMsgNum, 1);
  }
  EXPECT_FALSE(Exists(WD_FLASH_FILE));
  buffer_.Clear();
  int rc = 0;
  EXPECT_NE(Said([&] {
              rc = loadMsgToWDBuf(wd_syslogPush);
            }).find("could not open /data/syslogmsg, file does not exist\n"),
            std::string::npos);
  EXPECT_NE(rc, 0) << "rm of a missing file fails";
}

TEST_F(BufferTest, LoaderSurvivesDamagedCopies) {
  std::string many = "5000#5000#0\n";
  for (int i = 0; i < 5000; ++i) many += "line#3\n";
  struct Case {
    std::string file;
    std::vector<std::string> lines;
  } cases[] = {
      {"1#1#0\nno category here\n", {"1:no category here:17"}},
      {"1#1#0\nfirst#6\nnone#\nthird#abc\n", {"1:first:6", "2:none:6", "3:third:6"}},
      {"1#1#0\n#6\n\n###\nok#3\n", {"1:ok:3"}},
      {"1#1#0\n" + std::string(100000, 'y') + "#3\n", {"1:" + std::string(511, 'y') + ":3"}},
      {"1#1#0\nbin\x01\xff#3\n" + std::string("with\0nul#7\n", 11),
       {"1:bin\x01\xff:3", "2:with:3"}},
      {"2#2#0\ntext with # inside#5\n", {"1:text with :17"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file.substr(0, 60));
    buffer_.Clear();
    SetSeq(0);
    Load(c.file);
    EXPECT_EQ(Lines(), c.lines);
    EXPECT_FALSE(Exists(WD_FLASH_FILE));
  }
  buffer_.Clear();
  EXPECT_NE(Load(many).find("loadMsgToWDBuf: more than 1000 lines, the rest is not restored\n"),
            std::string::npos);
  wdLock lock(&bufMutex);
  EXPECT_EQ(list_.objNum, 1000);
}

// The check that debug and sanitizer builds run after every change of the
// list finds each kind of broken link or counter; a node without an object
// aborts those builds where it is met, and release builds say so and go on.
TEST_F(BufferTest, BrokenLinksAndCountersAreFoundAndANullObjectIsLoudWhereChecked) {
  Push("a", 6);
  Push("b", 3);
  Push("c", 3);
  wdBufNode* mid = nullptr;
  wdBufMsgObj* obj = nullptr;
  {
    wdLock lock(&bufMutex);
    EXPECT_EQ(bufListBroken(&list_), nullptr);
    mid = list_.head->next;
    wdBufNode* last = list_.tail;
    mid->prev = nullptr;
    EXPECT_STREQ(bufListBroken(&list_), "a node's previous link does not lead back");
    mid->prev = list_.head;
    list_.tail = mid;
    EXPECT_STREQ(bufListBroken(&list_), "the tail is not the last node");
    list_.tail = last;
    list_.objNum = 4;
    EXPECT_STREQ(bufListBroken(&list_), "fewer nodes than objNum");
    list_.objNum = 2;
    EXPECT_STREQ(bufListBroken(&list_), "more nodes than objNum");
    list_.objNum = 3;
    pppMsgNum = 2;
    EXPECT_STREQ(bufListBroken(&list_), "pppMsgNum differs from the ppp lines");
    pppMsgNum = 1;
    obj = mid->obj;
    mid->obj = nullptr;
    EXPECT_STREQ(bufListBroken(&list_), "a node without an object");
  }
  // Unset outside the lock above: the death test's child and the release
  // path each take it as the daemon's callers do.
  auto unsetAll = [this] {
    wdLock lock(&bufMutex);
    return setBufAllUnsent(&list_);
  };
#if WD_CHECKED
  EXPECT_DEATH(unsetAll(), "invariant broken at .*wd_buffer.cpp:[0-9]+: n->obj != nullptr");
#else
  EXPECT_EQ(Said([&] { EXPECT_EQ(unsetAll(), -1); }), "No object or no message content!\n");
#endif
  wdLock lock(&bufMutex);
  mid->obj = obj;
}

int64_t MonotonicNs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// The first boundary of the schedule from `baseMs` at or after millisecond `ms`.
int64_t Boundary(int64_t baseMs, int64_t ms) {
  int64_t ticks = (ms - baseMs + WD_TX_TICK_MS - 1) / WD_TX_TICK_MS;
  return baseMs + std::max<int64_t>(ticks, 1) * WD_TX_TICK_MS;
}

// When the timerfd, armed after monotonic ns `armedAfter`, fires: within
// [first, second]; {0, 0} when it is disarmed.
std::pair<int64_t, int64_t> FiresAt(int fd, int64_t armedAfter) {
  itimerspec left;
  int64_t before = MonotonicNs();
  EXPECT_EQ(timerfd_gettime(fd, &left), 0);
  int64_t after = MonotonicNs();
  int64_t ns = static_cast<int64_t>(left.it_value.tv_sec) * 1000000000 + left.it_value.tv_nsec;
  if (ns != 0) return {before + ns, after + ns};
  uint64_t expired;
  if (read(fd, &expired, sizeof expired) > 0) return {armedAfter, after};
  return {0, 0};
}

// A push arms the sleeping transmit thread's timer for the next boundary of
// its schedule: never before it (a line sent early breaks the one line per
// tick), never a tick later, once for all pushes until the thread takes it. A
// boundary already reached wakes the thread at once.
TEST(TxWake, APushArmsTheSleepingThreadForTheNextBoundaryAndNeverBefore) {
  int fd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
  bufTxWakeFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  ASSERT_GE(fd, 0);
  ASSERT_GE(bufTxWakeFd, 0);
  uint64_t wakes;
  for (int64_t sinceBase : {0, 1, 100, 299, 300, 450}) {
    SCOPED_TRACE(sinceBase);
    int64_t start = MonotonicNs();
    int64_t base = start / 1000000 - sinceBase;
    wd_bufTxSleeps(fd, base);
    wd_bufWakeTxForLine();
    int64_t end = MonotonicNs();
    std::pair<int64_t, int64_t> fires = FiresAt(fd, start);
    wd_bufWakeTxForLine();
    std::pair<int64_t, int64_t> again = FiresAt(fd, start);
    bool woken = read(bufTxWakeFd, &wakes, sizeof wakes) > 0;
    int64_t tick = wd_bufTxTakeTick();
    EXPECT_EQ((tick - base) % WD_TX_TICK_MS, 0) << tick - base;
    EXPECT_GT(tick, base) << "never the tick that has just ended";
    EXPECT_GE(tick, Boundary(base, start / 1000000)) << "not before the boundary";
    EXPECT_LE(tick, Boundary(base, end / 1000000)) << "not a tick later";
    if (fires.first == 0) {
      EXPECT_TRUE(woken) << "not armed: woken at once";
      EXPECT_LE(tick, end / 1000000) << "only for a boundary reached";
    } else {
      EXPECT_FALSE(woken);
      EXPECT_GE(fires.second, tick * 1000000) << "the timer never fires before the boundary";
      EXPECT_LE(fires.first, tick * 1000000 + (end - start) + 1000);
      EXPECT_LE(again.first, fires.second) << "a second push leaves the timer as it is";
    }
    EXPECT_EQ(FiresAt(fd, start).first, 0) << "taken: disarmed";
    EXPECT_EQ(wd_bufTxTakeTick(), -1);
    wd_bufTxWakesUp();
    wd_bufWakeTxForLine();
    EXPECT_EQ(FiresAt(fd, start).first, 0) << "an awake thread ticks anyway";
    EXPECT_LT(read(bufTxWakeFd, &wakes, sizeof wakes), 0);
  }
  close(bufTxWakeFd);
  bufTxWakeFd = -1;
  close(fd);
}

}  // namespace
