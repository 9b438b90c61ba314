// Failures of calls to the system and the platform, by their names, and a clock that stands still.
// The calls are this program's own definitions, which the library finds before the system's.
#pragma once

#include <cstdint>

namespace fault {

// The call fails with this error number, `times` times, once it has succeeded `after` times.
void arm(const char* call, int error, int after = 0, int times = 1);
// What runs when the next armed fault strikes, before the call fails.
void onStrike(void (*action)());
// What an interposed call asks: true when it is to fail, errno then set. The caller of the
// interposed call tells the library's calls from others.
bool strikes(const char* call, const void* caller = __builtin_return_address(0));

// How often it was made, by whomever.
int calls(const char* call);

// The call of this number that the library makes from now on, of whatever kind, counted from 1,
// fails with EIO; none for 0. Returns what failed so before, null when the library made fewer
// calls.
const char* sweep(int number);

// Before the library is loaded a test can only speak through the environment: "AFTER:CALL".
constexpr char kAtLoadVariable[] = "QURN_TEST_FAIL_AT_LOAD";

}  // namespace fault

namespace frozen_clock {

// CLOCK_MONOTONIC_COARSE stands at this time, far from its origin, until it is advanced; a
// nanosleep takes no other time than that, and is noted as an event.
void start();
void advance(int64_t milliseconds);
// The next nanosleep takes so much longer.
void oversleep(int64_t milliseconds, int times);

}  // namespace frozen_clock

// Whether it lies in the library.
bool isLibraryCode(const void* address);
// Whether it lies in the exported function of this name.
bool isCodeOf(const void* address, const char* function);

// How often the library slept; a sleep takes no time, and the given one runs `action`.
int sleeps();
void onSleep(int number, void (*action)());

// A file whose path ends so is opened as this one instead; a null path undoes it.
void redirectFile(const char* ending, const char* path);

// backtrace_symbols answers this line for a single address; null undoes it.
void symbolsReadAs(const char* line);
