#include "journal_record.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>
#include <utility>

#include "scanner.h"

namespace qurn::report {
namespace {

constexpr std::array<std::string_view, 6> kWriterFields{
    "_BOOT_ID", "_HOSTNAME", "CONTAINER_NAME", "SYSLOG_IDENTIFIER", "_PID", "TID"};

// The journal's fields, and those of Docker's own file.
constexpr std::array<std::pair<std::string_view, std::string JournalRecord::*>, 6> kTold{
    {{"MESSAGE", &JournalRecord::message},
     {"log", &JournalRecord::message},
     {"time", &JournalRecord::at},
     {"QURN_SILENCE_MS", &JournalRecord::silenceMs},
     {"QURN_FRAME_NUMBER", &JournalRecord::frameNumber},
     {"QURN_FRAME", &JournalRecord::frame}}};

std::string timeOf(std::string_view microseconds) {
  uint64_t number = 0;
  if (!Scanner(microseconds).number(number)) {
    return {};
  }
  const auto seconds = static_cast<time_t>(number / 1'000'000);
  tm parts{};
  std::array<char, 48> text{};
  if (gmtime_r(&seconds, &parts) == nullptr) {
    return {};
  }
  const size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &parts);
  std::snprintf(&text.at(length), text.size() - length, ".%06uZ",
                static_cast<unsigned>(number % 1'000'000));
  return text.data();
}

// What is no UTF-8 stands as an array of bytes, a field that was given twice as one of texts.
std::string textOf(const nlohmann::json& value) {
  if (value.is_string()) {
    return value.get<std::string>();
  }
  std::string text;
  if (value.is_array()) {
    for (const nlohmann::json& part : value) {
      if (part.is_string()) {
        return part.get<std::string>();
      }
      text.push_back(part.is_number_unsigned() ? static_cast<char>(part.get<unsigned>()) : '?');
    }
  }
  return text;
}

}  // namespace

void JournalRecord::take(std::string_view field, std::string_view value) {
  if (field == "__REALTIME_TIMESTAMP") {
    at = timeOf(value);
  } else if (const auto* told =
                 std::find_if(kTold.begin(), kTold.end(),
                              [field](const auto& known) { return known.first == field; });
             told != kTold.end()) {
    this->*told->second = value;
  } else if (std::find(kWriterFields.begin(), kWriterFields.end(), field) != kWriterFields.end()) {
    // Records list their fields in any order.
    const std::string part = std::string(field) + "=" + std::string(value) + "\n";
    size_t place = 0;
    while (place < writer.size() && writer.compare(place, part.size(), part) < 0) {
      place = writer.find('\n', place) + 1;
    }
    writer.insert(place, part);
  }
}

std::string wholeMessage(const JournalRecord& record) {
  constexpr std::string_view kBeforeSilence = " threshold timeout.(";
  const std::string& message = record.message;
  const std::string frame = "#" + record.frameNumber + " " + record.frame;
  if (!record.frame.empty() && message.find(frame) == std::string::npos) {
    return frame + ".";
  }
  const size_t before = message.find(kBeforeSilence);
  const std::string silence = "elapsed time = " + record.silenceMs + ",";
  if (!record.silenceMs.empty() && before != std::string::npos &&
      message.find(silence) == std::string::npos) {
    return message.substr(0, before + kBeforeSilence.size()) + silence;
  }
  return message;
}

bool beginsExportedRecord(std::string_view line) { return line.starts_with("__CURSOR="); }

bool readJsonRecord(std::string_view line, JournalRecord& record) {
  if (!line.starts_with("{\"log\":") &&
      (!line.starts_with('{') || line.find("\"MESSAGE\"") == std::string_view::npos)) {
    return false;
  }
  const auto fields = nlohmann::json::parse(line, nullptr, false);
  if (!fields.is_object()) {
    return false;
  }
  for (const auto& [field, value] : fields.items()) {
    record.take(field, textOf(value));
  }
  return true;
}

}  // namespace qurn::report
