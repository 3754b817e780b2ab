// The configuration tree stand-in: reads, writes, hooks and concurrent writers.

#include "unit_util.h"

namespace {

TEST(Tcapi, ReadsWritesCutsAndRefusesBadNames) {
  unlink(TCAPI_TREE_PATH);
  char buf[16] = "garbage";
  EXPECT_NE(tcapi_get("Watchdog_PPP", "Timer", buf), 0) << "no tree yet";
  EXPECT_STREQ(buf, "");
  ASSERT_EQ(tcapi_set("Watchdog_PPP", "Timer", "30"), 0);
  ASSERT_EQ(tcapi_set("Watchdog_ARP", "Timer", ""), 0);
  ASSERT_EQ(tcapi_set("Watchdog_PPP", "Timer", "60"), 0);
  EXPECT_EQ(tcapi_get("Watchdog_PPP", "Timer", buf), 0);
  EXPECT_STREQ(buf, "60");
  EXPECT_EQ(tcapi_get("Watchdog_ARP", "Timer", buf), 0) << "an empty value exists";
  EXPECT_NE(tcapi_get("Watchdog_ARP", "Query", buf), 0);
  const char* special = "a=[x] #y\\c\n\rz, the rest cut";  // read back as far as it fits
  ASSERT_EQ(tcapi_set("N", "A", special), 0);
  EXPECT_EQ(tcapi_get("N", "A", buf), 0);
  EXPECT_EQ(std::string(buf), std::string(special, 15)) << "cut to the buffer";
  for (const char* name : {"", "a b", "a]b", "[a", "a=b", "a/b", "a\nb"}) {
    EXPECT_NE(tcapi_set(name, "A", "1"), 0) << name;
    EXPECT_NE(tcapi_set("N", name, "1"), 0) << name;
  }
  EXPECT_EQ(tcapi_take("Watchdog_PPP", "Timer", buf, sizeof buf), 0);
  EXPECT_STREQ(buf, "60");
  EXPECT_NE(tcapi_take("Watchdog_PPP", "Timer", buf, sizeof buf), 0) << "taken once";
  EXPECT_STREQ(buf, "");
  std::ofstream(TCAPI_TREE_PATH) << "garbage line\nA=orphan\n[]\n[Node]\nnoequals\nB=2\n=3\n";
  EXPECT_EQ(tcapi_get("Node", "B", buf), 0) << "a damaged tree still reads what makes sense";
  EXPECT_STREQ(buf, "2");
}

TEST(Tcapi, ConcurrentWritersFromThreadsAndProcessesLoseNothing) {
  unlink(TCAPI_TREE_PATH);
  auto writeSome = [](const std::string& who) {
    bool ok = true;
    for (int i = 0; i < 25; ++i)
      ok = tcapi_set("Shared", (who + std::to_string(i)).c_str(), "v") == 0 && ok;
    return ok;
  };
  std::vector<pid_t> children;
  for (int p = 0; p < 3; ++p) {
    pid_t pid = fork();
    if (pid == 0) _exit(writeSome("p" + std::to_string(p) + "_") ? 0 : 1);
    children.push_back(pid);
  }
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] { EXPECT_TRUE(writeSome("t" + std::to_string(t) + "_")); });
  for (auto& t : threads) t.join();
  for (pid_t pid : children) {
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  EXPECT_EQ(Count(ReadFile(TCAPI_TREE_PATH), "=v\n"), 7u * 25u);
}

// A hook run with the node's name is seen by the module tests that commit
// (process monitor, PPPoE reset).
TEST(Tcapi, CommitWithoutHookFailingHookAndNamesOutsideTheHookDir) {
  mkdir(TCAPI_HOOK_DIR, 0755);
  EXPECT_EQ(tcapi_commit("NoHookHere"), 0);
  for (const char* hook : {"Wan_PVC0:exit 0", "Failing:exit 3"}) {
    std::string h(hook), path = std::string(TCAPI_HOOK_DIR) + "/" + h.substr(0, h.find(':'));
    std::ofstream(path) << "#!/bin/sh\n" << h.substr(h.find(':') + 1) << "\n";
    chmod(path.c_str(), 0755);
  }
  EXPECT_NE(tcapi_commit("Failing"), 0);
  EXPECT_NE(tcapi_commit("../tcapi.d/Wan_PVC0"), 0) << "node names never leave the hook dir";
}

}  // namespace
