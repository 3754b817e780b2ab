// The report buffer, its flash copy and the loader, without the relay threads.
#include "wd_buffer.h"

#include "wd_flash.h"
#include "wd_syslog.h"

#include "unit_util.h"

namespace {

class BufferTest : public ::testing::Test {
 protected:
  void SetUp() override { unlink(WD_FLASH_FILE); }

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
  std::string Save(int* rc = nullptr) {
    wdFlashCopy copy;
    {
      wdLock lock(&bufMutex);
      wd_flashTake(&list_, &copy);
    }
    int result;
    std::string said = Said([&] { result = saveMsgToFlash(&copy); });
    if (rc != nullptr) *rc = result;
    return said;
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
  EXPECT_EQ(Slurp(WD_FLASH_FILE), "5#2#3\nA#6\nB#6\nC#6\nX#16\nY#3\n");
}

TEST_F(BufferTest, LimitsNumbersAndSearches) {
  SetSeq(29999);
  for (int i = 0; i < 500; ++i) ASSERT_EQ(Push("line " + std::to_string(i), 3), 0);
  EXPECT_EQ(Push("one too many", 3), -1);
  EXPECT_EQ(Slurp(WD_FLASH_FILE).substr(0, 9), "500#499#0") << "a refusal writes the copy";
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
  EXPECT_EQ(Slurp(WD_FLASH_FILE), "3#1#2\nB#6\nC#6\nX#3\n");
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
  EXPECT_EQ(Slurp(WD_FLASH_FILE), "1#1#0\na#3\n");
  Push("evil\r\nmy.app.wd.ppp.x: 1|forged#6", 3);  // no record of its own on flash
  Save();
  EXPECT_EQ(Slurp(WD_FLASH_FILE), "2#2#0\na#3\nevil  my.app.wd.ppp.x: 1|forged#6#3\n");
  unlink(WD_FLASH_FILE);
  ASSERT_EQ(mkdir(WD_FLASH_FILE, 0755), 0);  // cannot be replaced by a file
  std::string err = Save(&rc);
  EXPECT_EQ(rc, -1);
  EXPECT_NE(err.find("read fail\n"), std::string::npos) << err;
  EXPECT_NE(err.find("could not write /data/syslogmsg, the flash copy is unchanged\n"),
            std::string::npos)
      << err;
  EXPECT_FALSE(Exists(WD_FLASH_FILE ".tmp")) << "no temporary file is left behind";
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

}  // namespace
