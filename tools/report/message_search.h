// Most lines of a log are nobody's that this program knows of: finds those that may be, many bytes
// at a time.
#pragma once

#include <string_view>

namespace qurn::report {

// The first place from `from` on where a text stands that some message, or some beginning of a
// journal's record, must hold; the end when there is none.
size_t findSign(std::string_view text, size_t from);

}  // namespace qurn::report
