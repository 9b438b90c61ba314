// Lines of the memory map, and whole maps: no byte beyond the text is read, the scan ends, and what
// it finds is what stands there.
#include <fcntl.h>
#include <pthread.h>
#include <qurnadapt/capture.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>
#include <cstring>

#include "fuzz_target.h"

namespace {

const char* g_map = nullptr;

bool isHex(char c) { return std::strchr("0123456789abcdefABCDEF", c) != nullptr && c != '\0'; }

// The value of the digits at a position, the first sixteen of them.
uint64_t valueAt(const std::vector<char>& line, size_t at) {
  std::string digits;
  while (at < line.size() && isHex(line[at]) && digits.size() < 16) {
    digits += line[at++];
  }
  return std::strtoull(digits.c_str(), nullptr, 16);
}

void tryLine(const std::vector<char>& line) {
  size_t hyphen = 0;
  while (hyphen < line.size() && isHex(line[hyphen])) {
    ++hyphen;
  }
  size_t blank = hyphen + 1;
  while (blank < line.size() && isHex(line[blank])) {
    ++blank;
  }
  const bool good = hyphen > 0 && hyphen < line.size() && line[hyphen] == '-' &&
                    blank > hyphen + 1 && blank < line.size() &&
                    (line[blank] == ' ' || line[blank] == '\t' || line[blank] == '\r');
  uint64_t start = 0;
  uint64_t end = 0;
  const auto length = static_cast<uint32_t>(line.size());
  DEMAND(FrameGetMapStackAddr(line.data(), length, &start, &end) == good);
  DEMAND(!good || (start == valueAt(line, 0) && end == valueAt(line, hyphen + 1)));
}

}  // namespace

// The library's own map is the fuzzer's.
extern "C" int open(const char* path, int flags, ...) {
  va_list args;
  va_start(args, flags);
  const mode_t mode = va_arg(args, mode_t);
  va_end(args);
  const bool map = g_map != nullptr && std::strstr(path, "/maps") != nullptr;
  return static_cast<int>(
      syscall(SYS_openat, AT_FDCWD, map ? g_map : path, map ? O_RDONLY : flags, mode));
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::vector<char> text = Bytes(data, size).text();
  tryLine(text);
  const std::string path = fileWith(text);
  FrameTaskStackInfo info{0, 0};
  g_map = path.c_str();
  FrameTaskStackInfoGet(&info);
  g_map = nullptr;
  const auto self = static_cast<uint64_t>(pthread_self());
  DEMAND(info.size == 0 ? info.start == 0 : self - info.start < info.size);
  return 0;
}
