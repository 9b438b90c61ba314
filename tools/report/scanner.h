// Takes a text apart from its start.
#pragma once

#include <charconv>
#include <string_view>

namespace qurn::report {

class Scanner {
 public:
  explicit Scanner(std::string_view text) : rest_(text) {}

  [[nodiscard]] std::string_view text() const { return rest_; }

  void skip(size_t length) { rest_.remove_prefix(length); }

  bool skip(std::string_view literal) {
    const bool found = rest_.starts_with(literal);
    rest_.remove_prefix(found ? literal.size() : 0);
    return found;
  }

  template <typename Number>
  bool number(Number& value, int base = 10) {
    const auto [end, mistake] =
        std::from_chars(rest_.data(), rest_.data() + rest_.size(), value, base);
    rest_.remove_prefix(static_cast<size_t>(end - rest_.data()));
    return mistake == std::errc();
  }

  // The text up to `literal`, which is skipped.
  bool textBefore(std::string_view literal, std::string_view& text) {
    text = rest_.substr(0, rest_.find(literal));
    rest_.remove_prefix(text.size());
    return skip(literal);
  }

  // The text up to the last `literal` that begins within so many bytes, where the text may hold it.
  bool textBeforeLast(std::string_view literal, std::string_view& text, size_t mostBytes) {
    const size_t at = rest_.rfind(literal, mostBytes);
    text = rest_.substr(0, at);
    rest_.remove_prefix(text.size());
    return skip(literal);
  }

 private:
  std::string_view rest_;
};

}  // namespace qurn::report
