// What the log tells about one dead loop.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qurn::report {

// The time stamp of a log line as it was written, empty when the line has none.
using LogTime = std::string;

struct Crossing {
  int threshold;  // 1, 2 or 3
  LogTime at;
  uint32_t silentMs;
  bool isCut = false;  // the line was, so that 0 ms may be unknown
};

struct Frame {
  std::string text;  // as it was written, empty where the log lacks the frame
  std::string symbol;
  uint64_t offset = 0;     // behind the symbol, without one behind the module's start
  uint64_t address = 0;    // of a frame that was written without a symbol
  std::string module;      // the file that it is in, and
  std::string sourceLine;  // FILE:LINE, where they could be told
  bool isCut = false;      // in the log
  bool isInlined = false;  // into the next one that is not; the log does not know of it
};

// Of the thread's own hook and then the process-wide one, or by default: to end the process.
struct Decision {
  bool threadHook = false;
  bool processHook = false;
  bool byDefault = false;
  std::optional<int> exitStatus;
  LogTime at;

  [[nodiscard]] bool made() const { return threadHook || processHook || byDefault; }
};

struct DeadLoop {
  std::string process;
  uint32_t processId = 0;  // 0: not told, as are the thread's and the thresholds
  std::string thread;
  uint32_t threadId = 0;
  std::array<uint32_t, 3> thresholdsMs{};
  std::vector<Crossing> silence;
  int signal = 0;  // 0: the line is not in the log
  bool signalFailed = false;
  bool captured = false;
  LogTime reportedAt;
  std::string captureStamp;  // the report's own, at UTC+8
  bool isCaptureCut = false;
  std::vector<Frame> frames;
  Decision decision;
};

// What a whole log would tell and this one does not, as people would say it.
std::vector<std::string> missingFrom(const DeadLoop& loop);

}  // namespace qurn::report
