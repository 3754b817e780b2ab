// The configuration tree file /etc/tcapi.conf as libtcapi reads it, and the
// daemon's readers of its settings (the feature switch, every module's
// period, the PPPoE settings). Then writes: one value set (with characters
// that need escaping) must read back as set, one taken and one
// removed must be gone, and every other value the daemon reads must read as
// before.
#include <fcntl.h>
#include <unistd.h>

#include "fuzz_util.h"
#include "libwdfunc.h"
#include "tcapi.h"
#include "wd_modtable.h"
#include "wd_modthread.h"
#include "wd_pppoe.h"

namespace {

const char* const kSettings[][2] = {
    {"Watchdog_Common", "Enable"},
    {"Watchdog_Common", "URLSYSLOGServer"},
    {"Watchdog_Common", "Protocol"},
    {"Watchdog_Common", "ShellCommand"},
    {"Watchdog_PPP", "Timer"},
    {"Watchdog_PPP", "AlertAfter"},
    {"Watchdog_PPP", "MaxReset"},
    {"Watchdog_PPP", "PingIP"},
    {"Watchdog_PPP", "LookupDomain"},
    {"Wan_PVC0", "ENCAP"},
    {"Watchdog_TR069", "RegisterTimer"},
    {"Watchdog_TR069", "PITimer"},
    {"Cwmp_Entry", "periodInterval"},
    {"Cwmp_Entry", "acsPassword"},
    {"Watchdog_ARP", "Timer"},
    {"Watchdog_ARP", "Query"},
    {"Watchdog_Route", "Mode"},
    {"Watchdog_WDInfo", "Verbosity"},
    {"DeviceInfo_PVC0", "WanIP"},
    {"Watchdog_VoIPStats", "Mode"},
    {"Watchdog_VoIPStatus", "RegisterTimer"},
    {"VoipCurSet_WDQuery", "Query"},
    {"VoipCurSet_WDQuery", "wordData"},
    {"Lan_Dhcp", "type"},
};
constexpr size_t kCount = sizeof kSettings / sizeof kSettings[0];

// The value as the daemon would get it, with the call's result in front.
std::string Get(size_t i) {
  static char buf[8192];
  int rc = tcapi_nget(kSettings[i][0], kSettings[i][1], buf, sizeof buf);
  return std::to_string(rc) + ":" + buf;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  int fd = open(TCAPI_TREE_PATH, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  FUZZ_CHECK(fd >= 0 && write(fd, data, size) == static_cast<ssize_t>(size));
  close(fd);

  wd_isWdEnable();
  wd_setModTable(kModTable, kModTableCount);  // the periods' settings
  for (uint8_t id = MOD_PPPOE; id <= MOD_VOIP_REGISTER; ++id) wd_updateModTimer(id);
  mod_pppoe_config_init();

  std::vector<std::string> before;
  for (size_t i = 0; i < kCount; ++i) before.push_back(Get(i));
  // The new LookupDomain: the ShellCommand read, with what must be escaped.
  std::string value = before[3].substr(before[3].find(':') + 1, 4000) + "\\n\\\n\r=[x]";
  FUZZ_CHECK(tcapi_set("Watchdog_PPP", "LookupDomain", value.c_str()) == 0);
  char taken[64];
  bool hadQuery = before[21][0] == '0';
  FUZZ_CHECK((tcapi_take("VoipCurSet_WDQuery", "Query", taken, sizeof taken) == 0) == hadQuery);
  // unset also clears copies in later nodes of the same name, which reads
  // never reach: it may succeed where the read found nothing.
  int unset = tcapi_unset("Watchdog_ARP", "Query");
  FUZZ_CHECK(before[15][0] != '0' || unset == 0);
  for (size_t i = 0; i < kCount; ++i) {
    if (i == 8) {
      FUZZ_CHECK(Get(i) == "0:" + value);
    } else if (i == 15 || i == 21) {
      FUZZ_CHECK(Get(i) == "-1:");
    } else {
      FUZZ_CHECK(Get(i) == before[i]);
    }
  }
  return 0;
}
