#include "log_time.h"

#include <algorithm>
#include <array>
#include <ctime>

#include "scanner.h"

namespace qurn::report {
namespace {

using std::chrono::microseconds;

// A number of so many digits at most, as text is written: with zeros or a blank in front.
bool field(Scanner& rest, int& value, std::string_view before = "") {
  if (!rest.skip(before)) {
    return false;
  }
  rest.skip(" ");
  unsigned number = 0;
  const bool found = rest.number(number) && number < 10000;
  value = static_cast<int>(number);
  return found;
}

bool takeIsoDate(Scanner& rest, tm& parts) {
  Scanner ahead = rest;
  if (!field(ahead, parts.tm_year) || !field(ahead, parts.tm_mon, "-") ||
      !field(ahead, parts.tm_mday, "-")) {
    return false;
  }
  parts.tm_year -= 1900;
  --parts.tm_mon;
  rest = ahead;
  return true;
}

bool takeMonthAndDay(Scanner& rest, tm& parts) {
  constexpr std::array<std::string_view, 12> kMonths{"Jan ", "Feb ", "Mar ", "Apr ",
                                                     "May ", "Jun ", "Jul ", "Aug ",
                                                     "Sep ", "Oct ", "Nov ", "Dec "};
  const auto* month = std::find_if(kMonths.begin(), kMonths.end(),
                                   [&](std::string_view name) { return rest.skip(name); });
  parts.tm_mon = static_cast<int>(month - kMonths.begin());
  return month != kMonths.end() && field(rest, parts.tm_mday);
}

bool takeTimeOfDay(Scanner& rest, tm& parts, microseconds& fraction) {
  if (!field(rest, parts.tm_hour) || !field(rest, parts.tm_min, ":")) {
    return false;
  }
  if (!rest.text().starts_with(':')) {
    return true;
  }
  if (!field(rest, parts.tm_sec, ":")) {
    return false;
  }
  if (rest.skip(".") || rest.skip(",")) {
    microseconds unit = std::chrono::seconds(1);
    while (!rest.text().empty() && rest.text().front() >= '0' && rest.text().front() <= '9') {
      unit /= 10;
      fraction += (rest.text().front() - '0') * unit;
      rest.skip(1);
    }
  }
  return true;
}

// "Z", "+01:00", "-0100", "+01", or nothing.
bool takeZone(Scanner& rest, std::chrono::minutes& east) {
  if (rest.text().empty()) {
    return true;
  }
  if (rest.skip("Z")) {
    return rest.text().empty();
  }
  const bool isWest = rest.skip("-");
  if (!isWest && !rest.skip("+")) {
    return false;
  }
  int hours = 0;
  int minutes = 0;
  const size_t length = rest.text().size();
  if (!field(rest, hours) || (rest.text().starts_with(':') && !field(rest, minutes, ":"))) {
    return false;
  }
  if (length == 4) {
    minutes = hours % 100;
    hours /= 100;
  }
  east = std::chrono::minutes((isWest ? -1 : 1) * (hours * 60 + minutes));
  return rest.text().empty();
}

bool isTimeOfDay(const tm& parts) {
  return parts.tm_hour < 25 && parts.tm_min < 60 && parts.tm_sec <= 60;
}

bool isDay(const tm& parts) {
  return (std::chrono::year(parts.tm_year + 1900) / (parts.tm_mon + 1) / parts.tm_mday).ok();
}

Time pointAt(tm parts, microseconds fraction, std::chrono::minutes east) {
  return Time(std::chrono::seconds(timegm(&parts))) + fraction - east;
}

}  // namespace

std::optional<Time> timeIn(std::string_view text, Time now) {
  Scanner rest(text);
  tm parts{};
  microseconds fraction{0};
  std::chrono::minutes east{0};
  const bool hasYear = takeIsoDate(rest, parts);
  if (!hasYear && !takeMonthAndDay(rest, parts)) {
    return std::nullopt;
  }
  if ((rest.skip("T") || rest.skip(" ")) &&
      (!takeTimeOfDay(rest, parts, fraction) || !takeZone(rest, east))) {
    return std::nullopt;
  }
  if (!rest.text().empty() || !isTimeOfDay(parts)) {
    return std::nullopt;
  }
  if (hasYear) {
    return isDay(parts) ? std::optional(pointAt(parts, fraction, east)) : std::nullopt;
  }
  const auto seconds = std::chrono::system_clock::to_time_t(now);
  tm today{};
  gmtime_r(&seconds, &today);
  constexpr int kMostBetweenLeapYears = 8;
  for (int ago = 0; ago <= kMostBetweenLeapYears; ++ago) {
    parts.tm_year = today.tm_year - ago;
    if (isDay(parts) && pointAt(parts, fraction, east) <= now + std::chrono::hours(24)) {
      return pointAt(parts, fraction, east);
    }
  }
  return std::nullopt;
}

std::optional<Time> timeOrAgeIn(std::string_view text, Time now) {
  Scanner rest(text);
  if (!rest.skip("-")) {
    return timeIn(text, now);
  }
  struct Unit {
    std::string_view name;
    std::chrono::seconds length;
  };
  constexpr std::array<Unit, 4> kUnits{{{"s", std::chrono::seconds(1)},
                                        {"m", std::chrono::minutes(1)},
                                        {"h", std::chrono::hours(1)},
                                        {"d", std::chrono::hours(24)}}};
  unsigned count = 0;
  const bool isNumber = rest.number(count);
  const auto* unit = std::find_if(kUnits.begin(), kUnits.end(),
                                  [&](const Unit& one) { return one.name == rest.text(); });
  // Before all times, which would overflow.
  constexpr std::chrono::seconds kLongest = std::chrono::hours(24) * 365 * 9999;
  return isNumber && unit != kUnits.end()
             ? std::optional(now - std::min(count * unit->length, kLongest))
             : std::nullopt;
}

Time currentTime() {
  return std::chrono::time_point_cast<microseconds>(std::chrono::system_clock::now());
}

}  // namespace qurn::report
