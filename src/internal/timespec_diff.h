// The difference of two time stamps, inlined where it is measured on a hot path.
#pragma once

#include <algorithm>
#include <cstdint>
#include <ctime>

namespace qurn {

inline constexpr uint64_t kNanosecondsPerSecond = 1'000'000'000;
inline constexpr uint64_t kNanosecondsPerMillisecond = 1'000'000;
inline constexpr int64_t kLongestDiffMs = 0x7FFFFFFF;
inline constexpr int64_t kMostNegativeDiffMs = -0x7FFFFFFFFFFFFFFF;

// Of any two time stamps, however far apart and in whatever order. By value: the caller's need no
// address then.
[[gnu::cold, gnu::noinline]] inline int64_t wideDiffMs(timespec start, timespec end) noexcept {
  __extension__ typedef __int128 Wide;
  constexpr int64_t kMillisecond = kNanosecondsPerMillisecond;
  // Whole milliseconds and a rest of nanoseconds, as a division of the whole is a call of another
  // library.
  Wide milliseconds = (Wide{end.tv_sec} - start.tv_sec) * 1000 +
                      (Wide{end.tv_nsec / kMillisecond} - start.tv_nsec / kMillisecond);
  int64_t rest = end.tv_nsec % kMillisecond - start.tv_nsec % kMillisecond;
  milliseconds += rest / kMillisecond;
  rest %= kMillisecond;
  if (milliseconds > 0 && rest < 0) {
    --milliseconds;
  } else if (milliseconds < 0 && rest > 0) {
    ++milliseconds;
  }
  return static_cast<int64_t>(std::clamp<Wide>(milliseconds, kMostNegativeDiffMs, kLongestDiffMs));
}

// What FRAME_GetTimespecDiff returns. The usual case, later by less than the longest difference
// that is told, fits 64 bits and has no sign.
[[gnu::always_inline]] inline int64_t diffMs(const timespec& start, const timespec& end) noexcept {
  constexpr uint64_t kLongestNs = uint64_t{kLongestDiffMs} * kNanosecondsPerMillisecond;
  int64_t seconds = 0;
  int64_t part = 0;
  if (__builtin_sub_overflow(end.tv_sec, start.tv_sec, &seconds) ||
      __builtin_sub_overflow(end.tv_nsec, start.tv_nsec, &part) ||
      static_cast<uint64_t>(seconds) > kLongestNs / kNanosecondsPerSecond) [[unlikely]] {
    return wideDiffMs(start, end);
  }
  const uint64_t nanoseconds =
      static_cast<uint64_t>(seconds) * kNanosecondsPerSecond + static_cast<uint64_t>(part);
  if (nanoseconds > kLongestNs) [[unlikely]] {
    return wideDiffMs(start, end);
  }
  return static_cast<int64_t>(nanoseconds / kNanosecondsPerMillisecond);
}

}  // namespace qurn
