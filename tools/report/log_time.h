// Points in time as logs and people write them.
#pragma once

#include <chrono>
#include <optional>
#include <string_view>

namespace qurn::report {

using Time = std::chrono::sys_time<std::chrono::microseconds>;

// "2026-11-26T06:59:26.5+01:00" and the like, down to the date alone, or "Nov 26 06:59:26" of a
// year that is told by today's. Without a zone it is UTC, which the library's own lines are in.
std::optional<Time> timeIn(std::string_view text, Time now);

// The same, or how long ago: "-90s", "-15m", "-2h", "-7d".
std::optional<Time> timeOrAgeIn(std::string_view text, Time now);

Time currentTime();

}  // namespace qurn::report
