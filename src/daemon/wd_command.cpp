// The command handling of the command loop: each command becomes an event on
// a module channel, a module thread's start, an answer to a query on
// /tmp/wd_result_sock, or a syslog-ng reload mark. Main thread only.
#include "wd_command.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "libwdfunc.h"
#include "tcapi.h"
#include "wd_base.h"
#include "wd_buffer.h"
#include "wd_chanl.h"
#include "wd_modthread.h"

namespace {

// Only a socket of the daemon's own user (the asker's; no other user can
// write to the command socket) may take a reply: never a link planted at
// the reply path, nor another user's socket bound there.
bool ReplySocketIsOurs() {
  static const uid_t ours = geteuid();  // the daemon never changes its user
  struct stat st;
  if (lstat(WD_RESULT_SOCK_PATH, &st) != 0) return false;
  if (S_ISSOCK(st.st_mode) && st.st_uid == ours) return true;
  errno = EACCES;
  return false;
}

// Module-addressed commands name their module in sequenceNumber; the table has
// 13 entries and nothing beyond.
bool KnownModule(const wdCmdMsg* msg) {
  if (msg->sequenceNumber < WD_MOD_NUM) return true;
  tcdbg_printf("Invalid module id: %u, command type %u dropped\r\n", msg->sequenceNumber,
               msg->signaltype);
  return false;
}

// Hands a command's data to module `modId` as the data record it takes with
// `event`: the first bytes of the record's size, missing bytes sent as zeros so
// that the module always receives a whole record. A module that takes no such
// record gets nothing.
void ForwardRecord(int event, unsigned modId, wdCmdMsg* msg) {
  const wdModDesc* mod = wd_findMod(modId);
  if (mod == nullptr || mod->record.size == 0 || mod->record.event != event) return;
  unsigned char data[WD_MSG_DATA_SIZE];
  unsigned want = mod->record.size < sizeof data ? mod->record.size : sizeof data;
  memset(data, 0, want);
  unsigned have = msg->dataLength < want ? msg->dataLength : want;
  memcpy(data, wdCmdData(msg), have);
  wd_simpleSendMsg(event, 0, static_cast<int>(modId), data, want);
}

void AnswerQuery(wdCmdMsg* msg) {
  bool running = msg->sequenceNumber < WD_MOD_NUM && gSubMod[msg->sequenceNumber].threadId != 0;
  msg->wordData = running ? 0 : WD_QUERY_NOT_RUNNING;
  msg->dataLength = 0;
  WD_TRACE_AS("main", "MSG_QORVWATCHDOG_QUERY wordData=%x", msg->wordData);
  // Never waits: a process that asks and does not read must not stop the loop.
  if (!ReplySocketIsOurs() || SendSigToApp(WD_RESULT_SOCK_PATH, msg) < 0) {
    tcdbg_printf("Query reply for module %u to %s dropped: %s\r\n", msg->sequenceNumber,
                 WD_RESULT_SOCK_PATH, strerror(errno));
  }
}

void StartModule(unsigned modId) {
  if (!wd_isWdEnable() || modId >= WD_MOD_NUM) return;
  wdSubModEntry& entry = gSubMod[modId];
  // MOD_DEFAULT has no body, and the resend channel's thread belongs to the
  // relay, which starts it itself.
  if (entry.handler == nullptr || modId == MOD_MSG_RESEND) return;
  wd_startModThread(static_cast<int>(modId));
}

}  // namespace

void wd_dispatchCommand(wdCmdMsg* msg) {
  static const int kEventOfType[] = {
      0,          CONFIG_CHANGE, 0, THREAD_EXIT, 0, GET_INFORM, GET_INFORM_RESPONSE, CR_NAME_CHANGE,
      NAME_CHANGE};
  uint32_t type = msg->signaltype;
  switch (type) {
    case MSG_QORVWATCHDOG_CONFIG_CHANGE:
    case MSG_QORVWATCHDOG_THREAD_EXIT:
    case MSG_QORVWATCHDOG_GET_INFORM:
    case MSG_QORVWATCHDOG_GET_INFORM_RESPONSE:
    case MSG_QORVWATCHDOG_CR_NAME_CHANGE:
    case MSG_QORVWATCHDOG_NAME_CHANGE:
      if (KnownModule(msg))
        wd_simpleSendMsg(kEventOfType[type], 0, msg->sequenceNumber, nullptr, 0);
      break;
    case MSG_QORVWATCHDOG_THREAD_START:
      StartModule(msg->sequenceNumber);
      break;
    case MSG_QORVWATCHDOG_QUERY:
      if (msg->wordData == 0) {
        AnswerQuery(msg);
      } else if (msg->wordData == 1 && msg->dataLength >= 2) {
        ForwardRecord(RECEIVE_FROM, msg->sequenceNumber, msg);
      }
      break;
    case MSG_QORVWATCHDOG_MONITOR_DATA:
      ForwardRecord(MONITOR_DATA, MOD_MONITOR, msg);
      break;
    case MSG_QORVWATCHDOG_SYSLOG_RELOAD:
    case MSG_QORVWATCHDOG_SYSLOG_RELOAD_2:
      wd_bufSetReload();
      break;
    default:
      tcdbg_printf("Invalid message type: 0x%08X\r\n", type);
  }
}
