// Stands in for the KEM stack bounds. It runs in a signal handler, on the interrupted thread, which
// may hold any lock of the process: it allocates nothing and locks nothing.
#include "stack_bounds.h"

#include <fcntl.h>
#include <linux/ioctl.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cstddef>

#include "common/scoped_fd.h"

namespace tov {
namespace {

// What Linux answers from 6.11 on (PROCMAP_QUERY): the mapping that holds an address, without a
// walk through the whole map. Newer than the C library's headers.
struct MappingQuery {
  uint64_t size = sizeof(MappingQuery);
  uint64_t flags = 0;  // the mapping must hold the address
  uint64_t address = 0;
  uint64_t start = 0;
  uint64_t end = 0;
  uint64_t details[4] = {};  // protection, page size, file offset and number
  uint32_t device[2] = {};
  uint32_t nameBytes = 0;  // of two texts that nobody asks for
  uint32_t buildIdBytes = 0;
  uint64_t name = 0;
  uint64_t buildId = 0;
};
static_assert(sizeof(MappingQuery) == 104);
constexpr unsigned long kQueryMapping = _IOWR('f', 17, MappingQuery);

bool askKernel(int maps, uint64_t address, FrameTaskStackInfo& info) noexcept {
  MappingQuery query;
  query.address = address;
  if (ioctl(maps, kQueryMapping, &query) != 0) {
    return false;
  }
  info = {query.start, query.end - query.start};
  return true;
}

int digitOf(char c) noexcept {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  const int letter = c | 0x20;
  return letter >= 'a' && letter <= 'f' ? letter - 'a' + 10 : -1;
}

// Takes the characters of a memory map as they come. Each line begins with a mapping's bounds,
// "START-END "; what stands behind does not matter.
class BoundsReader {
 public:
  // Whether a line's bounds are complete with this character.
  bool take(char c) noexcept {
    if (c == '\n') {
      *this = {};
      return false;
    }
    if (part_ == kRest) {
      return false;
    }
    if (const int digit = digitOf(c); digit >= 0) {
      addDigit(static_cast<uint64_t>(digit));
      return false;
    }
    const bool isBlank = c == ' ' || c == '\t' || c == '\r';
    const bool isWhole = digits_ > 0 && (part_ == kStart ? c == '-' : isBlank);
    const bool isComplete = isWhole && part_ == kEnd;
    part_ = isWhole && part_ == kStart ? kEnd : kRest;
    digits_ = 0;
    return isComplete;
  }
  [[nodiscard]] uint64_t start() const noexcept { return bounds_[kStart]; }
  [[nodiscard]] uint64_t end() const noexcept { return bounds_[kEnd]; }

 private:
  enum Part { kStart, kEnd, kRest };
  static constexpr int kMostDigits = 16;

  void addDigit(uint64_t digit) noexcept {
    if (digits_ < kMostDigits) {
      bounds_[part_] = bounds_[part_] * 16 + digit;
      ++digits_;
    }
  }

  std::array<uint64_t, 2> bounds_{};
  Part part_ = kStart;
  int digits_ = 0;
};

// Once from the start to the end: the kernel would look for its place anew after each step back.
bool scan(int maps, uint64_t address, FrameTaskStackInfo& info) noexcept {
  std::array<char, 1024> text;  // NOLINT(cppcoreguidelines-pro-type-member-init): filled by read
  BoundsReader reader;
  ssize_t length = 0;
  while ((length = read(maps, text.data(), text.size())) > 0) {
    for (ssize_t i = 0; i < length; ++i) {
      if (reader.take(text[static_cast<size_t>(i)]) && reader.start() < address &&
          address < reader.end()) {
        info = {reader.start(), reader.end() - reader.start()};
        return true;
      }
    }
  }
  return false;
}

}  // namespace

// The process's map is gone when its first thread has ended, this thread's is not; the first of
// them is the one that emulators know.
bool findMapping(uint64_t address, FrameTaskStackInfo& info) noexcept {
  for (const char* path : {"/proc/self/maps", "/proc/thread-self/maps"}) {
    const qurn::ScopedFd maps(open(path, O_RDONLY | O_CLOEXEC));
    if (maps.valid() && (askKernel(maps.get(), address, info) || scan(maps.get(), address, info))) {
      return true;
    }
  }
  return false;
}

}  // namespace tov

extern "C" {

// The threads library keeps a thread's control block, whose address is its identifier, inside the
// thread's stack mapping, wherever the thread runs at the moment. The first thread's is elsewhere.
uint32_t KEM_TaskStackInfoGet(uint32_t selector, FrameTaskStackInfo* info) {
  if (selector != 0 || info == nullptr) {
    return QURN_FAILED;
  }
  const bool isFirstThread = getpid() == syscall(SYS_gettid);
  const uint64_t key =
      isFirstThread ? reinterpret_cast<uint64_t>(__builtin_frame_address(0)) : pthread_self();
  return tov::findMapping(key, *info) ? QURN_OK : QURN_FAILED;
}

}  // extern "C"
