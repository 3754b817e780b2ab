// A registration record from the voice application as the VoIP registration
// module takes it (RECEIVE_FROM, 8 bytes). Input: the improper-configuration
// switch (first byte), then the record. Status 0 is not reported; any other
// is, once.
#include "wd_voipregister.h"

#include "fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FreshBuffer();
  wdModRun run = {};
  wd_modState<VoipRegister>(&run)->improperConf = size > 0 ? data[0] : 0;
  wdMsg msg = {};
  msg.eventType = RECEIVE_FROM;
  msg.datalen = sizeof(VoipRegisterReply);
  if (size > 1) memcpy(msg.data, data + 1, size - 1 < 8 ? size - 1 : 8);
  FUZZ_CHECK(kVoipRegisterModule.thread.event(&msg, &run) == WD_LOOP_CONTINUE);
  VoipRegisterReply reply;
  memcpy(&reply, msg.data, sizeof reply);
  FUZZ_CHECK(BufferLines().size() == (reply.RegisterSIPStatus != 0 ? 1u : 0u));
  return 0;
}
