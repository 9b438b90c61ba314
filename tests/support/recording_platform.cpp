#include "recording_platform.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <memory>
#include <mutex>
#include <set>
#include <thread>

#include "faults.h"

namespace {

// Reached for the first time while the library is being loaded, before this program's own
// constructors, and never destroyed.
struct State {
  std::mutex mutex;
  std::vector<recorded::Line> lines;
  std::vector<std::string> events;
  std::string configPath;
  size_t blocksHeld = 0;
  std::function<void(const std::string&)> watcher;
};

// Locked as long as the answer lives.
std::unique_ptr<State, void (*)(State*)> state() {
  static auto* const instance = new State;
  instance->mutex.lock();
  return {instance, [](State* locked) { locked->mutex.unlock(); }};
}

void tellWatcher(const std::string& what) {
  if (const auto watcher = state()->watcher; watcher != nullptr) {
    watcher(what);
  }
}

void record(const void* caller, bool unsuppressed, uint32_t moduleId, const char* file,
            uint32_t fileLen, const char* func, uint32_t funcLen, uint32_t line, uint32_t level,
            const char* format, va_list args) {
  char text[1024];
  vsnprintf(text, sizeof(text), format, args);
  fprintf(stderr, "%u %s\n", level, text);  // for the tests of a process's end
  const std::string path(file == nullptr ? "" : file);
  const std::string unit = path.substr(path.rfind('/') + 1);
  const bool wellFormed = moduleId == 0 && fileLen == path.size() &&
                          path.rfind("build/src/", 0) == 0 && func != nullptr &&
                          strcmp(func, "<unknown>") == 0 && funcLen == 9 && line > 0 &&
                          // The framework's dead-loop library hands its texts over whole.
                          (strcmp(format, "%s") != 0 || unit == "tov_deadloop_task");
  if (!wellFormed && isLibraryCode(caller)) {
    fprintf(stderr, "That line is not passed as it has to be.\n");
    abort();
  }
  state()->lines.push_back({level, text, unit, line, unsuppressed});
  tellWatcher(text);
}

}  // namespace

namespace recorded {

std::vector<Line> lines() { return state()->lines; }

std::vector<std::string> texts(uint32_t level) {
  auto chosen = lines();
  std::erase_if(chosen, [=](const Line& line) { return level != 0 && line.level != level; });
  std::vector<std::string> found(chosen.size());
  std::ranges::transform(chosen, found.begin(), &Line::text);
  return found;
}

bool has(uint32_t level, const std::string& text) {
  return std::ranges::count(texts(level), text) != 0;
}

size_t count(const std::string& part) {
  return std::ranges::count_if(
      texts(), [&](const std::string& text) { return text.find(part) != std::string::npos; });
}

size_t sourceLines(const std::string& part) {
  std::set<uint32_t> found;
  for (const Line& line : lines()) {
    if (line.text.find(part) != std::string::npos) {
      found.insert(line.sourceLine);
    }
  }
  return found.size();
}

void forget() {
  state()->lines.clear();
  state()->events.clear();
}

void watch(std::function<void(const std::string& what)> watcher) {
  state()->watcher = std::move(watcher);
}

void note(const std::string& event) { state()->events.push_back(event); }

std::vector<std::string> events() { return state()->events; }

size_t blocksHeld() { return state()->blocksHeld; }

}  // namespace recorded

extern "C" {

#define RECORDS(NAME, UNSUPPRESSED)                                                           \
  void NAME(uint32_t moduleId, const char* file, uint32_t fileLen, const char* func,          \
            uint32_t funcLen, uint32_t line, uint32_t level, const char* format, ...) {       \
    va_list args;                                                                             \
    va_start(args, format);                                                                   \
    record(__builtin_return_address(0), UNSUPPRESSED, moduleId, file, fileLen, func, funcLen, \
           line, level, format, args);                                                        \
    va_end(args);                                                                             \
  }
RECORDS(LOG_InnerPrint, false)
RECORDS(LOG_InnerPrintUnsuppress, true)

void LOG_InnerVprint(uint32_t moduleId, uint32_t kind, const char* file, uint32_t fileLen,
                     const char* func, uint32_t funcLen, uint32_t line, uint32_t level,
                     const char* format, va_list args) {
  if (kind == 1 && file == nullptr && func == nullptr) {
    record(nullptr, false, moduleId, file, fileLen, func, funcLen, line, level, format, args);
  }
}

const char* FrameParamGet(uint32_t id) {
  const std::string& path = state()->configPath;
  return id == 12 && !path.empty() ? path.c_str() : nullptr;
}

uint32_t FrameTriggerCheckExit(void) {
  recorded::note("exit check");
  return 0;
}

void* TOV_MemAllocF(size_t size, const char* file, uint32_t line, uint32_t reserved) {
  if (fault::strikes("TOV_MemAllocF") || file == nullptr || line == 0 || reserved != 0) {
    return nullptr;
  }
  ++state()->blocksHeld;
  return memset(malloc(size), 0xA5, size);  // the library is to clear what it gets
}

void TOV_MemFreeF(void* block, const char* /*file*/, uint32_t /*line*/, uint32_t reserved) {
  tellWatcher("free");
  state()->blocksHeld -= block != nullptr && reserved == 0 ? 1 : 0;
  free(block);
}

}  // extern "C"

void configure(const std::string& yaml) {
  const std::string path = testing::TempDir() + "/qurn-" + std::to_string(getpid()) + ".yaml";
  std::ofstream(path) << yaml;
  state()->configPath = yaml.empty() ? "" : path;
}

bool eventually(const std::function<bool()>& condition) {
  for (const time_t end = time(nullptr) + 10; !condition(); usleep(2000)) {
    if (time(nullptr) > end) {
      return false;
    }
  }
  return true;
}

void startDetection(uint32_t periodMs) {
  ASSERT_EQ(FrameSetDeadloopPeriodDelay(periodMs), QURN_OK);
  ASSERT_EQ(FRAME_MntInit(), QURN_OK);
  ASSERT_TRUE(eventually([] { return std::ranges::count(recorded::events(), "exit check") != 0; }));
}

void onThread(const std::string& name, const std::function<void()>& body) {
  std::thread([&] {
    prctl(PR_SET_NAME, name.c_str());
    body();
  }).join();
}
