// The programs the daemon starts: their clean slate, their deadline and what
// is kept of their output.

#include "wd_base.h"
#include "wd_proc.h"

#include "unit_util.h"

namespace {

struct Ran {
  int rc;
  std::string out;   // what it printed
  std::string said;  // on the debug console
};

// `command` run with the shell for at most `seconds`, at most `max` bytes of
// its output kept in `path` (in memory without one).
Ran Shell(const char* command, int seconds = 1, size_t max = 4096, const char* path = nullptr) {
  Ran r = {};
  wdOutput out = {path, max, false, nullptr};
  r.said = Said([&] { r.rc = wd_runShell(command, seconds, &out); });
  char buf[4096];
  for (size_t n; out.file && (n = fread(buf, 1, sizeof buf, out.file)) > 0;) r.out.append(buf, n);
  if (out.file != nullptr) fclose(out.file);
  return r;
}

// Waits until no process of `group` is left.
bool GroupGone(pid_t group) {
  return WaitUntil([group] { return kill(-group, 0) != 0 && errno == ESRCH; });
}

// Programs started from a real-time thread that blocks SIGUSR1 and SIGUSR2, as
// the relay's threads do, with a descriptor open without close-on-exec. Each
// (the shell's exec) reads its own state: mask, scheduling policy,
// descriptors, standard input.
void* RunProbe(void* out) {
  sigset_t usr;
  sigemptyset(&usr);
  sigaddset(&usr, SIGUSR1);
  sigaddset(&usr, SIGUSR2);
  pthread_sigmask(SIG_BLOCK, &usr, nullptr);
  int leaked = open("/dev/null", O_RDONLY);
  std::string& text = *static_cast<std::string*>(out);
  for (const char* probe : {"grep SigBlk /proc/self/status", "cut -d' ' -f41 /proc/self/stat",
                            "ls /proc/self/fd", "readlink /proc/self/fd/0"})
    text += Shell(("exec " + std::string(probe)).c_str(), 10).out;
  close(leaked);
  return nullptr;
}

TEST(Programs, StartWithDefaultSignalsSchedulingAndNoDaemonDescriptors) {
  std::string out;
  pthread_t t;
  ASSERT_EQ(wd_createRtThread(&t, RunProbe, &out, "probe"), 0);
  pthread_join(t, nullptr);
  // 3 is ls's own descriptor of the directory it lists.
  EXPECT_EQ(out, "SigBlk:\t0000000000000000\n0\n0\n1\n2\n3\n/dev/null\n");
  const char* missing[] = {"/no/such/program", nullptr};
  int rc = wd_run(missing, 1);  // -1, or exit 127 where spawning cannot tell (qemu)
  EXPECT_TRUE(rc == -1 || (WIFEXITED(rc) && WEXITSTATUS(rc) == 127)) << rc;
  const char* none[] = {nullptr};
  EXPECT_EQ(wd_run(none, 1), -1);
  EXPECT_EQ(wd_runShell(nullptr, 1), -1);
}

TEST(Deadline, StopsTheProgramsWholeGroupOnlyWhenItPasses) {
  // The shell's pid is its group's id.
  Ran started = Shell("echo $$; sleep 1000 > /dev/null &");
  EXPECT_EQ(started.rc, 0);
  EXPECT_EQ(started.said, "");
  pid_t group = atoi(started.out.c_str());
  EXPECT_EQ(kill(-group, 0), 0) << "what a start script leaves running stays";
  kill(-group, SIGKILL);

  for (const char* command :
       {"echo $$; sleep 1000 & sleep 1000",   // never ends
        "trap '' TERM; echo $$; sleep 1000",  // ignores SIGTERM, and so does its sleep
        "echo $$; sleep 1000 &"}) {           // has ended; its child holds the output
    Ran r = Shell(command);
    EXPECT_EQ(r.rc, WD_RUN_STOPPED) << command;
    EXPECT_EQ(r.said,
              "wd_run: \"" + std::string(command) + "\" still running after 1 s, stopped\n");
    EXPECT_TRUE(GroupGone(atoi(r.out.c_str()))) << command;
  }
}

int gPidfdOpens = 0;
int NoPidfd(pid_t) {
  ++gPidfdOpens;
  errno = ENOSYS;
  return -1;
}

TEST(Deadline, WithoutPidfdTheProgramIsCheckedOnItsOwn) {
  wd_pidfdOpenHook = NoPidfd;
  Ran ended = Shell("sleep 0.3; echo done; exit 3");
  Ran hung = Shell("echo $$; exec sleep 1000");
  EXPECT_EQ(gPidfdOpens, 2);
  EXPECT_EQ(ended.rc, 3 << 8);
  EXPECT_EQ(ended.out, "done\n");
  EXPECT_EQ(hung.rc, WD_RUN_STOPPED);
  EXPECT_TRUE(GroupGone(atoi(hung.out.c_str())));
}

TEST(Output, KeptUpToItsCapAndAFullPipeNeverHoldsTheProgram) {
  Ran big = Shell("head -c 200000 /dev/zero | tr '\\0' x", 10, 300000);
  EXPECT_EQ(big.rc, 0);
  EXPECT_EQ(big.out, std::string(200000, 'x')) << "more than a pipe holds";
  // A program that never stops writing is cut at the cap and ends on SIGPIPE;
  // its file is made anew, never written through a link.
  ASSERT_EQ(symlink("/tmp/target", "/tmp/out"), 0);
  Ran yes = Shell("exec yes", 10, 1000, "/tmp/out");
  EXPECT_TRUE(WIFSIGNALED(yes.rc) && WTERMSIG(yes.rc) == SIGPIPE) << yes.rc;
  std::string expected;
  for (int i = 0; i < 500; ++i) expected += "y\n";
  EXPECT_EQ(yes.out, expected);
  EXPECT_EQ(ReadFile("/tmp/out"), expected);
  EXPECT_FALSE(Exists("/tmp/target"));
}

}  // namespace
