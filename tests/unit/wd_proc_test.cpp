// The programs the daemon starts: their clean slate, their deadline and what
// is kept of their output.

#include <dirent.h>

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
// its output kept in `path` (in memory without one), through a pipe when
// `throughPipe`.
Ran Shell(const char* command, int seconds = 1, size_t max = 4096, const char* path = nullptr,
          bool throughPipe = false) {
  Ran r = {};
  wdOutput out = {path, max, false, nullptr, throughPipe};
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

// The descriptors this process has open.
size_t OpenDescriptors() {
  DIR* dir = opendir("/proc/self/fd");
  size_t n = 0;
  while (dir != nullptr && readdir(dir) != nullptr) ++n;
  if (dir != nullptr) closedir(dir);
  return n;
}

int NoMemfd(const char*, unsigned) {
  errno = ENOSYS;
  return -1;
}

std::string Repeat(const std::string& text, int times) {
  std::string all;
  for (int i = 0; i < times; ++i) all += text;
  return all;
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
       {"echo $$; sleep 1000 & sleep 1000",      // never ends
        "trap '' TERM; echo $$; sleep 1000"}) {  // ignores SIGTERM, and so does its sleep
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
  auto pidfdOpen = wd_pidfdOpenHook;
  wd_pidfdOpenHook = NoPidfd;
  Ran ended = Shell("sleep 0.3; echo done; exit 3");
  Ran hung = Shell("echo $$; exec sleep 1000");
  EXPECT_EQ(gPidfdOpens, 2);
  EXPECT_EQ(ended.rc, 3 << 8);
  EXPECT_EQ(ended.out, "done\n");
  EXPECT_EQ(hung.rc, WD_RUN_STOPPED);
  EXPECT_TRUE(GroupGone(atoi(hung.out.c_str())));
  wd_pidfdOpenHook = pidfdOpen;
}

TEST(Output, KeptUpToItsCapAndTheProgramNeverHeldNorKilled) {
  Ran big = Shell("head -c 200000 /dev/zero | tr '\\0' x", 10, 300000);
  EXPECT_EQ(big.rc, 0);
  EXPECT_EQ(big.out, std::string(200000, 'x')) << "more than a pipe holds";
  // Cut at a cap that is no whole number of pages, every byte up to it kept;
  // the writer's write fails, it gets no signal.
  Ran cut = Shell("head -c 200000 /dev/zero | tr '\\0' x", 10, 70001);
  EXPECT_TRUE(WIFEXITED(cut.rc) && WEXITSTATUS(cut.rc) != 0) << cut.rc;
  EXPECT_EQ(cut.out, std::string(70001, 'x'));
  // A program that never stops writing ends once its writes fail; its file is
  // made anew, never written through a link.
  ASSERT_EQ(symlink("/tmp/target", "/tmp/out"), 0);
  Ran yes = Shell("exec yes", 10, 1000, "/tmp/out");
  EXPECT_TRUE(WIFEXITED(yes.rc) && WEXITSTATUS(yes.rc) != 0) << yes.rc;
  EXPECT_EQ(yes.out, Repeat("y\n", 500));
  EXPECT_EQ(ReadFile("/tmp/out"), Repeat("y\n", 500));
  EXPECT_FALSE(Exists("/tmp/target"));
}

TEST(Output, WholeAtTheProgramsEndThoughWhatItLeftRunningHoldsIt) {
  // The background sleep holds the output far past the deadline; waiting for
  // it would end in a stop.
  Ran r = Shell("echo $$; sleep 60 & echo started", 30);
  pid_t group = atoi(r.out.c_str());
  EXPECT_EQ(r.rc, 0);
  EXPECT_EQ(r.said, "");
  EXPECT_EQ(r.out, std::to_string(group) + "\nstarted\n");
  EXPECT_EQ(kill(-group, 0), 0) << "the group is left alone after a normal end";
  kill(-group, SIGKILL);
  EXPECT_TRUE(GroupGone(group));
}

TEST(Output, WithoutMemfdItComesThroughAPipe) {
  auto memfdCreate = wd_memfdCreateHook;
  wd_memfdCreateHook = NoMemfd;
  Ran big = Shell("head -c 200000 /dev/zero | tr '\\0' x", 10, 300000);
  // Cut at the cap by closing the pipe: the writer gets SIGPIPE.
  Ran yes = Shell("exec yes", 10, 1000);
  // The pipe is read to its end, which a background process holds.
  Ran held = Shell("echo $$; sleep 1000 &");
  wd_memfdCreateHook = memfdCreate;
  EXPECT_EQ(big.rc, 0);
  EXPECT_EQ(big.out, std::string(200000, 'x'));
  EXPECT_TRUE(WIFSIGNALED(yes.rc) && WTERMSIG(yes.rc) == SIGPIPE) << yes.rc;
  EXPECT_EQ(yes.out, Repeat("y\n", 500));
  EXPECT_EQ(held.rc, WD_RUN_STOPPED);
  EXPECT_EQ(held.said, "wd_run: \"echo $$; sleep 1000 &\" still running after 1 s, stopped\n");
  EXPECT_TRUE(GroupGone(atoi(held.out.c_str())));
}

// The configured command's way: its output may be reopened by name.
TEST(Output, ThroughAPipeACommandMayReopenItsOutput) {
  Ran r = Shell("echo a; echo b > /dev/stdout; echo c >> /dev/stdout", 10, 4096, nullptr, true);
  EXPECT_EQ(r.rc, 0);
  EXPECT_EQ(r.out, "a\nb\nc\n");
}

TEST(Output, NoDescriptorLeftOpen) {
  size_t before = OpenDescriptors();
  Shell("echo kept");
  Shell("echo kept", 1, 10, "/tmp/leak");
  Shell("exec sleep 1000");  // stopped
  wdOutput out = {nullptr, 10, false, nullptr, false};
  const char* missing[] = {"/no/such/program", nullptr};
  wd_run(missing, 1, &out);
  if (out.file != nullptr) fclose(out.file);
  auto memfdCreate = wd_memfdCreateHook;
  wd_memfdCreateHook = NoMemfd;
  Shell("echo kept");
  wd_memfdCreateHook = memfdCreate;
  EXPECT_EQ(OpenDescriptors(), before);
}

}  // namespace
