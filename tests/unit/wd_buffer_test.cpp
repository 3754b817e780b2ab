// The report buffer, its flash copy and the loader, without the relay threads.
#include "wd_buffer.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "wd_common.h"

#include "unit_util.h"

namespace {

bool Exists(const char* path) {
  struct stat st;
  return stat(path, &st) == 0;
}

class BufferTest : public ::testing::Test {
 protected:
  void SetUp() override { unlink(WD_FLASH_FILE); }

  // The lines as "seq:text:category" from head to tail.
  std::vector<std::string> Lines() {
    std::vector<std::string> out;
    pthread_mutex_lock(&bufMutex);
    for (wdBufNode* n = list_.head; n != nullptr; n = n->next) {
      out.push_back(std::to_string(n->obj->seqNum) + ":" + n->obj->msg + ":" +
                    std::to_string(n->obj->category));
    }
    pthread_mutex_unlock(&bufMutex);
    return out;
  }

  static int Push(const std::string& text, uint32_t category) {
    return wd_syslogPushFormat(text.c_str(), category);
  }

  // Deletes the node holding `seq`, as an acknowledgement does.
  int Ack(int seq) {
    pthread_mutex_lock(&bufMutex);
    int rc = bufNodeDel(&list_, bufNodeSearch(&list_, seq));
    pthread_mutex_unlock(&bufMutex);
    return rc;
  }

  ScopedBuffer buffer_;
  wdBufList& list_ = buffer_.list;
};

TEST_F(BufferTest, PppLinesGoFirstInTheirOwnOrderAndTheSecondWritesFlash) {
  ASSERT_EQ(Push("X", 16), 0);
  ASSERT_EQ(Push("Y", 3), 0);
  testing::internal::CaptureStderr();
  ASSERT_EQ(Push("A", 6), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << "one ppp line: no flash write";
  EXPECT_FALSE(Exists(WD_FLASH_FILE));
  testing::internal::CaptureStderr();
  ASSERT_EQ(Push("B", 6), 0);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("Save buffer content to flash success\n"), std::string::npos) << err;
  EXPECT_EQ(Lines(), (std::vector<std::string>{"3:A:6", "4:B:6", "1:X:16", "2:Y:3"}));
  EXPECT_EQ(Slurp(WD_FLASH_FILE), "4#2#2\nA#6\nB#6\nX#16\nY#3\n");
  EXPECT_EQ(pppMsgNum, 2);
  EXPECT_EQ(list_.objNum, 4);
}

TEST_F(BufferTest, PppLineInAListOfPppLinesGoesToTheTail) {
  Push("A", 6);
  Push("B", 6);
  Push("C", 6);
  EXPECT_EQ(Lines(), (std::vector<std::string>{"1:A:6", "2:B:6", "3:C:6"}));
  EXPECT_EQ(list_.tail->obj->seqNum, 3);
}

TEST_F(BufferTest, LimitsOf500OtherAnd16PppLines) {
  for (int i = 0; i < 500; ++i) ASSERT_EQ(Push("line " + std::to_string(i), 3), 0);
  testing::internal::CaptureStderr();
  EXPECT_EQ(Push("one too many", 3), -1);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("Start to save buffer content to Flash\n"), std::string::npos);
  std::string flash = Slurp(WD_FLASH_FILE);
  EXPECT_EQ(flash.substr(0, flash.find('\n')), "500#500#0");
  EXPECT_EQ(Push("ppp still taken", 6), 0);
  for (int i = 1; i < 16; ++i) ASSERT_EQ(Push("ppp " + std::to_string(i), 6), 0);
  testing::internal::CaptureStderr();
  EXPECT_EQ(Push("17th ppp", 6), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << "refused silently, nothing written";
  EXPECT_EQ(pppMsgNum, 16);
  EXPECT_EQ(list_.objNum, 516);
  // Restored lines are never refused.
  EXPECT_EQ(wd_syslogPush("restored", 3), 0);
  EXPECT_EQ(wd_syslogPush("restored ppp", 6), 0);
  EXPECT_EQ(pppMsgNum, 17);
  EXPECT_EQ(list_.tail->obj->category, 6u) << "a restored ppp line stays at the tail";
}

TEST_F(BufferTest, SequenceNumbersWrapAfter30000AndRefusalsUseTheirNumber) {
  maxSeqNum = 29999;
  Push("a", 3);
  Push("b", 3);
  EXPECT_EQ(Lines(), (std::vector<std::string>{"30000:a:3", "1:b:3"}));
  pppMsgNum = 16;
  EXPECT_EQ(Push("refused", 6), -1);
  pppMsgNum = 0;
  Push("c", 3);
  EXPECT_EQ(list_.tail->obj->seqNum, 3) << "the refused line's number is not reused";
}

TEST_F(BufferTest, LinesAreCutAt511Characters) {
  std::string longLine(600, 'x');
  Push(longLine, 3);
  EXPECT_EQ(std::string(list_.head->obj->msg), std::string(511, 'x'));
}

TEST_F(BufferTest, SearchesAndDeletion) {
  Push("a", 3);
  Push("b", 3);
  Push("c", 3);
  pthread_mutex_lock(&bufMutex);
  EXPECT_EQ(bufNodeSearch(&list_, 2)->obj->msg[0], 'b');
  EXPECT_EQ(bufNodeSearch(&list_, 9), nullptr);
  list_.head->obj->state = WD_LINE_SENT;
  EXPECT_EQ(bufNodeSearchUnsent1st(&list_)->obj->msg[0], 'b');
  // Two lines with one number (after a wrap): the one nearer the head.
  list_.tail->obj->seqNum = 2;
  EXPECT_EQ(bufNodeSearch(&list_, 2), list_.head->next);

  wdBufNode foreign = *list_.head;
  foreign.bufNum = list_.bufNum + 1;
  EXPECT_EQ(bufNodeDel(&list_, &foreign), -1);
  EXPECT_EQ(list_.objNum, 3);
  EXPECT_EQ(bufNodeDel(&list_, nullptr), -1);
  EXPECT_EQ(bufNodeDel(nullptr, list_.head), -1);

  EXPECT_EQ(bufNodeDel(&list_, list_.head->next), 0);  // middle
  EXPECT_EQ(list_.head->next, list_.tail);
  EXPECT_EQ(list_.tail->prev, list_.head);
  EXPECT_EQ(bufNodeDel(&list_, list_.tail), 0);  // tail
  EXPECT_EQ(list_.head, list_.tail);
  EXPECT_EQ(bufNodeDel(&list_, list_.head), 0);  // the only one
  EXPECT_EQ(list_.head, nullptr);
  EXPECT_EQ(list_.tail, nullptr);
  EXPECT_EQ(bufNodeSearch(&list_, 1), nullptr);
  EXPECT_EQ(bufNodeSearchUnsent1st(&list_), nullptr);
  EXPECT_EQ(bufNodeDel(&list_, &foreign), -1) << "empty list";
  pthread_mutex_unlock(&bufMutex);
}

TEST_F(BufferTest, LastAcknowledgementRemovesTheFlashCopyOnlyWhenSaved) {
  Push("a", 6);
  Push("b", 6);  // written to flash
  ASSERT_TRUE(Exists(WD_FLASH_FILE));
  EXPECT_EQ(Ack(1), 0);
  EXPECT_TRUE(Exists(WD_FLASH_FILE));
  EXPECT_EQ(pppMsgNum, 1);
  EXPECT_EQ(Ack(2), 0);
  EXPECT_FALSE(Exists(WD_FLASH_FILE));
  EXPECT_EQ(buffSaved, 0);

  std::ofstream(WD_FLASH_FILE) << "not ours\n";
  Push("c", 3);
  EXPECT_EQ(Ack(3), 0);
  EXPECT_TRUE(Exists(WD_FLASH_FILE)) << "not saved by this buffer: left alone";
}

TEST_F(BufferTest, SetAllUnsentAndDump) {
  pthread_mutex_lock(&bufMutex);
  EXPECT_EQ(setBufAllUnsent(&list_), -1);
  EXPECT_EQ(printBufAll(&list_), -1);
  pthread_mutex_unlock(&bufMutex);
  Push("alpha", 3);
  Push("beta", 6);
  pthread_mutex_lock(&bufMutex);
  list_.head->obj->state = WD_LINE_SENT;
  testing::internal::CaptureStderr();
  EXPECT_EQ(setBufAllUnsent(&list_), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "\nSet buffer all Unsent END\n");
  EXPECT_EQ(list_.head->obj->state, WD_LINE_UNSENT);

  truncate("/dev/console", 0);
  EXPECT_EQ(printBufAll(&list_), 0);
  std::string console = Slurp("/dev/console");
  for (const char* line :
       {"\n dontSend:0 msgResend:0 chkSeqNum:-1 msgFailNum:0 pppMsgNum:1 sngReload:0\n",
        "\nStart to print buffer content(2:1,1)HEAD->\n", "(2#beta#1#6)->\n", "(1#alpha#1#3)->\n",
        "Print buffer content END\n\n"}) {
    EXPECT_NE(console.find(line), std::string::npos) << line << console;
  }
  EXPECT_LT(console.find("(2#beta"), console.find("(1#alpha"));
  EXPECT_NE(console.find("Function:printBufAll Line="), std::string::npos);
  pthread_mutex_unlock(&bufMutex);
}

TEST_F(BufferTest, FlashWriteIsSkippedWhileTheHeaderMatches) {
  Push("a", 6);
  pthread_mutex_lock(&bufMutex);
  ASSERT_EQ(saveMsgToFlash(&list_), 0);
  testing::internal::CaptureStderr();
  EXPECT_EQ(saveMsgToFlash(&list_), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "In saveMsgToFlash() func\nread log msg file\nbuf=1#1#1\n"
            "objNum=1, seqNum=1, pppMsgNum=1\nlist->objNum=1,list->tail->obj->seqNum=1\n"
            "not need to update flash\n");
  pthread_mutex_unlock(&bufMutex);

  // Same count, other last line: written again.
  Push("b", 3);
  Ack(1);
  pthread_mutex_lock(&bufMutex);
  testing::internal::CaptureStderr();
  EXPECT_EQ(saveMsgToFlash(&list_), 0);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("Save buffer content to flash success\n"),
            std::string::npos);
  pthread_mutex_unlock(&bufMutex);
  EXPECT_EQ(Slurp(WD_FLASH_FILE), "1#2#0\nb#3\n");
}

TEST_F(BufferTest, FlashWriteFailures) {
  pthread_mutex_lock(&bufMutex);
  testing::internal::CaptureStderr();
  EXPECT_EQ(saveMsgToFlash(&list_), -1) << "empty list";
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "In saveMsgToFlash() func\n");
  pthread_mutex_unlock(&bufMutex);

  Push("a", 3);
  ASSERT_EQ(mkdir(WD_FLASH_FILE, 0755), 0);  // something that cannot be replaced by a file
  pthread_mutex_lock(&bufMutex);
  testing::internal::CaptureStderr();
  EXPECT_EQ(saveMsgToFlash(&list_), -1);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("read fail\n"), std::string::npos) << err;
  EXPECT_NE(err.find("could not write /data/syslogmsg, the flash copy is unchanged\n"),
            std::string::npos)
      << err;
  EXPECT_EQ(buffSaved, 0);
  pthread_mutex_unlock(&bufMutex);
  rmdir(WD_FLASH_FILE);
  EXPECT_FALSE(Exists(WD_FLASH_FILE ".tmp")) << "no temporary file is left behind";
}

TEST_F(BufferTest, LoaderRestoresLinesRenumberedAndRemovesTheFile) {
  std::ofstream(WD_FLASH_FILE) << "3#12#1\nmy.app.wd.ppp.x: 1|PPP_DOWN_RESET#6\n"
                                  "my.app.wd.route.x: 2|table#16\n";
  testing::internal::CaptureStderr();
  EXPECT_EQ(loadMsgToWDBuf(), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "In loadMsgToWDBuf() func\nbuf=3#12#1\nobjNum=3, seqNum=12 pppMsgNum=1\n"
            "buf=my.app.wd.ppp.x: 1|PPP_DOWN_RESET#6\nbuf=my.app.wd.route.x: 2|table#16\n");
  EXPECT_EQ(Lines(), (std::vector<std::string>{"1:my.app.wd.ppp.x: 1|PPP_DOWN_RESET:6",
                                               "2:my.app.wd.route.x: 2|table:16"}));
  EXPECT_EQ(pppMsgNum, 1);
  EXPECT_FALSE(Exists(WD_FLASH_FILE));
  EXPECT_EQ(list_.head->obj->state, WD_LINE_UNSENT);
}

TEST_F(BufferTest, LoaderWithoutFileStillRunsTheRemoval) {
  testing::internal::CaptureStderr();
  EXPECT_NE(loadMsgToWDBuf(), 0) << "rm of a missing file fails";
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(
      err.rfind("In loadMsgToWDBuf() func\ncould not open /data/syslogmsg, file does not exist\n",
                0),
      0u)
      << err;
  EXPECT_TRUE(Lines().empty());
}

TEST_F(BufferTest, LoaderSurvivesDamagedCopies) {
  struct Case {
    std::string file;
    std::vector<std::string> lines;
  } cases[] = {
      {"", {}},
      {"garbage without any structure", {}},  // taken as the header
      {"1#1#0\nno category here\nstill none\n", {"1:no category here:17", "2:still none:17"}},
      {"1#1#0\nfirst#6\nno category#\nthird#abc\n", {"1:first:6", "2:no category:6", "3:third:6"}},
      {"1#1#0\n#6\n\n\n###\nok#3\n", {"1:ok:3"}},
      {"1#1#0\n" + std::string(100000, 'y') + "#3\n", {"1:" + std::string(511, 'y') + ":3"}},
      {"1#1#0\nbin\x01\x02\xff\xfe#3\n" + std::string("with\0nul#7\n", 11),
       {"1:bin\x01\x02\xff\xfe:3", "2:with:3"}},
      {"2#2#0\ntext with # inside#5\n", {"1:text with :17"}},
      {"1#1#0\nno newline at end#9", {"1:no newline at end:9"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file.substr(0, 60));
    buffer_.Clear();
    maxSeqNum = 0;
    std::ofstream(WD_FLASH_FILE, std::ios::binary) << c.file;
    testing::internal::CaptureStderr();
    loadMsgToWDBuf();
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(Lines(), c.lines);
    EXPECT_FALSE(Exists(WD_FLASH_FILE));
  }
}

TEST_F(BufferTest, LoaderStopsAtAThousandLines) {
  {
    std::ofstream out(WD_FLASH_FILE);
    out << "5000#5000#0\n";
    for (int i = 0; i < 5000; ++i) out << "line " << i << "#3\n";
  }
  testing::internal::CaptureStderr();
  loadMsgToWDBuf();
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(list_.objNum, 1000);
  EXPECT_NE(err.find("loadMsgToWDBuf: more than 1000 lines, the rest is not restored\n"),
            std::string::npos);
}

}  // namespace
