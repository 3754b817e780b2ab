// The general command module: when a configured command runs, how its output
// lines become reports, and a command stopped at its limit. The module's event
// function is reached through its descriptor.
#include "wd_general.h"

#include "wd_base.h"

#include "unit_util.h"

namespace {

TEST(GeneralRunner, EachOutputLineIsAReportNumberedPerRun) {
  ScopedBuffer buffer;
  executeShellCommand("printf '  abc\\n\\n \\t\\r\\nx\\n'");
  executeShellCommand("printf 'one\\ntwo'");
  executeShellCommand("true");  // no output, no report
  executeShellCommand("exit 3");
  EXPECT_EQ(buffer.Texts("shell"),
            (std::vector<std::string>{
                "printf '  abc\\n\\n \\t\\r\\nx\\n'|1| abc",
                "printf '  abc\\n\\n \\t\\r\\nx\\n'|2| ", "printf '  abc\\n\\n \\t\\r\\nx\\n'|3| ",
                "printf '  abc\\n\\n \\t\\r\\nx\\n'|4| x", "printf 'one\\ntwo'|1| one",
                "printf 'one\\ntwo'|2| tw",  // the last line had no line end
            }));
}

TEST(GeneralRunner, LongLinesComeInPiecesOf511Characters) {
  ScopedBuffer buffer;
  // 510 a, b as the 511th character, 9 c and a line end.
  executeShellCommand("printf '%0510d' 0 | tr 0 a; printf 'bccccccccc\\n'");
  std::vector<std::string> texts = buffer.Texts("shell");
  ASSERT_EQ(texts.size(), 2u);
  std::string first = texts[0].substr(texts[0].find("|1| "));
  EXPECT_EQ(first.substr(0, 8), "|1| aaaa");
  EXPECT_EQ(first.find('b'), std::string::npos) << "the 511th character is lost";
  EXPECT_EQ(texts[1].substr(texts[1].find("|2|")), "|2| ccccccccc");
}

TEST(GeneralRunner, ACommandStoppedAtItsLimitReportsWhatItPrinted) {
  ScopedBuffer buffer;
  EXPECT_EQ(Said([] { mod_generalRun("echo started; sleep 1000", 1); }),
            "wd_run: \"echo started; sleep 1000\" still running after 1 s, stopped\n");
  EXPECT_EQ(buffer.Texts("shell"),
            (std::vector<std::string>{"echo started; sleep 1000|1| started"}));
}

TEST(GeneralModule, AConfiguredCommandRunsWhenItIsNewAndNotCut) {
  ScopedBuffer buffer;
  debuglevel = 1;
  truncate("/dev/console", 0);
  wdModRun run = {};  // the module's state as its thread starts: nothing has run
  auto change = [&](const std::string& command) {  // the reports made so far
    tcapi_set("Watchdog_Common", "ShellCommand", command.c_str());
    wdMsg msg = {};
    msg.eventType = CONFIG_CHANGE;
    kGeneralModule.thread.event(&msg, &run);
    return buffer.Texts("shell").size();
  };
  EXPECT_EQ(change("echo one"), 1u);
  EXPECT_EQ(change("echo one"), 1u) << "unchanged: not run again";
  EXPECT_EQ(change("echo two"), 2u);
  EXPECT_EQ(change(""), 2u);
  EXPECT_EQ(change("echo two"), 3u) << "cleared in between: runs again";
  std::string said = Said([&] { EXPECT_EQ(change("echo " + std::string(538, 'x')), 3u); });
  EXPECT_EQ(said, "ShellCommand of 543 characters or more may be cut, not run\n");
  std::string console = ReadFile("/dev/console");
  EXPECT_EQ(Count(console, "ShellCommand \"echo one\" has run already"), 1u);
  EXPECT_EQ(Count(console, "ShellCommand is empty"), 1u);
  debuglevel = 0;
}

}  // namespace
