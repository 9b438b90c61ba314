#include "text_builder.h"

#include <algorithm>
#include <array>
#include <charconv>

namespace tov::log {
namespace {

// The C1 controls take two bytes in UTF-8, the first of which is always this.
constexpr unsigned char kC1Start = 0xC2;

// Bytes that are a control, or may begin one.
constexpr std::array<bool, 256> kMayBeControl = [] {
  std::array<bool, 256> may{};
  std::fill(may.begin(), may.begin() + 0x20, true);
  may[0x7F] = may[kC1Start] = true;
  return may;
}();

bool mayBeControl(char c) noexcept { return kMayBeControl[static_cast<unsigned char>(c)]; }

// How many bytes of a control are there.
size_t controlAt(std::string_view text, size_t at) noexcept {
  if (static_cast<unsigned char>(text[at]) != kC1Start) {
    return 1;
  }
  const bool isC1 =
      at + 1 < text.size() && (static_cast<unsigned char>(text[at + 1]) & 0xE0U) == 0x80;
  return isC1 ? 2 : 0;
}

}  // namespace

TextBuilder& TextBuilder::addNumber(uint64_t number) noexcept {
  std::array<char, 20> digits{};
  auto* const end = std::to_chars(digits.begin(), digits.end(), number).ptr;
  return add({digits.data(), static_cast<size_t>(end - digits.data())});
}

TextBuilder& TextBuilder::addEscaped(std::string_view text) noexcept {
  constexpr std::string_view kHex = "0123456789abcdef";
  while (!text.empty()) {
    const auto* const found = std::find_if(text.begin(), text.end(), mayBeControl);
    const auto at = static_cast<size_t>(found - text.begin());
    const size_t bytes = at == text.size() ? 0 : controlAt(text, at);
    if (bytes == 0) {
      const size_t plain = std::min(at + 1, text.size());
      add(text.substr(0, plain));
      text.remove_prefix(plain);
      continue;
    }
    add(text.substr(0, at));
    const auto byte = static_cast<unsigned char>(text[at + bytes - 1]);
    const std::array<char, 4> hex{'\\', 'x', kHex[byte >> 4U], kHex[byte & 15U]};
    const std::string_view escaped =
        byte == '\n' ? "\\n" : std::string_view(hex.data(), hex.size());
    if (escaped.size() > room_ - length_) {
      isCut_ = true;
      break;
    }
    add(escaped);
    text.remove_prefix(at + bytes);
  }
  return *this;
}

}  // namespace tov::log
