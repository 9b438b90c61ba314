// The capture record that the signal handler fills and the report reads.
#pragma once

#include <qurnadapt/capture.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace qurn::mnt {

constexpr std::size_t kSymbolTextBytes = 20480;

// The three parts of the one allocation that is made at start-up and never freed.
struct CaptureMemory {
  uint64_t callStack[FRAME_CALL_STACK_DEPTH];
  char symbolText[kSymbolTextBytes];
  FrameDeadloopDumpInfo dumpInfo;
};
static_assert(offsetof(CaptureMemory, symbolText) == sizeof(CaptureMemory::callStack));
static_assert(offsetof(CaptureMemory, dumpInfo) ==
              offsetof(CaptureMemory, symbolText) + kSymbolTextBytes);
static_assert(sizeof(FrameDeadloopDumpInfo::registers) == 288);

struct FrameDeadloopDumpCtrl {
  std::atomic<uint32_t> inited;
  uint32_t capturedDepth;        // published by the status
  uint32_t capturedStackLength;  // published by the status
  uint64_t* callStack;
  char* symbolText;                              // one symbol name at a time
  std::atomic<FrameDeadloopDumpInfo*> dumpInfo;  // null until all three parts exist
  std::atomic<uint32_t> captureBusy;             // 1 while a handler fills the record
  std::atomic<uint32_t> captureTid;              // whose handler does, else 0
  std::atomic<uint32_t> awaitedTid;  // the one thread whose capture is asked for, else 0
  std::atomic<uint32_t> status;      // FRAME_DEADLOOP_STATUS_
};
static_assert(std::atomic<uint32_t>::is_always_lock_free);

extern constinit FrameDeadloopDumpCtrl g_dump;

}  // namespace qurn::mnt
