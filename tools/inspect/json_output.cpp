#include <nlohmann/json.hpp>

#include <array>
#include <cstdio>

#include "output.h"

namespace qurn::inspect {
namespace {

using Json = nlohmann::ordered_json;

Json orNull(int64_t value) { return value < 0 ? Json() : Json(value); }
Json orNull(pid_t tid) { return tid == 0 ? Json() : Json(tid); }
Json orNull(const std::string& text) { return text.empty() ? Json() : Json(text); }

std::string hex(uint64_t value) {
  std::array<char, 24> text{};
  std::snprintf(text.data(), text.size(), "0x%lx", value);
  return text.data();
}

Json jsonOf(const Process& process) {
  return {{"pid", process.pid},
          {"name", process.name},
          {"core", process.isCore},
          {"up_ms", orNull(process.upMs)},
          {"library", process.library},
          {"platform", orNull(process.platform)},
          {"period_ms", process.periodMs},
          {"status", process.status},
          {"status_since_ms", orNull(process.statusSinceMs)},
          {"guard_reported_to", process.isReportedTo},
          {"guard_ready", process.isReady},
          {"keep_alive_period_ms", process.keepAlivePeriodMs},
          {"last_keep_alive_ms", orNull(process.lastReportMs)}};
}

Json jsonOf(const WatchedThread& thread) {
  return {{"slot", thread.slot},
          {"tid", thread.tid},
          {"name", thread.name},
          {"silence_ms", thread.silenceMs},
          {"level", thread.level},
          {"thresholds_ms", thread.thresholdsMs},
          {"measured", thread.isMeasured},
          {"hook", thread.hasHook},
          {"blocks_signal", thread.blocksSignal ? Json(*thread.blocksSignal) : Json()},
          {"verdict", wordOf(thread.verdict)},
          {"holder_tid", orNull(thread.holder)},
          {"why", thread.why}};
}

Json jsonOf(const CodeFrame& frame) {
  return {{"address", hex(frame.address)},  {"function", orNull(frame.function)},
          {"module", orNull(frame.module)}, {"offset", frame.offset},
          {"source", orNull(frame.source)}, {"inlined", frame.isInlined}};
}

Json jsonOf(const Wait& wait) {
  return {{"tid", wait.tid},
          {"kind", wordOf(wait.kind)},
          {"holder_tid", orNull(wait.holder)},
          {"address", wait.address == 0 ? Json() : Json(hex(wait.address))},
          {"call", orNull(wait.call)}};
}

template <typename Element>
Json arrayOf(const std::vector<Element>& elements) {
  Json all = Json::array();
  for (const Element& element : elements) {
    all.push_back(jsonOf(element));
  }
  return all;
}

Json jsonOf(const Stack& stack) {
  return {{"tid", stack.tid},
          {"name", stack.name},
          {"note", orNull(stack.note)},
          {"frames", arrayOf(stack.frames)}};
}

Json jsonOf(const Capture& capture) {
  Json registers = Json::object();
  for (const Register& one : capture.registers) {
    registers[one.name] = hex(one.value);
  }
  Json stack = Json::array();
  for (const Word& word : capture.stack) {
    stack.push_back(
        {{"address", hex(word.address)}, {"value", hex(word.value)}, {"code", orNull(word.code)}});
  }
  return {{"tid", orNull(capture.tid)},
          {"reported_at", orNull(capture.at)},
          {"frames", arrayOf(capture.frames)},
          {"registers", registers},
          {"stack", stack}};
}

}  // namespace

void writeJson(std::ostream& out, const Snapshot& snapshot) {
  Json all{{"process", jsonOf(snapshot.process)},
           {"watched", arrayOf(snapshot.watched)},
           {"waits", arrayOf(snapshot.waits)},
           {"deadlocks", snapshot.deadlocks},
           {"stacks", Json::array()},
           {"record", snapshot.capture ? jsonOf(*snapshot.capture) : Json()}};
  for (const Stack& stack : snapshot.stacks) {
    all["stacks"].push_back(jsonOf(stack));
  }
  // Names of threads are whatever bytes their owners chose.
  out << all.dump(2, ' ', false, Json::error_handler_t::replace) << "\n";
}

}  // namespace qurn::inspect
