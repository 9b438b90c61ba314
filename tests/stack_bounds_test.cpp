// The scan of the process memory map for the calling thread's stack.
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>

#include "support/faults.h"
#include "support/recording_platform.h"

namespace {

std::string hex(uint64_t value) {
  char text[17];
  snprintf(text, sizeof(text), "%lx", value);
  return text;
}

std::string line(uint64_t start, uint64_t end, const std::string& rest = " rw-p 0 00:00 0\n") {
  return hex(start) + "-" + hex(end) + rest;
}

// What the scan finds for the calling thread in a map of this content.
FrameTaskStackInfo scan(const std::string& map) {
  const std::string path = testing::TempDir() + "/qurn-maps-" + std::to_string(getpid());
  std::ofstream(path) << map;
  redirectMemoryMap(path.c_str());
  FrameTaskStackInfo info{0, 0};
  FrameTaskStackInfoGet(&info);
  redirectMemoryMap(nullptr);
  return info;
}

TEST(MemoryMap, HoldsTheCallingThreadsStack) {
  onThread("bounds", [] {
    const int local = 0;
    FrameTaskStackInfo info{0, 0};
    FrameTaskStackInfoGet(&info);
    EXPECT_LT(info.start, reinterpret_cast<uint64_t>(&local));
    EXPECT_GT(info.start + info.size, reinterpret_cast<uint64_t>(&local));
  });
}

TEST(MemoryMap, TheFirstLineAroundTheThreadIdentifierWins) {
  const uint64_t key = pthread_self();
  const uint64_t start = key - 0x1000;
  const uint64_t end = key + 0x1000;
  const std::string others = line(0x1000, 0x2000) + "no map line\n" + line(key, end) +
                             line(start, key) + hex(start) + "-" + hex(end) + "rw-p\n";
  struct Case {
    const char* what;
    std::string map;
    bool found;
  };
  const Case cases[] = {
      {"empty", "", false},
      {"bounds are not inside", others, false},
      {"a line among others", others + line(start, end) + line(start - 1, end + 1), true},
      {"no newline at the end", others + line(start, end, " "), true},
      {"blanks of other kinds", line(start, end, "\t\r\n"), true},
      {"a newline is no blank", line(start, end, "\n"), false},
      {"behind a line longer than a read",
       line(1, 2, " " + std::string(600, 'x') + "\n") + line(start, end), true},
  };
  for (const Case& map : cases) {
    SCOPED_TRACE(map.what);
    const FrameTaskStackInfo info = scan(map.map);
    EXPECT_EQ(info.start, map.found ? start : 0);
    EXPECT_EQ(info.size, map.found ? 0x2000U : 0);
  }
}

TEST(MemoryMap, AFailingSeekOrAMissingFileFindsNothing) {
  fault::arm(fault::Call::Lseek, EIO);
  const uint64_t key = pthread_self();
  EXPECT_EQ(scan(line(1, 2) + line(key - 1, key + 1)).start, 0U);
  redirectMemoryMap("/nonexistent");
  FrameTaskStackInfo info{0, 0};
  FrameTaskStackInfoGet(&info);
  EXPECT_EQ(info.size, 0U);
}

TEST(MapPath, NeedsItsRoom) {
  char path[32];
  const std::string expected = "/proc/" + std::to_string(getpid()) + "/maps";
  EXPECT_TRUE(FrameProcMapsFileGet(path, sizeof(path)));
  EXPECT_EQ(path, expected);
  for (uint32_t capacity = 1; capacity <= expected.size(); ++capacity) {
    EXPECT_FALSE(FrameProcMapsFileGet(path, capacity)) << capacity;
  }
}

}  // namespace
