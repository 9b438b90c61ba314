#include <cinttypes>
#include <cstdio>

#include "../common/printable.h"
#include "output.h"

namespace qurn::inspect {
namespace {

std::string escaped(std::string_view text) {
  std::string safe;
  for (const char c : printable(text)) {
    safe += c == '\\' || c == '"' ? std::string{'\\', c} : std::string(1, c);
  }
  return safe;
}

std::string labelsOf(const Process& process) {
  return "process=\"" + escaped(process.name) + "\",pid=\"" + std::to_string(process.pid) + "\"";
}

std::string labelsOf(const Process& process, const WatchedThread& thread) {
  return labelsOf(process) + ",thread=\"" + escaped(thread.name) + "\",tid=\"" +
         std::to_string(thread.tid) + "\",slot=\"" + std::to_string(thread.slot) + "\"";
}

std::string seconds(int64_t milliseconds) {
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%" PRId64 ".%03" PRId64, milliseconds / 1000,
                milliseconds % 1000);
  return text.data();
}

class Metrics {
 public:
  explicit Metrics(std::ostream& out) : out_(out) {}

  void begin(const std::string& name, const char* help) {
    name_ = name;
    out_ << "# HELP " << name << " " << help << "\n# TYPE " << name << " gauge\n";
  }
  template <typename Value>
  void value(const std::string& labels, const Value& value) {
    out_ << name_ << "{" << labels << "} " << value << "\n";
  }

 private:
  std::ostream& out_;
  std::string name_;
};

}  // namespace

void writeMetrics(std::ostream& out, const Snapshot& snapshot) {
  const Process& process = snapshot.process;
  const std::string own = labelsOf(process);
  Metrics metrics(out);
  metrics.begin("qurn_up_seconds", "Since the process was started.");
  if (process.upMs >= 0) {
    metrics.value(own, seconds(process.upMs));
  }
  metrics.begin("qurn_detection_suspended", "1 while a dead loop is being dealt with.");
  metrics.value(own, process.status == "idle" ? 0 : 1);
  metrics.begin("qurn_last_keep_alive_seconds", "Since the last report to the process guard.");
  if (process.lastReportMs >= 0) {
    metrics.value(own, seconds(process.lastReportMs));
  }
  metrics.begin("qurn_deadlocks", "Cycles of threads that wait for each other.");
  metrics.value(own, snapshot.deadlocks.size());
  metrics.begin("qurn_thread_silence_seconds", "Since the watched thread's last heartbeat.");
  for (const WatchedThread& thread : snapshot.watched) {
    metrics.value(labelsOf(process, thread), seconds(thread.silenceMs));
  }
  metrics.begin("qurn_thread_level", "The highest threshold that its silence has passed, 0 to 3.");
  for (const WatchedThread& thread : snapshot.watched) {
    metrics.value(labelsOf(process, thread), thread.level);
  }
  metrics.begin("qurn_thread_verdict", "What the watched thread is up to.");
  for (const WatchedThread& thread : snapshot.watched) {
    metrics.value(
        labelsOf(process, thread) + ",verdict=\"" + std::string(wordOf(thread.verdict)) + "\"", 1);
  }
}

}  // namespace qurn::inspect
