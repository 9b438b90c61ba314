// The library in the process: where it is, and what its watch knows.
#pragma once

#include <ctime>
#include <string>
#include <vector>

#include "common/inspection_record.h"
#include "snapshot.h"
#include "target.h"

namespace qurn::inspect {

struct Library {
  std::string path;
  std::string platform;  // the stand-in's path, empty where it is another
  inspection::Record record{};
};

// Throws Mistake when there is none, or one of a layout that is not known.
Library findLibrary(const Target& target);

// Not any more when the process has ended or runs another program, nor in a core that is cut off.
bool isThere(const Target& target, const Library& library);

// What a thread's heartbeat leaves, besides what the outputs show.
struct Beat {
  WatchedThread thread;
  timespec at{};
};

// The process as the library knows it, and the threads that it watches; silences are counted from
// `now`.
Process readProcess(const Target& target, const Library& library, const timespec& now);
std::vector<Beat> readWatch(const Target& target, const Library& library, const timespec& now);

// The freshest time in the watch, for a core.
timespec freshestTime(const Target& target, const Library& library);

int64_t msBetween(const timespec& from, const timespec& to);

}  // namespace qurn::inspect
