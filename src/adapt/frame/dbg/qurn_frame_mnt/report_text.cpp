// Text of the report: symbol names, numbers, registers and the time stamp. Stateless.
#include <qurnadapt/platform.h>
#include <qurnadapt/report.h>

#include <array>
#include <cstring>
#include <ctime>

#include "internal/safe_strings.h"
#include "symbol_line.h"

namespace {

constexpr uint32_t kUtcOffsetSeconds = 28800;  // eight hours east, whatever the zone settings say
constexpr uint32_t kRegisterNameWidth = 7;
constexpr uint32_t kBinaryDigits = 64;

bool startsName(char c) noexcept {
  return c == '_' || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

// Copies up to `closing` or the end of the text, and at most what a destination holds.
void copyUntil(char* dest, const char* text, char closing) noexcept {
  uint32_t i = 0;
  while (i < FRAME_SYMBOL_NAME_LEN - 1 && text[i] != '\0' && text[i] != closing) {
    dest[i] = text[i];
    ++i;
  }
  dest[i] = '\0';
}

void appendTwoDigits(char* dest, uint32_t capacity, const char* separator,
                     uint32_t value) noexcept {
  char text[3] = {};
  FrameUintToStr(value, 10, text, sizeof(text), '0');
  strcat_s(dest, capacity, separator);
  strcat_s(dest, capacity, text);
}

}  // namespace

void FrameGetFuncFromSymbolStr(char* dest, const char* line) noexcept {
  const char* open = strchr(line, '(');
  if (open != nullptr && startsName(open[1])) {
    copyUntil(dest, open + 1, ')');
  } else {
    FrameGetAddrFromSymbolStr(dest, line, static_cast<uint32_t>(strlen(line)));
  }
}

void FrameGetAddrFromSymbolStr(char* dest, const char* line, uint32_t length) noexcept {
  const auto* open = static_cast<const char*>(memchr(line, '[', length));
  copyUntil(dest, open == nullptr ? "" : open + 1, ']');
}

extern "C" {

void FrameRegStrGet(char* dest, uint32_t capacity, const char* name, uint64_t value) {
  char digits[17] = {};
  FrameUintToStr(value, 16, digits, sizeof(digits), '0');
  // The bounds-checked functions would refuse this much room; the text's end has enough.
  char* end = dest;
  size_t room = capacity;
  if (dest != nullptr && capacity > RSIZE_MAX_STR) {
    end += strnlen(dest, capacity);
    room = qurn::safeCapacity(capacity - static_cast<size_t>(end - dest));
  }
  strcat_s(end, room, "\nReg:  ");
  strcat_s(end, room, name);
  for (size_t width = strlen(name); width < kRegisterNameWidth; ++width) {
    strcat_s(end, room, " ");
  }
  strcat_s(end, room, "0x");
  strcat_s(end, room, digits);
}

void FrameExcepTimeStrGet(char* dest, uint32_t capacity) {
  ZotSystime now{};
  KEM_SystimeSec2Time(static_cast<uint32_t>(time(nullptr)) + kUtcOffsetSeconds, &now);
  FrameTimeToStr(&now, dest, capacity);
}

void FrameTimeToStr(const ZotSystime* time, char* dest, uint32_t capacity) {
  char year[5] = {};
  capacity = static_cast<uint32_t>(qurn::safeCapacity(capacity));
  FrameUintToStr(time->year, 10, year, sizeof(year), ' ');
  strcpy_s(dest, capacity, year);
  appendTwoDigits(dest, capacity, "-", time->month);
  appendTwoDigits(dest, capacity, "-", time->date);
  appendTwoDigits(dest, capacity, " ", time->hour);
  appendTwoDigits(dest, capacity, ":", time->minute);
  appendTwoDigits(dest, capacity, ":", time->second);
  strcat_s(dest, capacity, ".");
}

void FrameUintToStr(uint64_t value, uint32_t radix, char* dest, uint32_t width, char fill) {
  if (radix < 2 || radix > 16) {
    return;
  }
  std::array<char, kBinaryDigits> reversed{};
  uint32_t count = 0;
  do {
    reversed[count++] = "0123456789abcdef"[value % radix];
    value /= radix;
  } while (value != 0);
  if (count >= width) {
    return;
  }
  const uint32_t padding = width - 1 - count;
  memset(dest, fill, padding);
  for (uint32_t i = 0; i < count; ++i) {
    dest[padding + i] = reversed[count - 1 - i];
  }
  dest[width - 1] = '\0';
}

}  // extern "C"
