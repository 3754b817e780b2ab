// The VoIP modules' pieces: the statistics record as the device sends it and
// its report text, the call id file, and the registration alarm prefixes.
// The modules' loops run against the voice application in the integration
// tests.
#include "wd_voipregister.h"
#include "wd_voipstats.h"

#include "unit_util.h"

namespace {

// 92 bytes as the voice application of this device writes them: word i holds
// `words[i]` in the device's own byte order.
std::vector<unsigned char> DeviceBytes(const std::vector<int32_t>& words) {
  std::vector<unsigned char> bytes;
  for (int32_t w : words) {
    uint32_t u = static_cast<uint32_t>(w);
    unsigned char be[4] = {static_cast<unsigned char>(u >> 24), static_cast<unsigned char>(u >> 16),
                           static_cast<unsigned char>(u >> 8), static_cast<unsigned char>(u)};
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    bytes.insert(bytes.end(), be, be + 4);
#else
    bytes.insert(bytes.end(), {be[3], be[2], be[1], be[0]});
#endif
  }
  return bytes;
}

TEST(VoipStats, RecordIsReadInDeviceOrderAndUnusedFieldsReportZero) {
  std::vector<int32_t> words(23);
  for (int i = 0; i < 23; ++i) words[i] = 1000 * i + 0x10000 * (i % 3);
  words[6] = -7;  // a counter that went wrong still prints with its sign
  std::vector<unsigned char> bytes = DeviceBytes(words);
  ASSERT_EQ(bytes.size(), sizeof(VoipStatsReply));
  VoipStatsReply r;
  memcpy(&r, bytes.data(), sizeof r);
  EXPECT_EQ(r.CallEndTime, 1000 + 0x10000);
  EXPECT_EQ(r.ServerDownTime, 19000 + 0x10000);
  char line[1024];
  mod_voipStatsLine(line, sizeof line, 4000000000u, 1700000000u, 2, 60, "Periodic", &r);
  EXPECT_STREQ(line,
               "-294967296|1700000000|2|60|Periodic|133072|3000|69536|136072|-7|0|0|9000|75536|"
               "142072|12000|78536|145072|15000|81536|148072|18000|84536|0|0|0");
}

TEST(VoipStats, CallIdIsTheFileFirstLineWithoutItsLastCharacter) {
  mkdir("/var/tmp", 0755);
  auto callId = [](const char* content) {  // null: no file
    unlink("/var/tmp/iptk_callid");
    if (content != nullptr) std::ofstream("/var/tmp/iptk_callid") << content;
    char id[128] = {0};
    mod_voipStatsCallId(id);
    return std::string(id);
  };
  EXPECT_EQ(callId(nullptr), "empty");
  EXPECT_EQ(callId(""), "empty");
  EXPECT_EQ(callId("\n"), "");
  EXPECT_EQ(callId("call-7@gateway\nsecond line\n"), "call-7@gateway");
  std::string longId(127, 'c');
  EXPECT_EQ(callId(longId.c_str()), longId.substr(0, 126)) << "no line end: a character is lost";
  EXPECT_EQ(callId("a\x1b[2J|b\tc\n"), "a?[2J?b?c") << "nothing that breaks a line";
  unlink("/var/tmp/iptk_callid");
}

TEST(VoipRegister, PrefixDependsOnStatusAndTheImproperConfigurationSwitch) {
  const char* failure = "ALARM_SIP_REGISTER_FAILURE|";
  const char* improper = "ALARM_SIP_CLIENT_IMPROPER_CONFIGURATION|";
  EXPECT_EQ(mod_voipRegisterPrefix(0, 0), nullptr);
  EXPECT_EQ(mod_voipRegisterPrefix(1, 0), nullptr);
  EXPECT_STREQ(mod_voipRegisterPrefix(0, 2), failure) << "switch off: every failure alike";
  EXPECT_STREQ(mod_voipRegisterPrefix(0, -1), failure);
  EXPECT_STREQ(mod_voipRegisterPrefix(1, 2), improper);
  EXPECT_STREQ(mod_voipRegisterPrefix(7, 1), failure);
  EXPECT_STREQ(mod_voipRegisterPrefix(1, 3), failure) << "an unknown status is still a failure";
}

}  // namespace
