#include "recording_platform.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fstream>
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
  std::vector<std::string> malformed;
};

State& state() {
  static auto* const instance = new State;
  return *instance;
}

void tellWatcher(const std::string& what) {
  if (state().watcher) {
    state().watcher(what);
  }
}

class MalformedLines : public testing::EmptyTestEventListener {
  void OnTestEnd(const testing::TestInfo& /*test*/) override {
    for (const std::string& text : state().malformed) {
      ADD_FAILURE() << "not passed as it has to be: " << text;
    }
  }
};
[[maybe_unused]] const bool kListening = [] {
  testing::UnitTest::GetInstance()->listeners().Append(new MalformedLines);
  return true;
}();

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
  {
    const std::lock_guard lock(state().mutex);
    state().lines.push_back({level, text, unit, line, unsuppressed});
    if (!wellFormed && isLibraryCode(caller)) {
      state().malformed.emplace_back(text);
    }
  }
  tellWatcher(text);
}

}  // namespace

namespace recorded {

std::vector<Line> lines() {
  const std::lock_guard lock(state().mutex);
  return state().lines;
}

std::vector<std::string> texts(uint32_t level) {
  std::vector<std::string> found;
  for (const Line& line : lines()) {
    if (level == 0 || line.level == level) {
      found.push_back(line.text);
    }
  }
  return found;
}

bool has(uint32_t level, const std::string& text) {
  for (const Line& line : lines()) {
    if (line.level == level && line.text == text) {
      return true;
    }
  }
  return false;
}

size_t count(const std::string& part) {
  size_t found = 0;
  for (const Line& line : lines()) {
    found += line.text.find(part) != std::string::npos ? 1 : 0;
  }
  return found;
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
  const std::lock_guard lock(state().mutex);
  state().lines.clear();
  state().events.clear();
}

void watch(std::function<void(const std::string& what)> watcher) {
  state().watcher = std::move(watcher);
}

void note(const std::string& event) {
  const std::lock_guard lock(state().mutex);
  state().events.push_back(event);
}

std::vector<std::string> events() {
  const std::lock_guard lock(state().mutex);
  return state().events;
}

size_t blocksHeld() {
  const std::lock_guard lock(state().mutex);
  return state().blocksHeld;
}

}  // namespace recorded

extern "C" {

void LOG_InnerPrint(uint32_t moduleId, const char* file, uint32_t fileLen, const char* func,
                    uint32_t funcLen, uint32_t line, uint32_t level, const char* format, ...) {
  va_list args;
  va_start(args, format);
  record(__builtin_return_address(0), false, moduleId, file, fileLen, func, funcLen, line, level,
         format, args);
  va_end(args);
}

void LOG_InnerPrintUnsuppress(uint32_t moduleId, const char* file, uint32_t fileLen,
                              const char* func, uint32_t funcLen, uint32_t line, uint32_t level,
                              const char* format, ...) {
  va_list args;
  va_start(args, format);
  record(__builtin_return_address(0), true, moduleId, file, fileLen, func, funcLen, line, level,
         format, args);
  va_end(args);
}

void LOG_InnerVprint(uint32_t moduleId, uint32_t kind, const char* file, uint32_t fileLen,
                     const char* func, uint32_t funcLen, uint32_t line, uint32_t level,
                     const char* format, va_list args) {
  if (kind == 1 && file == nullptr && func == nullptr) {
    record(nullptr, false, moduleId, file, fileLen, func, funcLen, line, level, format, args);
  }
}

const char* FrameParamGet(uint32_t id) {
  return id == 12 && !state().configPath.empty() ? state().configPath.c_str() : nullptr;
}

uint32_t FrameTriggerCheckExit(void) {
  recorded::note("exit check");
  return 0;
}

void* TOV_MemAllocF(size_t size, const char* file, uint32_t line, uint32_t reserved) {
  if (fault::strikes("TOV_MemAllocF") || file == nullptr || line == 0 || reserved != 0) {
    return nullptr;
  }
  const std::lock_guard lock(state().mutex);
  ++state().blocksHeld;
  void* block = malloc(size);
  memset(block, 0xA5, size);  // the library is to clear what it gets
  return block;
}

void TOV_MemFreeF(void* block, const char* /*file*/, uint32_t /*line*/, uint32_t reserved) {
  tellWatcher("free");
  const std::lock_guard lock(state().mutex);
  state().blocksHeld -= block != nullptr && reserved == 0 ? 1 : 0;
  free(block);
}

}  // extern "C"

void configure(const std::string& yaml) {
  state().configPath.clear();
  if (!yaml.empty()) {
    state().configPath = testing::TempDir() + "/qurn-" + std::to_string(getpid()) + ".yaml";
    std::ofstream(state().configPath) << yaml;
  }
}

bool eventually(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

void startDetection(uint32_t periodMs) {
  ASSERT_EQ(FrameSetDeadloopPeriodDelay(periodMs), QURN_OK);
  ASSERT_EQ(FRAME_MntInit(), QURN_OK);
  ASSERT_TRUE(eventually([] {
    for (const std::string& event : recorded::events()) {
      if (event == "exit check") {
        return true;
      }
    }
    return false;
  }));
}

void onThread(const std::string& name, const std::function<void()>& body) {
  std::thread([&] {
    prctl(PR_SET_NAME, name.c_str());
    body();
  }).join();
}
