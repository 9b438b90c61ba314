// The tests' own platform: it stands in front of the stand-in's log, memory, boxes and parameters,
// remembers what the library asked of them, and refuses on request. A line of the library's that is
// not passed as it has to be (module 0, a unit's path and its length, "<unknown>", 9, a source
// line, the message's own text as the format) ends the test that it comes in.
#pragma once

#include <qurnadapt/platform.h>
#include <qurnadapt/qurnadapt.h>

#include <functional>
#include <string>
#include <vector>

namespace recorded {

struct Line {
  uint32_t level;
  std::string text;
  std::string unit;  // last component of the path
  uint32_t sourceLine;
  bool unsuppressed;
};

// Every line since the process started, or since forget(), those of the library's load included.
std::vector<Line> lines();
// The texts only, of one level or of all (0).
std::vector<std::string> texts(uint32_t level = 0);
bool has(uint32_t level, const std::string& text);
size_t count(const std::string& part);
size_t sourceLines(const std::string& part = "");  // how many different ones they came from
void forget();
// Told of each line, and of "free", as it comes.
void watch(std::function<void(const std::string& what)> watcher);

// What the library did, in order: "alloc", "exit check", and whatever tests add.
void note(const std::string& event);
std::vector<std::string> events();

size_t blocksHeld();  // from TOV_MemAllocF and not given back

}  // namespace recorded

// The library has logged this line as an error.
#define EXPECT_ERROR(text) EXPECT_TRUE(recorded::has(100, text)) << (text)

// Writes a component configuration and makes the platform name it; "" takes the parameter away.
void configure(const std::string& yaml);

// Waits until `condition` holds, for up to ten seconds.
bool eventually(const std::function<bool()>& condition);

// Runs start-up with this period and waits until the detection thread serves its timer.
void startDetection(uint32_t periodMs);

// Runs `body` on a thread of its own, with this name, and joins it.
void onThread(const std::string& name, const std::function<void()>& body);
