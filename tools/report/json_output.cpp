#include <algorithm>
#include <array>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "output.h"
#include "symbols.h"

namespace qurn::report {
namespace {

using Json = nlohmann::ordered_json;

Json orNull(const std::string& text) { return text.empty() ? Json() : Json(text); }

template <typename Number>
Json orNull(Number value) {
  return value == 0 ? Json() : Json(value);
}

Json silenceOf(const DeadLoop& loop) {
  Json silence = Json::array();
  for (const Crossing& crossing : loop.silence) {
    silence.push_back(
        {{"threshold", crossing.threshold},
         {"at", orNull(crossing.at)},
         {"silent_ms", crossing.isCut ? orNull(crossing.silentMs) : Json(crossing.silentMs)}});
  }
  return silence;
}

Json thresholdsOf(const DeadLoop& loop) {
  const bool areTold = std::any_of(
      loop.silence.begin(), loop.silence.end(),
      [&](const Crossing& crossing) { return !crossing.isCut || loop.thresholdsMs.back() != 0; });
  return areTold ? Json(loop.thresholdsMs) : Json();
}

Json framesOf(const DeadLoop& loop) {
  Json frames = Json::array();
  for (const Frame& frame : loop.frames) {
    frames.push_back({{"text", orNull(frame.text)},
                      {"function", frame.symbol.empty() ? Json() : Json(demangled(frame.symbol))},
                      {"offset", frame.symbol.empty() ? Json() : Json(frame.offset)},
                      {"address", orNull(frame.address)},
                      {"source", orNull(frame.sourceLine)}});
  }
  return frames;
}

Json decisionOf(const Decision& decision) {
  return {{"at", orNull(decision.at)},
          {"thread_hook", decision.threadHook},
          {"process_hook", decision.processHook},
          {"exit_status", decision.exitStatus ? Json(*decision.exitStatus) : Json()}};
}

// JSON may hold what a terminal would obey: the control characters behind ASCII.
void writeEscaped(std::ostream& out, const std::string& json) {
  for (size_t i = 0; i < json.size(); ++i) {
    const auto next = static_cast<unsigned char>(i + 1 < json.size() ? json[i + 1] : 0);
    if (json[i] == '\x7F') {
      out << "\\u007f";
    } else if (json[i] == '\xC2' && next >= 0x80 && next < 0xA0) {
      std::array<char, 8> escape{};
      std::snprintf(escape.data(), escape.size(), "\\u%04x", next);
      out << escape.data();
      ++i;
    } else {
      out << json[i];
    }
  }
}

void writeArray(std::ostream& out, const Json& all) {
  // A log need not be UTF-8, JSON must.
  writeEscaped(out, all.dump(2, ' ', false, Json::error_handler_t::replace));
  out << "\n";
}

}  // namespace

void writeJson(std::ostream& out, const std::vector<DeadLoop>& loops) {
  Json all = Json::array();
  for (const DeadLoop& loop : loops) {
    all.push_back(
        {{"process", orNull(loop.process)},
         {"process_id", orNull(loop.processId)},
         {"thread", orNull(loop.thread)},
         {"thread_id", orNull(loop.threadId)},
         {"thresholds_ms", thresholdsOf(loop)},
         {"silence", silenceOf(loop)},
         {"signal", orNull(loop.signal)},
         {"signal_failed", loop.signalFailed},
         {"captured", loop.captured},
         {"reported_at", orNull(loop.reportedAt)},
         {"capture_stamp_utc8", orNull(loop.captureStamp)},
         {"frames", framesOf(loop)},
         {"decision",
          loop.decision.made() || loop.decision.exitStatus ? decisionOf(loop.decision) : Json()},
         {"missing", missingFrom(loop)}});
  }
  writeArray(out, all);
}

void writeJson(std::ostream& out, const std::vector<Group>& groups) {
  Json all = Json::array();
  for (const Group& group : groups) {
    all.push_back({{"count", group.count},
                   {"first", orNull(group.first)},
                   {"last", orNull(group.last)},
                   {"longest_silence_ms", orNull(group.longestSilenceMs)},
                   {"processes", group.processes},
                   {"threads", group.threads},
                   {"decisions", group.decisions},
                   {"frames", framesOf(group.example)}});
  }
  writeArray(out, all);
}

}  // namespace qurn::report
