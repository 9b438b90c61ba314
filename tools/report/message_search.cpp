#include "message_search.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include "storyteller.h"

namespace qurn::report {
namespace {

// Bytes that are compared at once, as every 64-bit processor can.
using Bytes [[gnu::vector_size(16)]] = unsigned char;

// What must follow the text for it to be a sign, besides.
bool anything(std::string_view /*rest*/) { return true; }
// A frame's number and one word; others number things too, and go on.
bool frame(std::string_view rest) {
  const size_t number = rest.find_first_not_of("0123456789");
  if (number == 0 || number == std::string_view::npos || rest[number] != ' ') {
    return false;
  }
  rest.remove_prefix(number + 1);
  const std::string_view word = rest.substr(0, rest.find_first_of(" \r\n"));
  rest.remove_prefix(word.size());
  const bool isQuoted = word.find('"') != std::string_view::npos;
  return isQuoted || !rest.starts_with(' ') || rest.starts_with(kCutMark);
}
// The messages of other records stand there as they are, this one's only as numbers.
bool jsonArray(std::string_view rest) {
  rest.remove_prefix(std::min(rest.find_first_not_of(": "), rest.size()));
  return rest.starts_with('[');
}

// Two bytes of each text are looked for that are seldom so far apart in others.
struct Sign {
  std::string_view text;
  size_t one;
  size_t other;
  bool (*follows)(std::string_view);
};
constexpr std::array<Sign, 7> kSigns{{
    {"deadloop detect", 4, 7, anything},  // thresholds, hooks, and none of them
    {"aptured ", 1, 3, anything},         // a signal, and then a process
    {" send to thread ", 1, 10, anything},
    {"ZOT_Exit with code ", 0, 3, anything},
    {"#", 0, 0, frame},
    {"\"MESSAGE\"", 0, 1, jsonArray},
    {"__CURSOR=", 1, 2, anything},
}};
constexpr size_t kLongest =
    std::max_element(kSigns.begin(), kSigns.end(), [](const Sign& one, const Sign& other) {
      return one.text.size() < other.text.size();
    })->text.size();

bool isSign(std::string_view text) {
  return std::any_of(kSigns.begin(), kSigns.end(), [text](const Sign& sign) {
    return text.front() == sign.text.front() && text.starts_with(sign.text) &&
           sign.follows(text.substr(sign.text.size()));
  });
}

Bytes bytesAt(const char* place) {
  Bytes bytes;
  std::memcpy(&bytes, place, sizeof(bytes));
  return bytes;
}

template <size_t i>
Bytes mayBegin(const char* place) {
  constexpr Sign kSign = kSigns[i];
  return (bytesAt(place + kSign.one) == static_cast<unsigned char>(kSign.text[kSign.one])) &
         (bytesAt(place + kSign.other) == static_cast<unsigned char>(kSign.text[kSign.other]));
}

template <size_t... i>
Bytes mayBeginAny(const char* place, std::index_sequence<i...> /*signs*/) {
  return (mayBegin<i>(place) | ...);
}

bool isNone(const Bytes& found) {
  std::array<uint64_t, sizeof(Bytes) / sizeof(uint64_t)> parts{};
  std::memcpy(parts.data(), &found, sizeof(found));
  return std::all_of(parts.begin(), parts.end(), [](uint64_t part) { return part == 0; });
}

}  // namespace

size_t findSign(std::string_view text, size_t from) {
  size_t at = from;
  for (; at + sizeof(Bytes) + kLongest <= text.size(); at += sizeof(Bytes)) {
    const Bytes found = mayBeginAny(text.data() + at, std::make_index_sequence<kSigns.size()>());
    if (isNone(found)) {
      continue;
    }
    for (size_t i = 0; i < sizeof(Bytes); ++i) {
      if (found[i] != 0 && isSign(text.substr(at + i))) {
        return at + i;
      }
    }
  }
  while (at < text.size() && !isSign(text.substr(at))) {
    ++at;
  }
  return at;
}

}  // namespace qurn::report
