#include "settings.h"

#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <string_view>
#include <system_error>

namespace tov::log {
namespace {

constexpr const char* kLevel = "TOV_LOG_LEVEL";
constexpr const char* kTarget = "TOV_LOG_TARGET";
constexpr const char* kFileBytes = "TOV_LOG_FILE_BYTES";
constexpr const char* kFiles = "TOV_LOG_FILES";
constexpr std::array<std::string_view, 4> kVariables{kLevel, kTarget, kFileBytes, kFiles};
constexpr std::string_view kPrefix = "TOV_LOG_";

constexpr size_t kDefaultFileBytes = size_t{10} << 20U;
constexpr size_t kDefaultRotated = 5;
constexpr size_t kMostRotated = 99;  // each rotation renames them all

// An empty value is none.
const char* valueOf(const char* variable) {
  const char* value = getenv(variable);
  return value == nullptr || *value == '\0' ? nullptr : value;
}

void tellUnknown(const char* variable, const char* value, const char* instead) {
  std::fprintf(stderr, "%s: unknown value \"%s\", taken as %s\n", variable, value, instead);
}

void readLevel(Settings& settings) {
  struct Name {
    const char* name;
    bool isOff;
    Level least;
  };
  constexpr std::array<Name, 6> kNames{{{"info", false, Level::kInfo},
                                        {"warning", false, Level::kWarning},
                                        {"warn", false, Level::kWarning},
                                        {"error", false, Level::kError},
                                        {"err", false, Level::kError},
                                        {"off", true, Level::kError}}};
  const char* value = valueOf(kLevel);
  if (value == nullptr) {
    return;
  }
  for (const Name& one : kNames) {
    if (strcasecmp(value, one.name) == 0) {
      settings.isOff = one.isOff;
      settings.least = one.least;
      return;
    }
  }
  tellUnknown(kLevel, value, "info");
}

// The service manager says which descriptor leads to the journal.
bool standardErrorIsTheJournal() {
  const char* stream = valueOf("JOURNAL_STREAM");
  uint64_t device = 0;
  uint64_t node = 0;
  struct stat is {};
  return stream != nullptr && std::sscanf(stream, "%" SCNu64 ":%" SCNu64, &device, &node) == 2 &&
         fstat(STDERR_FILENO, &is) == 0 && is.st_dev == device && is.st_ino == node;
}

void readTarget(Settings& settings) {
  const char* value = valueOf(kTarget);
  if (value == nullptr) {
    settings.target = standardErrorIsTheJournal() ? "journal" : "stderr";
    return;
  }
  settings.target = value;
  if (std::error_code none; settings.target.starts_with("file:")) {  // a daemon changes directory
    settings.target = "file:" + std::filesystem::absolute(settings.target.substr(5), none).string();
  }
  const std::string& target = settings.target;
  if (target != "stderr" && target != "syslog" && target != "journal" &&
      !target.starts_with("file:")) {
    tellUnknown(kTarget, value, "stderr");
    settings.target = "stderr";
  }
}

// From 1 on; the setting is its default before.
void readNumber(const char* variable, size_t most, size_t& setting) {
  const char* value = valueOf(variable);
  if (value == nullptr) {
    return;
  }
  const std::string_view text(value);
  size_t number = 0;
  const auto [end, mistake] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (mistake == std::errc() && end == text.data() + text.size() && number > 0 && number <= most) {
    setting = number;
  } else {
    tellUnknown(variable, value, std::to_string(setting).c_str());
  }
}

}  // namespace

Settings readSettings() {
  Settings settings{false, Level::kInfo, {}, kDefaultFileBytes, kDefaultRotated};
  readLevel(settings);
  readTarget(settings);
  readNumber(kFileBytes, std::numeric_limits<size_t>::max(), settings.fileBytes);
  readNumber(kFiles, kMostRotated, settings.rotatedKept);
  return settings;
}

std::vector<std::string> unknownVariables() {
  std::vector<std::string> unknown;
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    const std::string_view text(*entry);
    const std::string_view name = text.substr(0, text.find('='));
    const bool hasValue = name.size() + 1 < text.size();
    const bool isKnown = std::find(kVariables.begin(), kVariables.end(), name) != kVariables.end();
    if (name.starts_with(kPrefix) && hasValue && !isKnown) {
      unknown.emplace_back(name);
    }
  }
  return unknown;
}

}  // namespace tov::log
