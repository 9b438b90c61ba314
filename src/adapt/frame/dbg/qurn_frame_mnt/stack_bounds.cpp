// The bounds of the calling thread's stack, from the process memory map. Runs in signal context on
// a stuck thread: fixed buffers, no library call beyond open, read, lseek, close and bounded
// copies.
#include <fcntl.h>
#include <pthread.h>
#include <qurnadapt/capture.h>
#include <qurnadapt/platform.h>
#include <unistd.h>

#include "common/scoped_fd.h"
#include "internal/safe_strings.h"

namespace {

constexpr uint32_t kPathBytes = 128;
constexpr uint32_t kPidTextBytes = 65;
constexpr uint32_t kReadBufferBytes = 512;
constexpr uint32_t kHexDigits = 16;

using Recogniser = uint32_t (*)(const char* line, uint32_t position, uint32_t length);

struct GrammarStep {
  Recogniser recognise;
  bool endAddressFollows;
};

template <typename Belongs>
uint32_t skipRun(const char* line, uint32_t position, uint32_t length, Belongs belongs) noexcept {
  uint32_t end = position;
  while (end < length && belongs(line[end]) != 0) {
    ++end;
  }
  return end > position ? end : 0;
}

uint32_t parseMemAddr(const char* line, uint32_t position, uint32_t length) noexcept {
  return skipRun(line, position, length, [](char c) { return FrameIsHexNum(c); });
}

uint32_t parseHyphen(const char* line, uint32_t position, uint32_t length) noexcept {
  return position < length && line[position] == '-' ? position + 1 : 0;
}

uint32_t parseSpace(const char* line, uint32_t position, uint32_t length) noexcept {
  return skipRun(line, position, length, [](char c) { return FrameIsSpace(c); });
}

// START-END and a blank. Our own functions: the address of an exported one may be the program's,
// which may still have to be bound, and this runs in signal context.
constexpr GrammarStep kMapLineGrammar[] = {
    {parseMemAddr, false},
    {parseHyphen, true},
    {parseMemAddr, false},
    {parseSpace, false},
};

// How far the next line start lies behind the start of the text. Without a newline in it, the byte
// behind the text is given up too and the scan realigns at the next newline.
int32_t advanceToNextLine(const char* text, uint32_t length) noexcept {
  uint32_t i = 0;
  while (i < length && text[i] != '\n') {
    ++i;
  }
  return static_cast<int32_t>(i + 1);
}

// The threads library keeps a thread's control block, whose address is its identifier, inside the
// thread's stack mapping.
bool holdsKey(const char* line, uint32_t length, uint64_t key, FrameTaskStackInfo* info) noexcept {
  uint64_t start = 0;
  uint64_t end = 0;
  if (FrameGetMapStackAddr(line, length, &start, &end) == 0 || key <= start || key >= end) {
    return false;
  }
  info->start = start;
  info->size = end - start;
  return true;
}

}  // namespace

extern "C" {

void FrameTaskStackInfoGet(FrameTaskStackInfo* info) {
  const uint64_t key = pthread_self();
  char path[kPathBytes] = {};
  char text[kReadBufferBytes] = {};
  if (key == 0 || FrameProcMapsFileGet(path, sizeof(path)) == 0) {
    return;
  }
  const qurn::ScopedFd maps(open(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  if (!maps.valid()) {
    return;
  }
  int32_t offset = 0;
  ssize_t length = read(maps.get(), text, sizeof(text) - 1);
  while (length > 0 && !holdsKey(text, static_cast<uint32_t>(length), key, info)) {
    offset += advanceToNextLine(text, static_cast<uint32_t>(length));
    if (lseek(maps.get(), offset, SEEK_SET) < 0) {
      return;
    }
    length = read(maps.get(), text, sizeof(text) - 1);
  }
}

uint32_t FrameProcMapsFileGet(char* path, uint32_t capacity) {
  char pid[kPidTextBytes] = {};
  capacity = static_cast<uint32_t>(qurn::safeCapacity(capacity));
  KEM_Uint32ToStrEx(static_cast<uint32_t>(getpid()), pid, sizeof(pid), 10);
  return strcpy_s(path, capacity, "/proc/") == 0 && strcat_s(path, capacity, pid) == 0 &&
                 strcat_s(path, capacity, "/maps") == 0
             ? 1
             : 0;
}

uint32_t FrameGetMapStackAddr(const char* line, uint32_t length, uint64_t* start, uint64_t* end) {
  uint32_t startPos = 0;
  uint32_t endPos = 0;
  if (FrameReadMapFileStr(line, length, &startPos, &endPos) == 0) {
    return 0;
  }
  *start = FrameGetHexFromMapStr(line, startPos, length);
  *end = FrameGetHexFromMapStr(line, endPos, length);
  return 1;
}

uint32_t FrameReadMapFileStr(const char* line, uint32_t length, uint32_t* startPos,
                             uint32_t* endPos) {
  *startPos = 0;
  *endPos = 0;
  uint32_t position = 0;
  uint32_t endAddress = 0;
  for (const GrammarStep& step : kMapLineGrammar) {
    position = step.recognise(line, position, length);
    if (position == 0) {
      return 0;
    }
    if (step.endAddressFollows) {
      endAddress = position;
    }
  }
  *endPos = endAddress;
  return 1;
}

uint64_t FrameGetHexFromMapStr(const char* line, uint32_t position, uint32_t length) {
  char digits[kHexDigits + 1] = {};
  uint32_t count = 0;
  while (count < kHexDigits && position + count < length &&
         FrameIsHexNum(line[position + count]) != 0) {
    digits[count] = line[position + count];
    ++count;
  }
  return FrameAddrHexToInt(digits, count);
}

uint64_t FrameAddrHexToInt(const char* text, uint32_t count) {
  uint64_t value = 0;
  for (uint32_t i = 0; i < count; ++i) {
    const int32_t digit = FrameGetHexStrValue(text[i]);
    if (digit < 0) {
      return 0;
    }
    value = value * 16 + static_cast<uint64_t>(digit);
  }
  return value;
}

int32_t FrameGetHexStrValue(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  if (c >= 'a' && c <= 'f') {
    return c - 'a' + 10;
  }
  if (c >= 'A' && c <= 'F') {
    return c - 'A' + 10;
  }
  return -1;
}

uint32_t FrameIsHexNum(char c) { return FrameGetHexStrValue(c) >= 0 ? 1 : 0; }

uint32_t FrameIsSpace(char c) { return c == ' ' || c == '\t' || c == '\r' ? 1 : 0; }

uint32_t FrameParseMemAddr(const char* line, uint32_t position, uint32_t length) {
  return parseMemAddr(line, position, length);
}

uint32_t FrameParseHyphen(const char* line, uint32_t position, uint32_t length) {
  return parseHyphen(line, position, length);
}

uint32_t FrameParseSpace(const char* line, uint32_t position, uint32_t length) {
  return parseSpace(line, position, length);
}

}  // extern "C"
