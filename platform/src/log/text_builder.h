// Puts text together in memory that somebody else has, without an allocation: a caller may be on
// duty while another thread is stuck in the allocator. What does not fit is left out.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace tov::log {

class TextBuilder {
 public:
  TextBuilder(char* bytes, size_t room) noexcept : bytes_(bytes), room_(room) {}

  TextBuilder& add(std::string_view text) noexcept {
    const size_t fits = std::min(text.size(), room_ - length_);
    isCut_ = isCut_ || fits < text.size();
    memcpy(bytes_ + length_, text.data(), fits);
    length_ += fits;
    return *this;
  }
  TextBuilder& addNumber(uint64_t number) noexcept;
  // What would break a line, or do something to a terminal, is written as \n or \x1b.
  TextBuilder& addEscaped(std::string_view text) noexcept;
  // Room for an end that is known beforehand.
  void addRoom(size_t bytes) noexcept { room_ += bytes; }

  [[nodiscard]] std::string_view text() const noexcept { return {bytes_, length_}; }
  [[nodiscard]] size_t length() const noexcept { return length_; }
  [[nodiscard]] bool isCut() const noexcept { return isCut_; }

 private:
  char* bytes_;
  size_t room_;
  size_t length_ = 0;
  bool isCut_ = false;
};

}  // namespace tov::log
