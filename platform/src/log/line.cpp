#include "line.h"

#include <chrono>

#include "text_builder.h"

namespace tov::log {
namespace {

constexpr std::string_view kCutMark = " ... (cut)";
constexpr std::array<std::string_view, 3> kLevelNames{"info", "warning", "error"};

std::string_view baseName(std::string_view path) noexcept {
  return path.substr(path.rfind('/') + 1);
}

template <size_t width>
void putDigits(char* at, uint64_t number) noexcept {
  for (size_t i = width; i > 0; number /= 10) {
    at[--i] = static_cast<char>('0' + number % 10);
  }
}

// The C library's calls for that share a lock with every other user of its time zones.
std::array<char, 25> stampOf(const timespec& at) noexcept {
  std::array<char, 25> stamp{"0000-00-00T00:00:00.000Z"};
  const std::chrono::sys_seconds now{std::chrono::seconds{at.tv_sec}};
  const auto today = std::chrono::floor<std::chrono::days>(now);
  const std::chrono::year_month_day date{today};
  const std::chrono::hh_mm_ss time{now - today};
  putDigits<4>(stamp.data(), static_cast<uint64_t>(static_cast<int>(date.year())));
  putDigits<2>(&stamp[5], static_cast<unsigned>(date.month()));
  putDigits<2>(&stamp[8], static_cast<unsigned>(date.day()));
  putDigits<2>(&stamp[11], static_cast<uint64_t>(time.hours().count()));
  putDigits<2>(&stamp[14], static_cast<uint64_t>(time.minutes().count()));
  putDigits<2>(&stamp[17], static_cast<uint64_t>(time.seconds().count()));
  putDigits<3>(&stamp[20], static_cast<uint64_t>(at.tv_nsec / 1'000'000));
  stamp.back() = ' ';
  return stamp;
}

}  // namespace

Line::Line(const Record& record) noexcept {  // NOLINT(*-pro-type-member-init)
  constexpr size_t kEnd = kCutMark.size() + 1;
  TextBuilder text(bytes_.data(), bytes_.size() - kEnd);
  const auto stamp = stampOf(record.at);
  text.add({stamp.data(), stamp.size()});
  timeEnd_ = text.length();
  text.add(kLevelNames[static_cast<size_t>(record.level)]).add(" [");
  text.addEscaped(record.thread).add(":").addNumber(static_cast<uint64_t>(record.tid)).add("] ");
  text.addNumber(record.moduleId).add(" ").addEscaped(baseName(record.path));
  text.add(":").addNumber(record.line).add(" ");
  headEnd_ = text.length();
  text.addEscaped(record.text);
  const bool isCut = record.isCut || text.isCut();
  text.addRoom(kEnd);
  text.add(isCut ? kCutMark : "").add("\n");
  whole_ = text.text();
}

}  // namespace tov::log
