// Lines of the memory map, and whole maps: no byte beyond the text is read, the scan ends, and what
// it finds is what stands there, as what the platform's own scan finds is.
#include <linux/fcntl.h>  // the flags only: open is declared below
#include <pthread.h>
#include <qurnadapt/capture.h>
#include <qurnadapt/platform.h>
#include <sys/syscall.h>

#include "fuzz_target.h"

namespace {

const char* g_map = nullptr;

constexpr char kHex[] = "0123456789abcdefABCDEF";

void tryLine(const std::vector<char>& line) {
  const std::string text(line.begin(), line.end());
  const size_t hyphen = text.find_first_not_of(kHex);
  const size_t blank = text.find_first_not_of(kHex, hyphen + 1);
  const bool good = hyphen > 0 && hyphen < text.size() && text[hyphen] == '-' &&
                    blank > hyphen + 1 && blank < text.size() &&
                    std::string(" \t\r").find(text[blank]) != std::string::npos;
  uint64_t start = 0;
  uint64_t end = 0;
  const auto length = static_cast<uint32_t>(line.size());
  assert(FrameGetMapStackAddr(line.data(), length, &start, &end) == good);
  const auto firstSixteen = [&](size_t from, size_t to) {
    return std::strtoull(text.substr(from, std::min<size_t>(to - from, 16)).c_str(), nullptr, 16);
  };
  assert(!good || (start == firstSixteen(0, hyphen) && end == firstSixteen(hyphen + 1, blank)));
}

}  // namespace

// The library's own map is the fuzzer's.
extern "C" int open(const char* path, int flags, mode_t mode) {
  const bool map = g_map != nullptr && std::strstr(path, "/maps") != nullptr;
  flags &= map ? ~O_NOFOLLOW : ~0;  // it is a link
  return static_cast<int>(syscall(SYS_openat, AT_FDCWD, map ? g_map : path, flags, mode));
}

// No thread is the process's first one then: both scans look for the same.
extern "C" pid_t getpid() noexcept {
  return g_map != nullptr ? 0 : static_cast<pid_t>(syscall(SYS_getpid));
}

void tryInput(Bytes bytes) {
  const std::vector<char> text = bytes.text();
  tryLine(text);
  const std::string path = fileWith(text);
  FrameTaskStackInfo info{0, 0};
  FrameTaskStackInfo told{0, 0};
  g_map = path.c_str();
  FrameTaskStackInfoGet(&info);
  KEM_TaskStackInfoGet(0, &told);
  g_map = nullptr;
  size_t lineStart = 0;
  size_t longest = 0;
  for (size_t i = 0; i <= text.size(); ++i) {
    if (i == text.size() || text[i] == '\n') {
      longest = std::max(longest, i - lineStart);
      lineStart = i + 1;
    }
  }
  assert(longest >= 511 || (told.start == info.start && told.size == info.size));
  const auto self = static_cast<uint64_t>(pthread_self());
  assert(info.size == 0 ? info.start == 0 : self - info.start < info.size);
}
