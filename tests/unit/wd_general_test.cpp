// The shell-command runner: how output lines become reports, and a command
// that does not end.
#include "wd_general.h"

#include "unit_util.h"

namespace {

// The report texts in the buffer, without their "my.app.wd.shell.ID: SECONDS|".
std::vector<std::string> Texts(ScopedBuffer& buffer) {
  std::vector<std::string> out;
  for (const std::string& line : buffer.Lines()) {
    EXPECT_EQ(line.rfind("my.app.wd.shell.", 0), 0u) << line;
    out.push_back(line.substr(line.find('|') + 1));
  }
  return out;
}

TEST(GeneralRunner, EachOutputLineIsAReportNumberedPerRun) {
  ScopedBuffer buffer;
  executeShellCommand("printf '  abc\\n\\n \\t\\r\\nx\\n'");
  executeShellCommand("printf 'one\\ntwo'");
  executeShellCommand("true");  // no output, no report
  executeShellCommand("exit 3");
  EXPECT_EQ(Texts(buffer),
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
  std::vector<std::string> texts = Texts(buffer);
  ASSERT_EQ(texts.size(), 2u);
  std::string first = texts[0].substr(texts[0].find("|1| "));
  EXPECT_EQ(first.substr(0, 8), "|1| aaaa");
  EXPECT_EQ(first.find('b'), std::string::npos) << "the 511th character is lost";
  EXPECT_EQ(texts[1].substr(texts[1].find("|2|")), "|2| ccccccccc");
}

TEST(GeneralRunner, ACommandThatDoesNotEndIsStoppedWithAllItStarted) {
  ScopedBuffer buffer;
  testing::internal::CaptureStderr();
  // The shell ends at once, but its child keeps the output open.
  mod_generalRun("echo started; sleep 1000 &", 1);
  std::string console = testing::internal::GetCapturedStderr();
  EXPECT_EQ(
      console,
      "executeShellCommand: \"echo started; sleep 1000 &\" still running after 1 s, stopped\n");
  EXPECT_EQ(Texts(buffer), (std::vector<std::string>{"echo started; sleep 1000 &|1| started"}));
  EXPECT_TRUE(WaitUntil([] { return system("grep -qs '(sleep) [^Z]' /proc/[0-9]*/stat") != 0; }))
      << "the background sleep was killed too";
}

}  // namespace
