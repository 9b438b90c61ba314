// The dead-loop report. Runs on the detection thread, after the signal handler has published its
// record. Turning addresses into names allocates and takes the loader's lock; the record is
// complete by then, whatever that costs.
#include <execinfo.h>
#include <qurnadapt/keep_alive.h>
#include <qurnadapt/monitor.h>
#include <qurnadapt/report.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "capture_record.h"
#include "frame_mnt.h"
#include "internal/safe_strings.h"
#include "symbol_line.h"

namespace {

using qurn::mnt::g_dump;
using qurn::mnt::kUnit;

#define REPORT_LOG(...) QURN_LOG_AS(LOG_InnerPrintUnsuppress, kUnit, TOV_LOG_WARNING, __VA_ARGS__)

// Signals 1 to 31.
constexpr std::array<const char*, 31> kSignalNames{
    "SIGHUP",  "SIGINT",    "SIGQUIT", "SIGILL",   "SIGTRAP", "SIGABRT", "SIGBUS",  "SIGFPE",
    "SIGKILL", "SIGUSR1",   "SIGSEGV", "SIGUSR2",  "SIGPIPE", "SIGALRM", "SIGTERM", "SIGSTKFLT",
    "SIGCHLD", "SIGCONT",   "SIGSTOP", "SIGTSTP",  "SIGTTIN", "SIGTTOU", "SIGURG",  "SIGXCPU",
    "SIGXFSZ", "SIGVTALRM", "SIGPROF", "SIGWINCH", "SIGIO",   "SIGPWR",  "SIGSYS"};

// A name needs up to 299 characters, a newline and a terminator.
constexpr uint32_t kNameRoom = FRAME_SYMBOL_NAME_LEN + 1;

struct FreeSymbols {
  void operator()(char** symbols) const noexcept { free(static_cast<void*>(symbols)); }
};
using SymbolLines = std::unique_ptr<char*[], FreeSymbols>;

// The symbol lines of the addresses; null, and logged, when there is no memory for them.
SymbolLines symbolLinesOf(void* const* addresses, uint32_t depth) noexcept {
  SymbolLines lines(backtrace_symbols(addresses, static_cast<int>(depth)));
  if (lines == nullptr) {
    MNT_LOG(TOV_LOG_ERROR, "Frame dump stack unsuccessfully, get symbols unsuccessfully.");
  }
  return lines;
}

bool canBeNamed(void* const* addresses, uint32_t depth, const char* dest,
                uint32_t capacity) noexcept {
  if (dest == nullptr) {
    MNT_LOG(TOV_LOG_ERROR, "Function name is null.");
  } else if (addresses == nullptr) {
    MNT_LOG(TOV_LOG_ERROR, "Function address is null.");
  } else if (capacity == 0) {
    MNT_LOG(TOV_LOG_ERROR, "Dest buff size is 0.");
  } else if (depth == 0) {
    MNT_LOG(TOV_LOG_ERROR, "Real depth is 0.");
  } else {
    return true;
  }
  return false;
}

// Writes the names one a line for as long as there is room for a whole one, and ends the text where
// writing stopped.
void joinNames(const SymbolLines& lines, uint32_t depth, char* dest, uint32_t capacity) noexcept {
  uint32_t used = 0;
  for (uint32_t i = 0; i < depth && capacity - used > kNameRoom; ++i) {
    FrameGetFuncFromSymbolStr(dest + used, lines[i]);
    used += static_cast<uint32_t>(strlen(dest + used));
    if (i + 1 < depth) {
      dest[used++] = '\n';
    }
  }
  dest[used] = '\0';
  dest[capacity - 1] = '\0';
}

}  // namespace

extern "C" {

void FrameWriteDeadloopInfo(void) {
  if (FrameGetDeadloopStatus() != FRAME_DEADLOOP_STATUS_CAPTURED) {
    return;
  }
  FrameExcepTimeStrGet(g_dump.dumpInfo.load()->captureTime, FRAME_CAPTURE_TIME_LEN);
  FRAME_KeepAliveReport();
  FrameWriteDeadloopInfoToLog();
  FRAME_KeepAliveReport();
  FrameDeadloopFatalAction();
  g_dump.awaitedTid = 0;
  g_dump.status.store(FRAME_DEADLOOP_STATUS_IDLE, std::memory_order_release);
}

void FrameWriteDeadloopInfoToLog(void) {
  const FrameDeadloopDumpInfo* dumpInfo = g_dump.dumpInfo.load();
  if (dumpInfo == nullptr) {
    return;
  }
  REPORT_LOG("Signal %d is captured at %s.", SIGRTMIN + 2, dumpInfo->captureTime);
  REPORT_LOG("Captured process: %s, pid: %u.", qurn::mnt::procInfo().procName,
             qurn::mnt::procInfo().pid);
  static_assert(sizeof(void*) == sizeof(*g_dump.callStack));
  const uint32_t depth = std::min(g_dump.capturedDepth, FRAME_CALL_STACK_DEPTH);
  const SymbolLines lines = symbolLinesOf(reinterpret_cast<void* const*>(g_dump.callStack), depth);
  if (lines == nullptr) {
    return;
  }
  for (uint32_t i = 0; i < depth; ++i) {
    FrameGetFuncFromSymbolStr(g_dump.symbolText, lines[i]);
    REPORT_LOG("#%u %s.", i, g_dump.symbolText);
  }
}

uint32_t FrameFuncNameGetByAddr(void* const* addresses, uint32_t depth, char* dest,
                                uint32_t capacity) {
  if (!canBeNamed(addresses, depth, dest, capacity)) {
    return QURN_FAILED;
  }
  const SymbolLines lines = symbolLinesOf(addresses, depth);
  if (lines == nullptr) {
    return QURN_FAILED;
  }
  joinNames(lines, depth, dest, capacity);
  return QURN_OK;
}

int32_t FrameGetSigName(int32_t sig, char* dest, uint32_t capacity) {
  const bool known = sig >= 1 && sig <= static_cast<int32_t>(kSignalNames.size());
  const char* name = known ? kSignalNames[static_cast<size_t>(sig) - 1] : "UNKNOWN";
  return strncpy_s(dest, qurn::safeCapacity(capacity), name, strlen(name));
}

}  // extern "C"
