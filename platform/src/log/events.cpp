#include "events.h"

#include <algorithm>

namespace tov::log {
namespace {

uint64_t hashOf(std::string_view text, uint64_t seed) noexcept {
  constexpr uint64_t kFnvPrime = 1099511628211U;
  for (const char c : text) {
    seed = (seed ^ static_cast<unsigned char>(c)) * kFnvPrime;
  }
  return seed;
}

std::string_view between(std::string_view text, std::string_view before,
                         std::string_view behind) noexcept {
  const size_t found = text.find(before);
  if (found == std::string_view::npos) {
    return {};
  }
  text.remove_prefix(found + before.size());
  return text.substr(0, text.find(behind));
}

// "[NAME:ID]", where the name may have anything in it.
void takeThread(std::string_view inside, Told& told) noexcept {
  const size_t colon = inside.rfind(':');
  if (colon != std::string_view::npos) {
    told.thread = inside.substr(0, colon);
    told.tid = inside.substr(colon + 1);
  }
}

void takeThreshold(std::string_view text, Told& told) noexcept {
  const size_t behindThread = std::min(text.rfind("] trigger "), text.size());
  takeThread(between(text.substr(0, behindThread), "task [", "\n"), told);
  text.remove_prefix(behindThread);
  told.silenceMs = between(text, "elapsed time = ", ",");
}

void takeSuspension(std::string_view text, Told& told) noexcept {
  takeThread(between(text, "(task [", "])"), told);
}

void takeFrame(std::string_view text, Told& told) noexcept {
  told.frameNumber = between(text, "#", " ");
  text.remove_prefix(told.frameNumber.size() + 2);
  told.frame = text.substr(0, text.rfind('.'));
}

void takeDecision(std::string_view text, Told& told) noexcept {
  told.thread = between(text, "Task(", ") deadloop");
}

struct Rule {
  std::string_view start;  // of the format
  void (*take)(std::string_view text, Told& told) noexcept;
};

constexpr std::array<Rule, 4> kRules{{{"Frame task deadloop detect, task [", takeThreshold},
                                      {"Dead-loop signal not handled", takeSuspension},
                                      {"#%u %s.", takeFrame},
                                      {"Task(%s) deadloop detected", takeDecision}}};

}  // namespace

MessageId messageIdOf(std::string_view format) noexcept {
  constexpr std::string_view kHex = "0123456789abcdef";
  constexpr std::array<uint64_t, 2> kSeeds{14695981039346656037U, 1099511628211U};
  MessageId id{};
  for (size_t half = 0; half < kSeeds.size(); ++half) {
    uint64_t hash = hashOf(format, kSeeds[half]);
    for (size_t i = 16; i > 0; hash >>= 4U) {
      id[half * 16 + --i] = kHex[hash & 15U];
    }
  }
  return id;
}

bool beginsReport(const Record& record) noexcept {
  return record.format == "Signal %d is captured at %s.";
}

Told toldBy(const Record& record) noexcept {
  Told told;
  for (const Rule& rule : kRules) {
    if (record.format.starts_with(rule.start)) {
      rule.take(record.text, told);
    }
  }
  return told;
}

}  // namespace tov::log
