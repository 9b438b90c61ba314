// Legacy system time on the standard clock. Stateless and reentrant.
#include <qurnadapt/legacy_time.h>
#include <sys/time.h>

namespace {

constexpr int kConsistencyAttempts = 100;

// Reads the clock until two readings in a row agree on the second, and takes the first of them.
bool readClock(timeval* reading) noexcept {
  for (int attempt = 0; attempt < kConsistencyAttempts; ++attempt) {
    timeval second{};
    if (gettimeofday(reading, nullptr) != 0 || gettimeofday(&second, nullptr) != 0) {
      return false;
    }
    if (reading->tv_sec == second.tv_sec) {
      break;
    }
  }
  return true;
}

}  // namespace

extern "C" {

uint32_t ZOT_GetSystemTime(uint32_t* seconds, uint32_t* microseconds) {
  timeval reading{};
  if (seconds == nullptr || microseconds == nullptr || !readClock(&reading)) {
    return QURN_FAILED;
  }
  *seconds = static_cast<uint32_t>(reading.tv_sec);
  *microseconds = static_cast<uint32_t>(reading.tv_usec);
  return QURN_OK;
}

}  // extern "C"
