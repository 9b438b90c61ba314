#pragma once

#include <string>
#include <string_view>

namespace qurn {

// A log, or a thread's name, may hold what a terminal would obey: control characters, those behind
// ASCII too, those that turn the line around, and bytes that are no UTF-8 are written as \xNN.
std::string printable(std::string_view text);

}  // namespace qurn
