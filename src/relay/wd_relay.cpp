// The report relay's start-up: state, signals, the restored flash copy and
// the three relay threads.
#include "wd_relay.h"

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/select.h>
#include <unistd.h>

#include "tcapi.h"
#include "wd_base.h"
#include "wd_buffer.h"
#include "wd_chanl.h"
#include "wd_flash.h"
#include "wd_link.h"
#include "wd_lock.h"
#include "wd_syslog.h"
#include "wd_syslogng.h"

pthread_t bufThreadRX, bufThreadTX, bufThreadResend;

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
  bufTxWakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (bufTxWakeFd >= FD_SETSIZE) {
    close(bufTxWakeFd);
    bufTxWakeFd = -1;
    errno = EMFILE;
  }
  if (bufTxWakeFd < 0) {
    tcdbg_printf("wd_bufInit: no eventfd (%s), the transmit thread ticks every 300 ms\n",
                 strerror(errno));
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
  loadMsgToWDBuf(wd_syslogPush);
  wdFlashCopy copy{};
  {
    wdLock lock(&bufMutex);
    if (commBufList->objNum > 0) wd_flashTake(commBufList, &copy);
  }
  if (copy.objNum > 0) saveMsgToFlash(&copy);

  snprintf(gSubMod[MOD_MSG_RESEND].chanlPath, WD_CHANL_PATH_SIZE, "/var/wd_msg_resend.chanl");
  gSubMod[MOD_MSG_RESEND].handler = wd_bufResendHandler;
  gSubMod[MOD_MSG_RESEND].timer = 0;

  wd_createRtThread(&bufThreadRX, wd_bufRxHandler, nullptr, "relay receive");
  wd_createRtThread(&bufThreadTX, wd_bufTxHandler, nullptr, "relay transmit");
  wd_createRtThread(&bufThreadResend, wd_bufResendHandler, nullptr, "relay resend");
}
