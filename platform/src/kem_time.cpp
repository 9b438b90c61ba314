// Stands in for KEM time, CPU tick, 64-bit arithmetic and number conversion. Stateless; the number
// conversion is async-signal-safe.
#include <qurnadapt/platform.h>

#include <ctime>

namespace {

constexpr uint64_t kNanosecondsPerMillisecond = 1'000'000;
constexpr uint64_t kNanosecondsPerSecond = 1'000'000'000;

uint64_t join(uint32_t high, uint32_t low) { return (uint64_t{high} << 32U) | low; }

void split(uint64_t value, uint32_t* high, uint32_t* low) {
  *high = static_cast<uint32_t>(value >> 32U);
  *low = static_cast<uint32_t>(value);
}

}  // namespace

extern "C" {

uint32_t KEM_SystimeSec2Time(uint32_t seconds, ZotSystime* time) {
  const time_t stamp = seconds;
  tm parts{};
  if (time == nullptr || gmtime_r(&stamp, &parts) == nullptr) {
    return QURN_FAILED;
  }
  time->year = static_cast<uint16_t>(parts.tm_year + 1900);
  time->month = static_cast<uint8_t>(parts.tm_mon + 1);
  time->date = static_cast<uint8_t>(parts.tm_mday);
  time->hour = static_cast<uint8_t>(parts.tm_hour);
  time->minute = static_cast<uint8_t>(parts.tm_min);
  time->second = static_cast<uint8_t>(parts.tm_sec);
  return QURN_OK;
}

uint32_t KEM_SystimeWeekDayGet(ZotSystime* time) {
  if (time == nullptr) {
    return QURN_FAILED;
  }
  tm parts{};
  parts.tm_year = time->year - 1900;
  parts.tm_mon = time->month - 1;
  parts.tm_mday = time->date;
  timegm(&parts);
  time->week = static_cast<uint8_t>(parts.tm_wday);
  return QURN_OK;
}

uint32_t KEM_GetCpuTick(uint32_t* low, uint32_t* high) {
  timespec now{};
  if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) {
    return QURN_FAILED;
  }
  split(static_cast<uint64_t>(now.tv_sec) * kNanosecondsPerSecond +
            static_cast<uint64_t>(now.tv_nsec),
        high, low);
  return QURN_OK;
}

uint32_t KEM_CpuTick2Ms(const uint32_t tick[2], uint32_t* msHigh, uint32_t* msLow) {
  split(join(tick[1], tick[0]) / kNanosecondsPerMillisecond, msHigh, msLow);
  return QURN_OK;
}

uint32_t KEM_64Add64(uint32_t addHigh, uint32_t addLow, uint32_t* high, uint32_t* low) {
  uint64_t sum = 0;
  const bool overflow = __builtin_add_overflow(join(*high, *low), join(addHigh, addLow), &sum);
  split(sum, high, low);
  return overflow ? QURN_FAILED : QURN_OK;
}

uint32_t KEM_64Sub64(uint32_t subHigh, uint32_t subLow, uint32_t* high, uint32_t* low) {
  uint64_t difference = 0;
  const bool underflow =
      __builtin_sub_overflow(join(*high, *low), join(subHigh, subLow), &difference);
  split(difference, high, low);
  return underflow ? QURN_FAILED : QURN_OK;
}

uint32_t KEM_Uint32ToStrEx(uint32_t value, char* text, uint32_t capacity, uint32_t radix) {
  if (text == nullptr || radix < 2 || radix > 16) {
    return QURN_INVALID_ARGUMENT;
  }
  uint32_t digits = 1;
  for (uint32_t rest = value / radix; rest != 0; rest /= radix) {
    ++digits;
  }
  if (digits >= capacity) {
    return QURN_FAILED;
  }
  text[digits] = '\0';
  do {
    text[--digits] = "0123456789abcdef"[value % radix];
    value /= radix;
  } while (digits > 0);
  return QURN_OK;
}

}  // extern "C"
