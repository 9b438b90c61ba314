#include <algorithm>
#include <array>
#include <cstdio>
#include <iomanip>
#include <sstream>
#include <utility>

#include "../common/printable.h"
#include "output.h"

namespace qurn::inspect {
namespace {

std::string duration(int64_t milliseconds) {
  if (milliseconds < 0) {
    return "-";
  }
  const int64_t seconds = milliseconds / 1000;
  std::array<char, 64> text{};
  if (seconds >= 86400) {
    std::snprintf(text.data(), text.size(), "%ld d %ld h", seconds / 86400, seconds / 3600 % 24);
  } else if (seconds >= 3600) {
    std::snprintf(text.data(), text.size(), "%ld h %ld min", seconds / 3600, seconds / 60 % 60);
  } else {
    std::snprintf(text.data(), text.size(), "%ld.%03ld s", seconds, milliseconds % 1000);
  }
  return text.data();
}

std::string hex(uint64_t value) {
  std::array<char, 24> text{};
  std::snprintf(text.data(), text.size(), "0x%lx", value);
  return text.data();
}

void writeProcess(std::ostream& out, const Process& process) {
  out << printable(process.name) << ", process " << process.pid
      << (process.isCore ? ", as its core shows it" : ", up " + duration(process.upMs)) << "\n"
      << "  library           " << printable(process.library) << "\n"
      << "  platform          "
      << (process.platform.empty() ? "another" : printable(process.platform)) << "\n"
      << "  detection period  " << duration(process.periodMs) << "\n"
      << "  dead-loop status  " << process.status
      << (process.statusSinceMs >= 0 ? " for " + duration(process.statusSinceMs) : "") << "\n"
      << "  guard             ";
  if (process.isReportedTo) {
    out << (process.isReady ? "told that the process is ready"
                            : "not told yet that the process is ready")
        << ", last heartbeat "
        << (process.lastReportMs < 0 ? "never" : duration(process.lastReportMs) + " ago") << "\n";
  } else {
    out << "none is reported to\n";
  }
}

// Cells of a table, each column as wide as it needs to be.
class Table {
 public:
  void add(std::vector<std::string> row) { rows_.push_back(std::move(row)); }
  void write(std::ostream& out) const {
    std::vector<size_t> widths;
    for (const auto& row : rows_) {
      widths.resize(std::max(widths.size(), row.size()));
      for (size_t i = 0; i < row.size(); ++i) {
        widths[i] = std::max(widths[i], row[i].size());
      }
    }
    for (const auto& row : rows_) {
      std::ostringstream line;
      for (size_t i = 0; i < row.size(); ++i) {
        line << "  " << std::left << std::setw(static_cast<int>(i + 1 < row.size() ? widths[i] : 0))
             << row[i];
      }
      out << line.str() << "\n";
    }
  }

 private:
  std::vector<std::vector<std::string>> rows_;
};

std::string thresholds(const WatchedThread& thread) {
  std::string text;
  for (const uint32_t milliseconds : thread.thresholdsMs) {
    text += (text.empty() ? "" : "/") + std::to_string(milliseconds / 1000);
  }
  return text + " s";
}

std::string remarks(const WatchedThread& thread) {
  std::string text = thread.why;
  text += thread.isMeasured ? "" : "; its watch is switched off";
  text += thread.hasHook ? "; has a hook" : "";
  text += thread.blocksSignal.value_or(false) ? "; blocks the dead-loop signal" : "";
  return printable(text);
}

void writeWatch(std::ostream& out, const Snapshot& snapshot) {
  if (snapshot.watched.empty()) {
    out << "\nNo thread is watched.\n";
    return;
  }
  out << "\nWatched threads"
      << (snapshot.process.isCore ? ", silent as of the freshest heartbeat" : "") << "\n";
  Table table;
  table.add({"slot", "thread", "tid", "silent", "level", "thresholds", "verdict", ""});
  for (const WatchedThread& thread : snapshot.watched) {
    table.add({std::to_string(thread.slot), printable(thread.name), std::to_string(thread.tid),
               duration(thread.silenceMs), std::to_string(thread.level), thresholds(thread),
               std::string(wordOf(thread.verdict)), remarks(thread)});
  }
  table.write(out);
}

void writeDeadlocks(std::ostream& out, const Snapshot& snapshot) {
  for (const std::vector<pid_t>& cycle : snapshot.deadlocks) {
    out << "\nDEADLOCK\n";
    for (size_t i = 0; i < cycle.size(); ++i) {
      const pid_t tid = cycle[i];
      const auto wait = std::find_if(snapshot.waits.begin(), snapshot.waits.end(),
                                     [tid](const Wait& one) { return one.tid == tid; });
      out << "  " << printable(snapshot.nameOf(tid)) << " waits for "
          << (wait->kind == Verdict::kJoin
                  ? "the end of "
                  : std::string(wordOf(wait->kind)) + " " + hex(wait->address) + ", held by ")
          << printable(snapshot.nameOf(cycle[(i + 1) % cycle.size()])) << "\n";
    }
  }
}

// Those who wait for somebody; what else is waited for stands with the watched.
void writeWaits(std::ostream& out, const Snapshot& snapshot) {
  bool isFirst = true;
  for (const Wait& wait : snapshot.waits) {
    if (wait.holder != 0) {
      out << (std::exchange(isFirst, false) ? "\nWho waits for whom\n" : "") << "  "
          << printable(snapshot.nameOf(wait.tid)) << " -> "
          << printable(snapshot.nameOf(wait.holder)) << ", " << wordOf(wait.kind) << " at "
          << hex(wait.address) << "\n";
    }
  }
}

std::string frameText(const CodeFrame& frame) {
  std::string text = frame.function.empty() ? frame.module : frame.function;
  if (text.empty()) {
    text = hex(frame.address);
  } else if (!frame.isInlined) {
    text += "+" + hex(frame.offset);
  }
  return printable(text + (frame.source.empty() ? "" : " at " + frame.source) +
                   (frame.isInlined ? " (inlined)" : ""));
}

void writeFrames(std::ostream& out, const std::vector<CodeFrame>& frames) {
  for (size_t i = 0; i < frames.size(); ++i) {
    out << "  #" << i << " " << frameText(frames[i]) << "\n";
  }
}

void writeStacks(std::ostream& out, const Snapshot& snapshot) {
  for (const Stack& stack : snapshot.stacks) {
    out << "\nStack of " << printable(stack.name)
        << (stack.note.empty() ? "" : ": " + printable(stack.note)) << "\n";
    writeFrames(out, stack.frames);
  }
}

void writeCapture(std::ostream& out, const Capture& capture) {
  out << "\nLast capture" << (capture.tid == 0 ? "" : ", thread " + std::to_string(capture.tid))
      << (capture.at.empty() ? ", not reported" : ", reported at " + printable(capture.at)) << "\n";
  writeFrames(out, capture.frames);
  out << "Registers\n";
  for (size_t i = 0; i < capture.registers.size(); ++i) {
    const Register& one = capture.registers[i];
    out << "  " << std::left << std::setw(7) << one.name << std::setw(19) << hex(one.value)
        << (i % 3 == 2 || i + 1 == capture.registers.size() ? "\n" : "");
  }
  out << "Stack\n";
  for (const Word& word : capture.stack) {
    out << "  " << hex(word.address) << "  " << std::setw(18) << hex(word.value)
        << (word.code.empty() ? "" : "  " + printable(word.code)) << "\n";
  }
}

}  // namespace

void writeText(std::ostream& out, const Snapshot& snapshot) {
  writeProcess(out, snapshot.process);
  writeWatch(out, snapshot);
  writeWaits(out, snapshot);
  writeDeadlocks(out, snapshot);
  writeStacks(out, snapshot);
  if (snapshot.capture) {
    writeCapture(out, *snapshot.capture);
  }
}

}  // namespace qurn::inspect
