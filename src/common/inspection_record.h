// Where a process keeps what somebody who looks into it from outside wants to know: one record in
// the library's writable data, which a reader finds by its first bytes in a stripped library too,
// and in a core. It is complete before any code runs, and no code touches it.
#pragma once

#include <array>
#include <cstdint>

namespace qurn::inspection {

inline constexpr std::array<char, 32> kMagic{"\x7Fqurnadapt inspection record\r\n"};
// Of the layout; a reader refuses others. It also stands for the layout of the public records that
// the offsets below lead to.
inline constexpr uint32_t kVersion = 1;

// Offsets and sizes are in bytes; addresses are those of the process.
struct Record {
  std::array<char, 32> magic;
  uint32_t version;
  uint32_t bytes;  // of this record

  struct {
    const void* address;
    uint32_t bytes;
    uint32_t isInited;    // 1 byte
    uint32_t fatalSlot;   // 8 bytes: the slot of the last third-threshold event
    uint32_t signalSent;  // timespec, CLOCK_MONOTONIC_COARSE: when its signal was sent
    uint32_t nodes;
    uint32_t nodeBytes;
    uint32_t nodeCount;
    uint32_t info;  // FrameMonitorTaskInfo in a node
  } monitor;

  struct {
    const void* address;
    uint32_t bytes;
    uint32_t status;       // 4 bytes
    uint32_t depth;        // 4 bytes: of the call stack
    uint32_t stackLength;  // 4 bytes: of the stack's copy
    uint32_t callStack;    // address of 8 bytes a frame
    uint32_t dumpInfo;     // address of a FrameDeadloopDumpInfo
  } capture;

  struct {
    const void* address;
    uint32_t bytes;
    uint32_t period;         // 4 bytes, milliseconds
    uint32_t hook;           // address, null when nobody is reported to
    const void* isReady;     // 4 bytes
    const void* lastReport;  // timespec, CLOCK_MONOTONIC_COARSE, of the last that succeeded
  } keepAlive;

  struct {
    const void* address;
    uint32_t bytes;
    uint32_t pid;   // 4 bytes
    uint32_t name;  // the rest
    uint32_t nameBytes;
  } process;

  const void* detectionPeriod;  // 4 bytes, milliseconds
};

}  // namespace qurn::inspection
