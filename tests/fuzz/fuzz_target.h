// What fuzz targets share: the entry that the fuzzer calls, a reader of its bytes, and assertions
// that stop it. For the one source of a program.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#undef NDEBUG  // whose demands stop the fuzzer
#include <algorithm>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

class Bytes {
 public:
  Bytes(const uint8_t* data, size_t size) : data_(data), rest_(size) {}

  [[nodiscard]] bool empty() const { return rest_ == 0; }
  // Little-endian; zeros behind the end.
  uint32_t number(size_t width) {
    uint32_t value = 0;
    for (size_t i = 0; i < width && rest_ > 0; ++i, ++data_, --rest_) {
      value |= uint32_t{*data_} << (8 * i);
    }
    return value;
  }
  // All that is left, in memory that ends with it.
  std::vector<char> text() { return {data_, data_ + std::exchange(rest_, 0)}; }
  // All that is left up to a NUL.
  std::string string() {
    const std::vector<char> all = text();
    return std::string(all.begin(), std::find(all.begin(), all.end(), '\0'));
  }

 private:
  const uint8_t* data_;
  size_t rest_;
};

// What a target does with an input.
void tryInput(Bytes bytes);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  tryInput(Bytes(data, size));
  return 0;
}

// A readable file with this content, as a path; one at a time.
inline std::string fileWith(const std::vector<char>& content) {
  static const int fd = memfd_create("fuzz", 0);
  assert(ftruncate(fd, 0) == 0);
  assert(pwrite(fd, content.data(), content.size(), 0) == static_cast<ssize_t>(content.size()));
  return "/proc/self/fd/" + std::to_string(fd);
}
