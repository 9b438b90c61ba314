#include <algorithm>
#include <array>
#include <cstdio>
#include <string>
#include <string_view>

#include "../common/code_frame.h"
#include "../common/printable.h"
#include "output.h"

namespace qurn::report {
namespace {

constexpr size_t kBarWidth = 20;
constexpr std::array<const char*, 3> kOrdinals{"first", "second", "third"};

struct Colours {
  std::string_view title, note, warning, alarm, faint, none;
};
constexpr Colours kColours{"\033[1m", "\033[32m", "\033[33m", "\033[31m", "\033[2m", "\033[0m"};

std::string seconds(uint32_t ms) {
  std::array<char, 16> text{};
  std::snprintf(text.data(), text.size(), "%.1f s", ms / 1000.0);
  return text.data();
}

std::string hex(uint64_t number) {
  std::array<char, 24> text{};
  std::snprintf(text.data(), text.size(), "0x%llx", static_cast<unsigned long long>(number));
  return text.data();
}

std::string padded(std::string text, size_t width) {
  text.resize(std::max(text.size(), width), ' ');
  return text;
}

// "a", "a and b", "a, b and c".
std::string listOf(const std::vector<std::string>& parts) {
  std::string list;
  for (const std::string& part : parts) {
    const bool isLast = &part == &parts.back();
    list += (list.empty() ? "" : isLast ? " and " : ", ") + part;
  }
  return list;
}

std::string countsOf(const Counts& counts) {
  std::vector<std::string> parts;
  for (const auto& [what, count] : counts) {
    parts.push_back((what.empty() ? "not told" : printable(what)) +
                    (counts.size() > 1 ? " (" + std::to_string(count) + ")" : ""));
  }
  return listOf(parts);
}

class TextWriter {
 public:
  TextWriter(std::ostream& out, bool inColour)
      : out_(out), colours_(inColour ? kColours : Colours{}) {}

  void write(const DeadLoop& loop) {
    writeTitle(loop);
    writeTimeline(loop);
    writeTrace(loop);
  }

  void write(const Group& group) {
    out_ << colours_.title << group.count << (group.count == 1 ? " dead loop" : " dead loops")
         << colours_.none << "\n";
    writeFact("first", printable(group.first));
    writeFact("last", printable(group.last));
    writeFact("longest silence",
              group.longestSilenceMs == 0 ? "" : seconds(group.longestSilenceMs));
    writeFact("processes", countsOf(group.processes));
    writeFact("threads", countsOf(group.threads));
    writeFact("decided", countsOf(group.decisions));
    writeTrace(group.example);
  }

 private:
  void writeFact(const char* what, const std::string& fact) {
    out_ << "  " << padded(what, 16) << (fact.empty() ? "not told" : fact) << "\n";
  }

  void writeTitle(const DeadLoop& loop) {
    out_ << colours_.title << "Dead loop";
    if (!loop.thread.empty()) {
      out_ << " of thread " << printable(loop.thread);
      writeId("", loop.threadId);
    }
    if (!loop.process.empty()) {
      out_ << " in " << printable(loop.process);
      writeId("process ", loop.processId);
    }
    out_ << colours_.none << "\n";
  }

  void writeId(const char* of, uint32_t id) {
    if (id != 0) {
      out_ << " (" << of << id << ")";
    }
  }

  void writeTimeline(const DeadLoop& loop) {
    uint32_t longest = 1;
    for (const Crossing& crossing : loop.silence) {
      longest = std::max(longest, crossing.silentMs);
    }
    for (const Crossing& crossing : loop.silence) {
      writeCrossing(crossing, loop.thresholdsMs, longest);
    }
    writeCapture(loop);
  }

  void writeCrossing(const Crossing& crossing, const std::array<uint32_t, 3>& thresholdsMs,
                     uint32_t longest) {
    const std::array<std::string_view, 3> levels{colours_.note, colours_.warning, colours_.alarm};
    const auto index = static_cast<size_t>(crossing.threshold - 1);
    const size_t bar = kBarWidth * crossing.silentMs / longest;
    const auto known = [&](uint32_t ms) { return crossing.isCut && ms == 0 ? "?" : seconds(ms); };
    writeEvent(crossing.at, "silent for " + padded(known(crossing.silentMs), 7) + " " +
                                std::string(levels.at(index)) +
                                padded(std::string(bar, '='), kBarWidth) +
                                std::string(colours_.none) + "  " + kOrdinals.at(index) +
                                " threshold, " + known(thresholdsMs.at(index)));
  }

  void writeCapture(const DeadLoop& loop) {
    const std::string signal =
        loop.signal == 0 ? "the signal" : "signal " + std::to_string(loop.signal);
    if (loop.captured) {
      writeEvent(
          loop.reportedAt,
          "captured by " + signal +
              (loop.captureStamp.empty() ? "" : " (" + printable(loop.captureStamp) + " UTC+8)"));
    } else if (loop.signalFailed) {
      writeEvent("", "not captured: " + signal + " could not be sent");
    } else {
      writeEvent(
          "", "not captured by " + signal + " in this log: blocked, or not back from the kernel");
    }
    if (loop.captured || loop.decision.made()) {
      writeEvent(loop.decision.at, decisionText(loop));
    }
    if (const auto missing = missingFrom(loop); !missing.empty()) {
      writeEvent("", "incomplete: the log lacks " + listOf(missing));
    }
  }

  void writeEvent(const LogTime& at, const std::string& what) {
    out_ << "  " << colours_.faint << padded(printable(at), widest_) << colours_.none << "  "
         << what << "\n";
    widest_ = std::max(widest_, at.size());
  }

  void writeTrace(const DeadLoop& loop) {
    size_t index = 0;
    for (const Frame& frame : loop.frames) {
      const std::string number = frame.isInlined ? "" : "#" + std::to_string(index++);
      const bool hasOffset = !frame.symbol.empty() && frame.offset != 0;
      out_ << padded("  " + number, 6) << " "
           << (frame.text.empty() ? "?" : printable(nameOf(frame)))
           << (hasOffset ? "+" + hex(frame.offset) : "") << (frame.isCut ? "..." : "");
      if (!frame.sourceLine.empty()) {
        out_ << colours_.faint << "  " << printable(frame.sourceLine) << colours_.none;
      }
      out_ << (frame.isInlined ? " (inlined)\n" : "\n");
    }
  }

  std::ostream& out_;
  const Colours colours_;
  size_t widest_ = 0;  // time stamp so far
};

class TextOutput : public Output {
 public:
  TextOutput(std::ostream& out, bool inColour) : out_(out), writer_(out, inColour) {}
  void tell(const DeadLoop& loop) override {
    out_ << (isFirst_ ? "" : "\n");
    isFirst_ = false;
    writer_.write(loop);
  }

 private:
  std::ostream& out_;
  TextWriter writer_;
  bool isFirst_ = true;
};

class TextGroupOutput : public Output {
 public:
  TextGroupOutput(std::ostream& out, bool inColour) : out_(out), writer_(out, inColour) {}
  void tell(const DeadLoop& loop) override { groups_.add(loop); }
  void end() override {
    const std::vector<Group> groups = groups_.sorted();
    for (const Group& group : groups) {
      writer_.write(group);
      out_ << (&group == &groups.back() ? "" : "\n");
    }
  }

 private:
  std::ostream& out_;
  TextWriter writer_;
  Groups groups_;
};

class CollapsedOutput : public Output {
 public:
  explicit CollapsedOutput(std::ostream& out) : out_(out) {}
  void tell(const DeadLoop& loop) override { ++stacks_[collapsedStack(loop)]; }
  void end() override {
    for (const auto& [stack, count] : stacks_) {
      out_ << printable(stack) << " " << count << "\n";
    }
  }

 private:
  std::ostream& out_;
  Counts stacks_;
};

}  // namespace

std::string nameOf(const Frame& frame) {
  if (!frame.symbol.empty()) {
    return demangled(frame.symbol);
  }
  return frame.module.empty() ? frame.text : frame.module + "+" + hex(frame.offset);
}

std::string decisionText(const DeadLoop& loop) {
  const Decision& decision = loop.decision;
  if (decision.byDefault || decision.exitStatus) {
    return std::string(decision.byDefault ? "no hook of its own: " : "") + "the process " +
           (decision.exitStatus ? "ended with status " + std::to_string(*decision.exitStatus)
                                : std::string("was to be ended"));
  }
  if (decision.threadHook || decision.processHook) {
    return std::string("left to ") + (decision.threadHook ? "the thread's own hook" : "") +
           (decision.threadHook && decision.processHook ? " and " : "") +
           (decision.processHook ? "the process-wide hook" : "");
  }
  return "the log ends before a decision";
}

std::unique_ptr<Output> textOutput(std::ostream& out, bool inColour) {
  return std::make_unique<TextOutput>(out, inColour);
}

std::unique_ptr<Output> textGroupOutput(std::ostream& out, bool inColour) {
  return std::make_unique<TextGroupOutput>(out, inColour);
}

std::unique_ptr<Output> collapsedOutput(std::ostream& out) {
  return std::make_unique<CollapsedOutput>(out);
}

}  // namespace qurn::report
