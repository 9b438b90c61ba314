#include <algorithm>
#include <array>

#include "dead_loop.h"

namespace qurn::report {
namespace {

constexpr std::array<const char*, 3> kThresholds{"the first threshold", "the second threshold",
                                                 "the third threshold"};

// A dead loop that is decided had crossed them all.
void addThresholds(const DeadLoop& loop, std::vector<std::string>& missing) {
  for (int threshold = 1; threshold <= 3; ++threshold) {
    const char* name = kThresholds.at(static_cast<size_t>(threshold - 1));
    const auto found = std::find_if(
        loop.silence.begin(), loop.silence.end(),
        [threshold](const Crossing& crossing) { return crossing.threshold == threshold; });
    if (found == loop.silence.end()) {
      missing.emplace_back(name);
    } else if (found->isCut) {
      missing.push_back("the end of " + std::string(name));
    }
  }
}

void addFrames(const DeadLoop& loop, std::vector<std::string>& missing) {
  size_t number = 0;
  for (const Frame& frame : loop.frames) {
    if (frame.isInlined) {
      continue;
    }
    const std::string name = "frame #" + std::to_string(number++);
    if (frame.text.empty()) {
      missing.push_back(name);
    } else if (frame.isCut) {
      missing.push_back("the end of " + name);
    }
  }
}

}  // namespace

std::vector<std::string> missingFrom(const DeadLoop& loop) {
  std::vector<std::string> missing;
  const Decision& decision = loop.decision;
  const bool isDecided = decision.made() || decision.exitStatus;
  if (!loop.silence.empty() || isDecided) {
    addThresholds(loop, missing);
  }
  if (loop.captured || isDecided) {
    if (loop.captureStamp.empty()) {
      missing.emplace_back("the capture");
    } else if (loop.isCaptureCut) {
      missing.emplace_back("the end of the capture");
    }
    if (loop.processId == 0 && (isDecided || !loop.frames.empty() || !loop.process.empty())) {
      missing.emplace_back(loop.process.empty() ? "the process" : "the process id");
    }
    addFrames(loop, missing);
    if (loop.frames.empty() && isDecided) {
      missing.emplace_back("the frames");
    }
  }
  if (decision.exitStatus && !decision.made()) {
    missing.emplace_back("the decision");
  }
  return missing;
}

}  // namespace qurn::report
