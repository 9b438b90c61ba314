/* A component that declares the interface by hand, as older ones do, in a program that is not
 * position-independent and takes some of the calls' places: what it sees of widths, addresses and
 * replaced calls. Ends with the number of mistakes. */
/* Older components declare calls without their arguments, of which newer compilers warn. */
#if defined(__has_warning)
#if __has_warning("-Wdeprecated-non-prototype")
#pragma GCC diagnostic ignored "-Wdeprecated-non-prototype"
#endif
#endif

#include <qurnadapt/legacy_fixed.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

extern uint32_t FrameSignalIsSupportIgnore(), FrameIsHexNum(), FrameIsSpace();
extern uint32_t FrameIsDeadloopThresholdValid(), FrameIsTaskDeadloopHandleValid();
extern uint32_t FrameIsMonitorTaskExist(), FrameIsTerminatedTaskReleased();
extern uint32_t FrameIsInfoThresholdTimeout(), FrameIsWarnThresholdTimeout();
extern uint32_t FrameIsFatalThresholdTimeout(), FrameProcMapsFileGet(), FrameReadMapFileStr();
extern uint32_t FrameGetMapStackAddr(), Frame_SetHeartbeatToMon(), Frame_SendHeartbeatToMon();
extern uint32_t Frame_StopHeartbeatToMon(), Frame_RegDeadloopInfoHook(), FrameKeepAliveByNotify();
extern uint32_t FRAME_KeepAliveProcSet(), FrameKeepAliveByNotifySendReady(), g_FrameReady;
extern void FRAME_NodeReboot(void), ZOT_syslog(int, const char*, ...);
extern void* g_stTovHeartFunSet[5];
extern uintptr_t ZOT_Assert(const char*, uintptr_t, uintptr_t, uintptr_t);

static int mistakes = 0;
#define CHECK(condition) \
  if (!(condition)) printf("%d: not so: %s\n", __LINE__, #condition), ++mistakes

/* ---- calls that this program replaces */

uintptr_t RuloPluginAssert(const char* file, uintptr_t line, uintptr_t third, uintptr_t fourth) {
  return *file == 'f' && line == 0x7fff12345678 && third == 1 ? fourth : 0;
}
void* ZOT_MsgAlloc(uintptr_t first, uintptr_t second) { return (void*)(first * 100 + second); }
uint32_t TRC_CompMsgProc() { return 7; }
static const char* loggedFormat = NULL;
void vsyslog(int priority, const char* format, va_list arguments) {
  loggedFormat = priority == 3 && va_arg(arguments, int) == 4 ? format : NULL;
}

static void answersAreWholeWords(void) {
  uint64_t record[9] = {0}, start, end, slot = 63;
  uint32_t from, to;
  char path[64];
  for (int c = 1; c < 128; ++c) {
    CHECK(FrameIsHexNum((char)c) == (strchr("0123456789abcdefABCDEF", c) != NULL));
    CHECK(FrameIsSpace((char)c) == (c == ' ' || c == '\t' || c == '\r'));
  }
  CHECK(FrameSignalIsSupportIgnore("sigpipe") == 0 && FrameSignalIsSupportIgnore("SIGPIPE") == 1);
  CHECK(FrameIsDeadloopThresholdValid(1, 2, 3) == 1 && FrameIsDeadloopThresholdValid(3, 2, 1) == 0);
  CHECK(FrameIsTaskDeadloopHandleValid(&slot) == 1 && FrameIsTaskDeadloopHandleValid(NULL) == 0);
  CHECK(FrameIsMonitorTaskExist(-1) == 0 && FrameIsTerminatedTaskReleased(record) == 1);
  CHECK(FrameIsInfoThresholdTimeout(record, 1) == 1);
  CHECK((FrameIsWarnThresholdTimeout(record, 1) | FrameIsFatalThresholdTimeout(record, 1)) == 0);
  CHECK(FrameProcMapsFileGet(path, 64) == 1 && FrameProcMapsFileGet(path, 4) == 0);
  CHECK(FrameReadMapFileStr("1-2 ", 4, &from, &to) == 1);
  CHECK(FrameReadMapFileStr("1+2 ", 4, &from, &to) == 0);
  CHECK(FrameGetMapStackAddr("1-2 ", 4, &start, &end) == 1);
  CHECK(FrameGetMapStackAddr("1-2", 3, &start, &end) == 0);
}

int main(void) {
  void* const heartCalls[5] = {Frame_SetHeartbeatToMon, Frame_SendHeartbeatToMon,
                               Frame_StopHeartbeatToMon, Frame_RegDeadloopInfoHook,
                               FRAME_NodeReboot};
  answersAreWholeWords();
  CHECK(memcmp(g_stTovHeartFunSet, heartCalls, sizeof(heartCalls)) == 0);
  CHECK(FRAME_KeepAliveProcSet(1000, FrameKeepAliveByNotify, NULL) == 0);
  CHECK(FrameKeepAliveByNotifySendReady() == 0 && g_FrameReady == 1);
  CHECK(ZOT_Assert("file", 0x7fff12345678, 1, 0x123456789abc) == 0x123456789abc);
  CHECK(ZOT_MsgFlowCtrlAlloc_F((uintptr_t)5, (uintptr_t)6, (uintptr_t)7) == (void*)507);
  ZOT_syslog(3, "%d lines", 4);
  CHECK(loggedFormat != NULL && strcmp(loggedFormat, "%d lines") == 0);
  CHECK(TRC_RegisterFunction() == 0);
  return mistakes;
}
