#include <algorithm>
#include <array>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "../common/code_frame.h"
#include "../common/printable.h"
#include "output.h"

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
    const bool hasOffset = !frame.symbol.empty() || !frame.module.empty();
    frames.push_back({{"text", orNull(frame.isInlined ? "" : frame.text)},
                      {"function", frame.symbol.empty() ? Json() : Json(demangled(frame.symbol))},
                      {"module", orNull(frame.module)},
                      {"offset", hasOffset ? Json(frame.offset) : Json()},
                      {"address", orNull(frame.address)},
                      {"source", orNull(frame.sourceLine)},
                      {"inlined", frame.isInlined}});
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

// A log need not be UTF-8, JSON must.
std::string textOf(const Json& json, int indent) {
  return json.dump(indent, ' ', false, Json::error_handler_t::replace);
}

Json jsonOf(const DeadLoop& loop) {
  return {{"process", orNull(loop.process)},
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
          {"missing", missingFrom(loop)}};
}

// Names that are no UTF-8 must not become one.
Json jsonOf(const Counts& counts) {
  Json object = Json::object();
  for (const auto& [what, count] : counts) {
    object[printable(what)] = count;
  }
  return object;
}

Json jsonOf(const Group& group) {
  return {{"count", group.count},
          {"first", orNull(group.first)},
          {"last", orNull(group.last)},
          {"longest_silence_ms", orNull(group.longestSilenceMs)},
          {"processes", jsonOf(group.processes)},
          {"threads", jsonOf(group.threads)},
          {"decisions", jsonOf(group.decisions)},
          {"frames", framesOf(group.example)}};
}

// Element by element, as a dump of the whole would be.
class ArrayWriter {
 public:
  explicit ArrayWriter(std::ostream& out) : out_(out) {}

  void write(const Json& element) {
    out_ << (isEmpty_ ? "[\n" : ",\n");
    isEmpty_ = false;
    std::string text = "  ";
    for (const char c : textOf(element, 2)) {
      text.append(c == '\n' ? "\n  " : std::string(1, c));
    }
    writeEscaped(out_, text);
  }

  void end() { out_ << (isEmpty_ ? "[]\n" : "\n]\n"); }

 private:
  std::ostream& out_;
  bool isEmpty_ = true;
};

class JsonOutput : public Output {
 public:
  explicit JsonOutput(std::ostream& out) : array_(out) {}
  void tell(const DeadLoop& loop) override { array_.write(jsonOf(loop)); }
  void end() override { array_.end(); }

 private:
  ArrayWriter array_;
};

class JsonLineOutput : public Output {
 public:
  explicit JsonLineOutput(std::ostream& out) : out_(out) {}
  void tell(const DeadLoop& loop) override {
    writeEscaped(out_, textOf(jsonOf(loop), -1));
    out_ << "\n";
  }

 private:
  std::ostream& out_;
};

class JsonGroupOutput : public Output {
 public:
  explicit JsonGroupOutput(std::ostream& out) : array_(out) {}
  void tell(const DeadLoop& loop) override { groups_.add(loop); }
  void end() override {
    for (const Group& group : groups_.sorted()) {
      array_.write(jsonOf(group));
    }
    array_.end();
  }

 private:
  Groups groups_;
  ArrayWriter array_;
};

}  // namespace

std::unique_ptr<Output> jsonOutput(std::ostream& out) { return std::make_unique<JsonOutput>(out); }

std::unique_ptr<Output> jsonLineOutput(std::ostream& out) {
  return std::make_unique<JsonLineOutput>(out);
}

std::unique_ptr<Output> jsonGroupOutput(std::ostream& out) {
  return std::make_unique<JsonGroupOutput>(out);
}

}  // namespace qurn::report
