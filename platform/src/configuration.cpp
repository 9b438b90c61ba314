// Stands in for the framework's configuration accessors: YAML files and durations. Whatever a file
// holds, an accessor answers null, false or 0 where it finds no value of the kind asked for.
#include <qurnadapt/platform.h>
#include <yaml-cpp/yaml.h>

#include <array>
#include <charconv>
#include <cstdio>
#include <deque>
#include <fstream>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

namespace {

struct LoadedFile {
  YAML::Node root;
  std::deque<std::string> texts;  // what was handed out; addresses stay valid
};

// ---- key paths: "a.b[2].c"

struct PathStep {
  std::string_view key;
  std::optional<size_t> index;
};

// Takes the next step off the path; nothing when it is malformed.
std::optional<PathStep> takeStep(std::string_view& path) {
  PathStep step{};
  if (path.front() == '[') {
    size_t index = 0;
    const size_t close = path.find(']');
    if (close == std::string_view::npos) {
      return std::nullopt;
    }
    const auto [end, mistake] = std::from_chars(path.data() + 1, path.data() + close, index);
    if (mistake != std::errc{} || end != path.data() + close) {
      return std::nullopt;
    }
    step.index = index;
    path.remove_prefix(close + 1);
  } else {
    step.key = path.substr(0, path.find_first_of(".["));
    path.remove_prefix(step.key.size());
  }
  if (!path.empty() && path.front() == '.') {
    path.remove_prefix(1);
  }
  return step;
}

YAML::Node nothing() { return YAML::Node(YAML::NodeType::Undefined); }

YAML::Node childOf(const YAML::Node& node, const PathStep& step) {
  if (step.index.has_value()) {
    return node.IsSequence() && *step.index < node.size() ? node[*step.index] : nothing();
  }
  if (node.IsMap()) {
    for (const auto& entry : node) {
      if (entry.first.IsScalar() && entry.first.Scalar() == step.key) {
        return entry.second;
      }
    }
  }
  return nothing();
}

YAML::Node nodeAt(const LoadedFile& file, std::string_view path) {
  YAML::Node node = file.root;
  while (!path.empty() && node.IsDefined()) {
    const std::optional<PathStep> step = takeStep(path);
    node.reset(step.has_value() ? childOf(node, *step) : nothing());
  }
  return node;
}

// What `read` finds at the path, or `fallback`; nothing that the parser throws gets out.
template <typename Result, typename Read>
Result valueAt(void* yaml, const char* path, Result fallback, Read read) noexcept {
  if (yaml == nullptr || path == nullptr) {
    return fallback;
  }
  auto& file = *static_cast<LoadedFile*>(yaml);
  try {
    return read(file, nodeAt(file, path));
  } catch (const std::exception&) {
    return fallback;
  }
}

using KeyPath = std::array<char, 512>;

// The formatted key path; a path that does not fit matches nothing.
const char* formatPath(KeyPath& path, const char* format, va_list args) {
  const int length = std::vsnprintf(path.data(), path.size(), format, args);
  return length >= 0 && static_cast<size_t>(length) < path.size() ? path.data() : nullptr;
}

// ---- durations

struct DurationUnit {
  std::string_view suffix;
  uint64_t milliseconds;
};

constexpr std::array<DurationUnit, 6> kDurationUnits{{
    {"", 1},
    {"ms", 1},
    {"s", 1000},
    {"m", 60'000},
    {"min", 60'000},
    {"h", 3'600'000},
}};

std::optional<uint32_t> parseDuration(std::string_view text) {
  uint32_t count = 0;
  const char* end = text.data() + text.size();
  const auto [rest, mistake] = std::from_chars(text.data(), end, count);
  if (mistake != std::errc{}) {
    return std::nullopt;
  }
  const std::string_view suffix(rest, static_cast<size_t>(end - rest));
  for (const DurationUnit& unit : kDurationUnits) {
    if (unit.suffix == suffix) {
      const uint64_t milliseconds = count * unit.milliseconds;
      return milliseconds <= std::numeric_limits<uint32_t>::max()
                 ? std::optional(static_cast<uint32_t>(milliseconds))
                 : std::nullopt;
    }
  }
  return std::nullopt;
}

}  // namespace

extern "C" {

void* TovYamlLoadFile(const char* path) {
  if (path == nullptr) {
    return nullptr;
  }
  try {
    return new LoadedFile{YAML::LoadFile(path), {}};
  } catch (const std::exception&) {
    return nullptr;
  }
}

void TovYamFreelHandle(void* yaml) { delete static_cast<LoadedFile*>(yaml); }

bool TovYamlIsKeyExist(void* yaml, const char* key) {
  return valueAt(yaml, key, false,
                 [](LoadedFile&, const YAML::Node& node) { return node.IsDefined(); });
}

const char* TovYamlGetProperty(void* yaml, const char* format, ...) {
  KeyPath path{};
  va_list args;
  va_start(args, format);
  const char* key = formatPath(path, format, args);
  va_end(args);
  return valueAt<const char*>(yaml, key, nullptr,
                              [](LoadedFile& file, const YAML::Node& node) -> const char* {
                                if (!node.IsDefined() || !node.IsScalar()) {
                                  return nullptr;
                                }
                                return file.texts.emplace_back(node.Scalar()).c_str();
                              });
}

uint32_t TovYamlGetArraySize(void* yaml, const char* format, ...) {
  KeyPath path{};
  va_list args;
  va_start(args, format);
  const char* key = formatPath(path, format, args);
  va_end(args);
  return valueAt<uint32_t>(yaml, key, 0, [](LoadedFile&, const YAML::Node& node) {
    return node.IsDefined() && node.IsSequence() ? static_cast<uint32_t>(node.size()) : 0U;
  });
}

uint32_t TovStrToMilliSeconds(const char* text, uint32_t* milliseconds) {
  const std::optional<uint32_t> duration =
      text == nullptr || milliseconds == nullptr ? std::nullopt : parseDuration(text);
  if (!duration.has_value()) {
    return QURN_INVALID_ARGUMENT;
  }
  *milliseconds = *duration;
  return QURN_OK;
}

}  // extern "C"
