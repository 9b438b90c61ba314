#include "printable.h"

#include <array>
#include <cstdint>
#include <cstdio>

namespace qurn {
namespace {

struct Lead {
  unsigned char mask;
  unsigned char bits;
  size_t length;
  uint32_t least;  // what is less has a shorter form
};
constexpr std::array<Lead, 4> kLeads{
    {{0x80, 0x00, 1, 0}, {0xE0, 0xC0, 2, 0x80}, {0xF0, 0xE0, 3, 0x800}, {0xF8, 0xF0, 4, 0x10000}}};

bool isShown(uint32_t character) {
  const bool isControl = character < ' ' || (character >= 0x7F && character < 0xA0);
  const bool isTurn = (character >= 0x202A && character < 0x202F) ||  // of the direction
                      (character >= 0x2066 && character < 0x206A);
  const bool isHalf = character >= 0xD800 && character < 0xE000;
  const bool isNone = (character & 0xFFFE) == 0xFFFE;  // which no document may hold
  return !isControl && !isTurn && !isHalf && !isNone && character <= 0x10FFFF;
}

// The length of the character that the text begins with, 0 when it is not to be shown.
size_t shownLength(std::string_view text) {
  const auto first = static_cast<unsigned char>(text.front());
  for (const Lead& lead : kLeads) {
    if ((first & lead.mask) != lead.bits) {
      continue;
    }
    uint32_t character = first & static_cast<unsigned char>(~lead.mask);
    for (size_t i = 1; i < lead.length; ++i) {
      const unsigned char next = i < text.size() ? static_cast<unsigned char>(text[i]) : 0;
      if ((next & 0xC0U) != 0x80) {
        return 0;
      }
      character = character << 6 | (next & 0x3FU);
    }
    return character >= lead.least && isShown(character) ? lead.length : 0;
  }
  return 0;
}

}  // namespace

std::string printable(std::string_view text) {
  std::string shown;
  while (!text.empty()) {
    const size_t length = shownLength(text);
    if (length > 0) {
      shown += text.substr(0, length);
    } else {
      std::array<char, 8> escape{};
      std::snprintf(escape.data(), escape.size(), "\\x%02x",
                    static_cast<unsigned>(static_cast<unsigned char>(text.front())));
      shown += escape.data();
    }
    text.remove_prefix(length > 0 ? length : 1);
  }
  return shown;
}

}  // namespace qurn
