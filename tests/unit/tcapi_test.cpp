// The configuration tree stand-in: reads, writes, hooks and concurrent writers.
#include "tcapi.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

class TcapiTest : public ::testing::Test {
 protected:
  void SetUp() override {
    unlink(TCAPI_TREE_PATH);
    mkdir(TCAPI_HOOK_DIR, 0755);
  }
};

std::string Slurp(const char* path) {
  std::ifstream in(path);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

void WriteHook(const std::string& node, const std::string& body) {
  std::string path = std::string(TCAPI_HOOK_DIR) + "/" + node;
  std::ofstream(path) << "#!/bin/sh\n" << body << "\n";
  chmod(path.c_str(), 0755);
}

TEST_F(TcapiTest, MissingTreeReadsAsEmpty) {
  char buf[16] = "garbage";
  EXPECT_NE(tcapi_get("Watchdog_PPP", "Timer", buf), 0);
  EXPECT_STREQ(buf, "");
}

TEST_F(TcapiTest, SetThenGetAndMissingAttributes) {
  ASSERT_EQ(tcapi_set("Watchdog_PPP", "Timer", "30"), 0);
  ASSERT_EQ(tcapi_set("Watchdog_PPP", "PingIP", "192.0.2.1"), 0);
  ASSERT_EQ(tcapi_set("Watchdog_ARP", "Timer", ""), 0);
  char buf[16];
  EXPECT_EQ(tcapi_get("Watchdog_PPP", "Timer", buf), 0);
  EXPECT_STREQ(buf, "30");
  EXPECT_EQ(tcapi_get("Watchdog_PPP", "PingIP", buf), 0);
  EXPECT_STREQ(buf, "192.0.2.1");
  EXPECT_EQ(tcapi_get("Watchdog_ARP", "Timer", buf), 0) << "an empty value exists";
  EXPECT_STREQ(buf, "");
  EXPECT_NE(tcapi_get("Watchdog_ARP", "Query", buf), 0);
  EXPECT_NE(tcapi_get("Watchdog_TR069", "Timer", buf), 0);

  ASSERT_EQ(tcapi_set("Watchdog_PPP", "Timer", "60"), 0);
  EXPECT_EQ(tcapi_get("Watchdog_PPP", "Timer", buf), 0);
  EXPECT_STREQ(buf, "60");
  EXPECT_NE(Slurp(TCAPI_TREE_PATH).find("[Watchdog_PPP]\nTimer=60\nPingIP=192.0.2.1\n"),
            std::string::npos)
      << "the tree is a readable text file, attributes in their order";
}

TEST_F(TcapiTest, LongValuesAreCutToTheBuffer) {
  std::string longValue(100, 'x');
  ASSERT_EQ(tcapi_set("N", "A", longValue.c_str()), 0);
  char small[16];
  memset(small, 'Z', sizeof small);
  EXPECT_EQ(tcapi_get("N", "A", small), 0);
  EXPECT_EQ(std::string(small), std::string(15, 'x'));
  char one[1];
  EXPECT_EQ(tcapi_get("N", "A", one), 0);
  EXPECT_EQ(one[0], '\0');
}

TEST_F(TcapiTest, ValuesWithLineBreaksAndSpecialCharactersRoundTrip) {
  const char* value = "a=b\\c\nline two\r[x] #y";
  ASSERT_EQ(tcapi_set("Watchdog_Common", "ShellCommand", value), 0);
  ASSERT_EQ(tcapi_set("Watchdog_Common", "Enable", "1"), 0);
  char buf[64];
  EXPECT_EQ(tcapi_get("Watchdog_Common", "ShellCommand", buf), 0);
  EXPECT_STREQ(buf, value);
  EXPECT_EQ(tcapi_get("Watchdog_Common", "Enable", buf), 0);
  EXPECT_STREQ(buf, "1");
}

TEST_F(TcapiTest, InvalidNamesAreRefused) {
  for (const char* name : {"", "a b", "a]b", "[a", "a=b", "a/b", "a\nb"}) {
    SCOPED_TRACE(name);
    EXPECT_NE(tcapi_set(name, "A", "1"), 0);
    EXPECT_NE(tcapi_set("N", name, "1"), 0);
  }
  EXPECT_NE(tcapi_set(nullptr, "A", "1"), 0);
  EXPECT_NE(tcapi_set("N", "A", nullptr), 0);
  char buf[8];
  EXPECT_NE(tcapi_get(nullptr, "A", buf), 0);
}

TEST_F(TcapiTest, DamagedTreeStillReadsWhatMakesSense) {
  std::ofstream(TCAPI_TREE_PATH) << "garbage line\nA=orphan\n[]\n[Node]\nnoequals\nB=2\n=3\n";
  char buf[8];
  EXPECT_NE(tcapi_get("Node", "noequals", buf), 0);
  EXPECT_EQ(tcapi_get("Node", "B", buf), 0);
  EXPECT_STREQ(buf, "2");
  EXPECT_EQ(tcapi_set("Node", "C", "3"), 0);
  EXPECT_EQ(tcapi_get("Node", "C", buf), 0);
}

TEST_F(TcapiTest, Unset) {
  ASSERT_EQ(tcapi_set("N", "A", "1"), 0);
  ASSERT_EQ(tcapi_set("N", "B", "2"), 0);
  EXPECT_EQ(tcapi_unset("N", "A"), 0);
  EXPECT_NE(tcapi_unset("N", "A"), 0);
  char buf[8];
  EXPECT_NE(tcapi_get("N", "A", buf), 0);
  EXPECT_EQ(tcapi_get("N", "B", buf), 0);
  EXPECT_EQ(tcapi_unset("N", nullptr), 0);
  EXPECT_NE(tcapi_get("N", "B", buf), 0);
}

TEST_F(TcapiTest, ConcurrentWritersFromThreadsAndProcessesLoseNothing) {
  constexpr int kThreads = 4, kProcs = 3, kEach = 25;
  std::vector<pid_t> children;
  for (int p = 0; p < kProcs; ++p) {
    pid_t pid = fork();
    if (pid == 0) {
      for (int i = 0; i < kEach; ++i) {
        std::string attr = "p" + std::to_string(p) + "_" + std::to_string(i);
        if (tcapi_set("Shared", attr.c_str(), "v") != 0) _exit(1);
      }
      _exit(0);
    }
    children.push_back(pid);
  }
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < kEach; ++i) {
        std::string attr = "t" + std::to_string(t) + "_" + std::to_string(i);
        EXPECT_EQ(tcapi_set("Shared", attr.c_str(), attr.c_str()), 0);
      }
    });
  }
  for (auto& t : threads) t.join();
  for (pid_t pid : children) {
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  char buf[16];
  int found = 0;
  for (int t = 0; t < kThreads; ++t) {
    for (int i = 0; i < kEach; ++i) {
      std::string attr = "t" + std::to_string(t) + "_" + std::to_string(i);
      found += tcapi_get("Shared", attr.c_str(), buf) == 0 && attr == buf;
    }
  }
  for (int p = 0; p < kProcs; ++p) {
    for (int i = 0; i < kEach; ++i) {
      std::string attr = "p" + std::to_string(p) + "_" + std::to_string(i);
      found += tcapi_get("Shared", attr.c_str(), buf) == 0;
    }
  }
  EXPECT_EQ(found, (kThreads + kProcs) * kEach);
}

TEST_F(TcapiTest, CommitRunsTheNodeHook) {
  EXPECT_EQ(tcapi_commit("NoHookHere"), 0);
  WriteHook("Wan_PVC0", "echo \"$1\" >> /tmp/commit.log");
  unlink("/tmp/commit.log");
  EXPECT_EQ(tcapi_commit("Wan_PVC0"), 0);
  EXPECT_EQ(tcapi_commit("Wan_PVC0"), 0);
  EXPECT_EQ(Slurp("/tmp/commit.log"), "Wan_PVC0\nWan_PVC0\n");

  WriteHook("Failing", "exit 3");
  EXPECT_NE(tcapi_commit("Failing"), 0);
  EXPECT_NE(tcapi_commit("../tcapi.d/Wan_PVC0"), 0) << "node names never leave the hook dir";
}

TEST(TcdbgPrintf, WritesExactlyTheFormattedTextToStandardError) {
  testing::internal::CaptureStderr();
  tcdbg_printf("\r\n WDSockInit failed\r\n");
  tcdbg_printf("Invalid message type: 0x%08X\r\n", 13u);
  std::string big(3000, 'q');
  tcdbg_printf("%s|", big.c_str());
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "\r\n WDSockInit failed\r\nInvalid message type: 0x0000000D\r\n" + big + "|");
}

}  // namespace
