// The flash copy of the buffer, the relay's start-up and the resend thread.
//
// /data/syslogmsg holds a header "objNum#tailSeqNum#pppMsgNum" and one line
// "text#category" per buffered report. It is written whole, through a
// temporary file renamed into place, so a power cut never leaves half a copy;
// it is skipped when the header on flash already matches the list.
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "tcapi.h"
#include "wd_buffer.h"
#include "wd_common.h"
#include "wd_lock.h"

pthread_t bufThreadRX, bufThreadTX, bufThreadResend;

namespace {

constexpr const char* kFlashTmp = WD_FLASH_FILE ".tmp";
// A copy written by the daemon holds at most the buffer's limits (and lines
// restored earlier); a file far beyond that is damaged, and the rest of it is
// not restored.
constexpr int kMaxRestoredLines = 1000;

// Whether the copy on flash already shows the list's count and last line.
bool FlashIsCurrent(wdBufList* list, int tailSeq) {
  FILE* f = fopen(WD_FLASH_FILE, "re");
  if (f == nullptr) {
    tcdbg_printf("could not open %s, file does not exist\n", WD_FLASH_FILE);
    return false;
  }
  char buf[128];
  bool current = false;
  if (fgets(buf, sizeof buf, f) == nullptr) {
    tcdbg_printf("read fail\n");
  } else {
    buf[strcspn(buf, "\r\n")] = '\0';
    tcdbg_printf("read log msg file\n");
    tcdbg_printf("buf=%s\n", buf);
    int objNum = 0, seqNum = 0, ppp = 0;
    sscanf(buf, "%d#%d#%d", &objNum, &seqNum, &ppp);
    tcdbg_printf("objNum=%d, seqNum=%d, pppMsgNum=%d\n", objNum, seqNum, ppp);
    tcdbg_printf("list->objNum=%d,list->tail->obj->seqNum=%d\n", list->objNum, tailSeq);
    if (objNum == list->objNum && seqNum == tailSeq) {
      tcdbg_printf("not need to update flash\n");
      current = true;
    }
  }
  fclose(f);
  return current;
}

}  // namespace

int saveMsgToFlash(wdBufList* list) {
  tcdbg_printf("In saveMsgToFlash() func\n");
  if (list == nullptr || list->objNum <= 0 || list->head == nullptr) return -1;
  int tailSeq = list->tail != nullptr && list->tail->obj != nullptr ? list->tail->obj->seqNum : 0;
  if (FlashIsCurrent(list, tailSeq)) return 0;

  FILE* f = fopen(kFlashTmp, "we");
  if (f == nullptr) {
    tcdbg_printf("could not open %s, file does not exist", WD_FLASH_FILE);
    return -1;
  }
  tcdbg_printf("Start to save buffer content to Flash\n");
  bool ok = fprintf(f, "%d#%d#%d\n", list->objNum, tailSeq, pppMsgNum) > 0;
  for (wdBufNode* n = list->head; n != nullptr && ok; n = n->next) {
    if (n->obj == nullptr) {
      tcdbg_printf("No object or no message content!\n");
      fclose(f);
      unlink(kFlashTmp);
      return -1;
    }
    ok = fprintf(f, "%s#%d\n", n->obj->msg, static_cast<int>(n->obj->category)) > 0;
  }
  ok = fflush(f) == 0 && ok;
  ok = fsync(fileno(f)) == 0 && ok;
  ok = fclose(f) == 0 && ok;
  if (!ok || rename(kFlashTmp, WD_FLASH_FILE) != 0) {
    // The old copy stays as it was; nothing half written replaces it.
    tcdbg_printf("could not write %s, the flash copy is unchanged\n", WD_FLASH_FILE);
    unlink(kFlashTmp);
    return -1;
  }
  tcdbg_printf("Save buffer content to flash success\n");
  buffSaved = 1;
  return 0;
}

int loadMsgToWDBuf(void) {
  tcdbg_printf("In loadMsgToWDBuf() func\n");
  FILE* f = fopen(WD_FLASH_FILE, "re");
  if (f == nullptr) {
    tcdbg_printf("could not open %s, file does not exist\n", WD_FLASH_FILE);
  } else {
    char* line = nullptr;
    size_t cap = 0;
    bool header = true;
    int category = 17;  // a first body line without category
    int restored = 0;
    while (getline(&line, &cap, f) != -1) {
      line[strcspn(line, "\n")] = '\0';
      tcdbg_printf("buf=%.*s\n", WD_LINE_SIZE, line);
      if (header) {
        int objNum = 0, seqNum = 0, ppp = 0;
        sscanf(line, "%d#%d#%d", &objNum, &seqNum, &ppp);
        tcdbg_printf("objNum=%d, seqNum=%d pppMsgNum=%d\n", objNum, seqNum, ppp);
        header = false;
        continue;
      }
      char* hash = strchr(line, '#');
      if (hash == line || line[0] == '\0') {
        tcdbg_printf("loadMsgToWDBuf: a line without report text is skipped\n");
        continue;
      }
      if (restored == kMaxRestoredLines) {
        tcdbg_printf("loadMsgToWDBuf: more than %d lines, the rest is not restored\n",
                     kMaxRestoredLines);
        break;
      }
      if (hash != nullptr) {
        *hash = '\0';
        char* end = nullptr;
        long value = strtol(hash + 1, &end, 10);
        if (end != hash + 1) category = static_cast<int>(value);
      }
      wd_syslogPush(line, static_cast<uint32_t>(category));
      ++restored;
    }
    free(line);
    fclose(f);
  }
  return system("rm " WD_FLASH_FILE);
}

void wd_bufInit(void) {
  commBufList = static_cast<wdBufList*>(calloc(1, sizeof(wdBufList)));
  {
    wdLock lock(&bufMutex);
    maxBufNum = 0;
    maxSeqNum = 0;
    msgFailNum = 0;
    pppMsgNum = 0;
    chkSeqNum = -1;
    dontSend = 0;
    msgResend = 0;
    rxSocketReady = 0;
    timerChkSyslog = -1;
    timerSaveSyslog = -1;
    sngReload = 0;
  }

  struct sigaction sa;
  memset(&sa, 0, sizeof sa);
  sa.sa_flags = SA_RESTART;
  sigemptyset(&sa.sa_mask);
  sa.sa_handler = TriggerDebugFlag;
  sigaction(SIGUSR1, &sa, nullptr);
  sa.sa_handler = DumpList;
  sigaction(SIGUSR2, &sa, nullptr);

  {
    wdLock lock(&bufMutex);
    bufListInit(commBufList);
  }
  loadMsgToWDBuf();

  snprintf(gSubMod[MOD_MSG_RESEND].chanlPath, WD_CHANL_PATH_SIZE, "/var/wd_msg_resend.chanl");
  gSubMod[MOD_MSG_RESEND].handler = wd_bufResendHandler;
  gSubMod[MOD_MSG_RESEND].timer = 0;

  wd_createRtThread(&bufThreadRX, wd_bufRxHandler, nullptr, "relay receive");
  wd_createRtThread(&bufThreadTX, wd_bufTxHandler, nullptr, "relay transmit");
  wd_createRtThread(&bufThreadResend, wd_bufResendHandler, nullptr, "relay resend");
}

namespace {

wdLoopAction OnResendEvent(wdMsg* msg, void*) {
  if (msg->datalen != 0) {
    tcdbg_printf("MOD_MSG_RESEND Received wdMsg, dst#%d#, data#%.*s#\n", msg->destMod,
                 WD_MSG_DATA_SIZE, msg->data);
  } else {
    tcdbg_printf("MOD_MSG_RESEND Received wdMsg, dst#%d#, type#%d#\n", msg->destMod,
                 msg->eventType);
  }
  if (msg->eventType == TX_CHECK_TIMEOUT) {
    msgResend = 1;
  } else if (msg->eventType == TX_SAVE_TIMEOUT) {
    int rc;
    {
      wdLock lock(&bufMutex);
      rc = saveMsgToFlash(commBufList);
    }
    if (rc == -1) tcdbg_printf("Error: Not able to save syslogs to flash!\n");
  }
  return WD_LOOP_CONTINUE;
}

const wdModLoopText kResendText = {
    "wd_bufResendHandler",
    {"Select error, ret=%d\n", WD_SAY_CONSOLE},
    {"Select timeout!\n", WD_SAY_CONSOLE},
    {nullptr, WD_SAY_NOTHING},
    {nullptr, WD_SAY_NOTHING},
    {"Receieved 0 bytes!\n", WD_SAY_CONSOLE},
};

}  // namespace

void* wd_bufResendHandler(void*) {
  // Without this channel the relay's timers could not reach it: keep trying.
  while (wd_modOpenChannel(MOD_MSG_RESEND) < 0) sleep(1);
  wd_modLoop(MOD_MSG_RESEND, kResendText, OnResendEvent, nullptr);
  return nullptr;
}
