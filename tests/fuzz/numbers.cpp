// Numbers to text and durations to numbers, against the system library.
#include <qurnadapt/platform.h>
#include <qurnadapt/report.h>

#include <cmath>
#include <map>

#include "fuzz_target.h"

namespace {

// A duration is digits and a unit, and fits 32 bits; or else it is infinite.
double durationOf(const std::string& text) {
  static const std::map<std::string, double> kUnits{
      {"", 1}, {"ms", 1}, {"s", 1000}, {"m", 60'000}, {"min", 60'000}, {"h", 3'600'000}};
  const size_t digits = std::strspn(text.c_str(), "0123456789");
  const auto unit = kUnits.find(text.substr(digits));
  if (digits == 0 || unit == kUnits.end()) {
    return HUGE_VAL;
  }
  return std::strtod(text.substr(0, digits).c_str(), nullptr) * unit->second;
}

std::string written(uint64_t value, uint32_t radix) {
  char text[40];
  std::snprintf(text, sizeof(text), radix == 16 ? "%lx" : "%lu", value);
  return text;
}

// Right-aligned, or not written at all.
void tryAligned(uint64_t value, uint32_t width, uint32_t radix) {
  std::vector<char> text(width, 'x');
  const std::string digits = written(value, radix);
  FrameUintToStr(value, radix, text.data(), width, '.');
  assert(digits.size() >= width
             ? width == 0 || text[0] == 'x'
             : std::string(width - 1 - digits.size(), '.') + digits == text.data());
}

void tryNumber(uint32_t value, uint32_t capacity, uint32_t radix) {
  std::vector<char> text(capacity, 'x');
  const std::string digits = written(value, radix);
  const uint32_t ret = KEM_Uint32ToStrEx(value, text.data(), capacity, radix);
  assert((ret == QURN_OK) == (digits.size() < capacity));
  assert(ret != QURN_OK || digits == text.data());
}

}  // namespace

void tryInput(Bytes bytes) {
  const uint32_t value = bytes.number(4);
  const uint32_t radix = value % 2 == 0 ? 10 : 16;
  tryNumber(value, bytes.number(1) % 20, radix);
  tryAligned(uint64_t{bytes.number(4)} << (value % 33), bytes.number(1) % 30, radix);
  const std::string text = bytes.string();
  uint32_t milliseconds = 7;
  const double expected = durationOf(text);
  const bool good = expected <= UINT32_MAX;
  assert((TovStrToMilliSeconds(text.c_str(), &milliseconds) == QURN_OK) == good);
  assert(milliseconds == (good ? expected : 7));
}
