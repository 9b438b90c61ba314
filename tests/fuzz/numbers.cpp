// Numbers to text and durations to numbers, against the system library.
#include <qurnadapt/platform.h>
#include <qurnadapt/report.h>

#include <cinttypes>
#include <cstring>

#include "fuzz_target.h"

namespace {

struct Unit {
  const char* name;
  uint64_t milliseconds;
};
constexpr Unit kUnits[] = {{"", 1},       {"ms", 1},       {"s", 1000},
                           {"m", 60'000}, {"min", 60'000}, {"h", 3'600'000}};

// A duration is digits and a unit, and fits 32 bits.
bool expectedDuration(const std::string& text, uint64_t* milliseconds) {
  const size_t digits = std::strspn(text.c_str(), "0123456789");
  if (digits == 0) {
    return false;
  }
  const size_t zeros = std::strspn(text.c_str(), "0");
  for (const Unit& unit : kUnits) {
    if (text.substr(digits) == unit.name) {
      if (digits > zeros + 10) {
        return false;
      }
      *milliseconds = std::strtoull(text.c_str(), nullptr, 10) * unit.milliseconds;
      return *milliseconds <= UINT32_MAX;
    }
  }
  return false;
}

// Right-aligned, or not written at all.
void tryAligned(uint64_t value, uint32_t width, uint32_t radix) {
  std::vector<char> text(width, 'x');
  char expected[40];
  const int length =
      std::snprintf(expected, sizeof(expected), radix == 16 ? "%" PRIx64 : "%" PRIu64, value);
  FrameUintToStr(value, radix, text.data(), width, '.');
  if (static_cast<uint32_t>(length) >= width) {
    DEMAND(width == 0 || text[0] == 'x');
    return;
  }
  const std::string padded = std::string(width - 1 - static_cast<size_t>(length), '.') + expected;
  DEMAND(padded == text.data());
}

void tryNumber(uint32_t value, uint32_t capacity, uint32_t radix) {
  std::vector<char> text(capacity, 'x');
  char expected[40];
  const int length = std::snprintf(expected, sizeof(expected), radix == 16 ? "%x" : "%u", value);
  const uint32_t ret = KEM_Uint32ToStrEx(value, text.data(), capacity, radix);
  DEMAND((ret == QURN_OK) == (static_cast<uint32_t>(length) < capacity));
  DEMAND(ret != QURN_OK || std::strcmp(text.data(), expected) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Bytes bytes(data, size);
  const uint32_t value = bytes.number(4);
  const uint32_t radix = value % 2 == 0 ? 10 : 16;
  tryNumber(value, bytes.number(1) % 20, radix);
  tryAligned(uint64_t{bytes.number(4)} << (value % 33), bytes.number(1) % 30, radix);
  const std::string text = bytes.string();
  uint32_t milliseconds = 7;
  uint64_t expected = 0;
  const bool good = expectedDuration(text, &expected);
  DEMAND((TovStrToMilliSeconds(text.c_str(), &milliseconds) == QURN_OK) == good);
  DEMAND(milliseconds == (good ? expected : 7));
  return 0;
}
