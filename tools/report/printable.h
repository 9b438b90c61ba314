#pragma once

#include <string>
#include <string_view>

namespace qurn::report {

// A log may hold what a terminal would obey: control characters, those behind ASCII too, and bytes
// that are no UTF-8 are written as \xNN.
std::string printable(std::string_view text);

}  // namespace qurn::report
