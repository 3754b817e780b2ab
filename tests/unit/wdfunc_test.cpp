// The watchdog function library: the feature switch and a socket that cannot
// be made. Command datagrams across the socket are checked by the command fuzz
// target size by size and by the daemon tests; the process lookup by the
// process monitor's tests.
#include "libwdfunc.h"

#include "unit_util.h"

namespace {

TEST(Wdfunc, FeatureSwitchAndSocketFailure) {
  unlink(TCAPI_TREE_PATH);
  EXPECT_EQ(wd_isWdEnable(), 0);
  for (const char* v : {"0", "", "11", "1 "}) {
    tcapi_set("Watchdog_Common", "Enable", v);
    EXPECT_EQ(wd_isWdEnable(), 0) << v;
  }
  tcapi_set("Watchdog_Common", "Enable", "1");
  EXPECT_NE(wd_isWdEnable(), 0);
  sockaddr_un addr;
  EXPECT_EQ(WDSockInit("/no/such/dir/sock", &addr), -1);
}

}  // namespace
