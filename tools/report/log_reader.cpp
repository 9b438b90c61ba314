// The library's messages are recognised by their texts; what stands before them belongs to the log
// they were written to, and is asked for no more than a time and the writer.
#include "log_reader.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <map>
#include <string>
#include <string_view>

namespace qurn::report {
namespace {

// ---- a line

// Takes a text apart from its start.
class Scanner {
 public:
  explicit Scanner(std::string_view text) : rest_(text) {}

  [[nodiscard]] std::string_view text() const { return rest_; }

  bool skip(std::string_view literal) {
    const bool found = rest_.starts_with(literal);
    rest_.remove_prefix(found ? literal.size() : 0);
    return found;
  }

  template <typename Number>
  bool number(Number& value, int base = 10) {
    const auto [end, mistake] =
        std::from_chars(rest_.data(), rest_.data() + rest_.size(), value, base);
    rest_.remove_prefix(static_cast<size_t>(end - rest_.data()));
    return mistake == std::errc();
  }

  // The text up to `literal`, which is skipped.
  bool textBefore(std::string_view literal, std::string_view& text) {
    text = rest_.substr(0, rest_.find(literal));
    rest_.remove_prefix(text.size());
    return skip(literal);
  }

 private:
  std::string_view rest_;
};

constexpr std::string_view kTimePattern = "0000-00-00 00:00:00";

bool isDigit(char c) { return c >= '0' && c <= '9'; }

bool fitsTimePattern(std::string_view text) {
  return text.size() >= kTimePattern.size() &&
         std::equal(
             kTimePattern.begin(), kTimePattern.end(), text.begin(), [](char pattern, char c) {
               return pattern == '0' ? isDigit(c) : c == pattern || (pattern == ' ' && c == 'T');
             });
}

LogTime timeIn(std::string_view prefix) {
  for (; prefix.size() >= kTimePattern.size(); prefix.remove_prefix(1)) {
    if (fitsTimePattern(prefix)) {
      size_t end = kTimePattern.size();
      if (end + 1 < prefix.size() && (prefix[end] == '.' || prefix[end] == ',')) {
        end = std::min(prefix.find_first_not_of("0123456789", end + 1), prefix.size());
      }
      return LogTime(prefix.substr(0, end));
    }
  }
  return {};
}

// The ID of "[NAME:ID]" or "[ID]".
std::string writerIn(std::string_view prefix) {
  std::string_view inside;
  Scanner scanner(prefix);
  if (!scanner.textBefore("[", inside) || !scanner.textBefore("]", inside)) {
    return {};
  }
  return std::string(inside.substr(inside.rfind(':') + 1));
}

Frame frameOf(std::string_view text) {
  Frame frame;
  frame.text = text;
  Scanner scanner(text);
  if (scanner.skip("0x") && scanner.number(frame.address, 16) && scanner.text().empty()) {
    return frame;
  }
  const size_t plus = text.rfind("+0x");
  frame.address = 0;
  frame.symbol = text.substr(0, plus);
  if (plus != std::string_view::npos) {
    Scanner offset(text.substr(plus + 3));
    offset.number(frame.offset, 16);
  }
  return frame;
}

struct Message {
  Scanner rest;  // behind the text that it was recognised by
  LogTime at;
};

// ---- the story

// What one detection thread tells, line by line.
class Storyteller {
 public:
  explicit Storyteller(std::vector<DeadLoop>& loops) : loops_(loops) {}

  using Take = void (Storyteller::*)(Message& message);

  void crossing(Message& message) {
    DeadLoop seen;
    Crossing crossing{0, message.at, 0};
    std::string_view task;
    std::string_view ordinal;
    auto& [first, second, third] = seen.thresholdsMs;
    if (!message.rest.textBefore("] trigger ", task) ||
        !message.rest.textBefore(" threshold timeout.(elapsed time = ", ordinal) ||
        !message.rest.number(crossing.silentMs) || !message.rest.skip(", first threshold = ") ||
        !message.rest.number(first) || !message.rest.skip(", second threshold = ") ||
        !message.rest.number(second) || !message.rest.skip(", third threshold = ") ||
        !message.rest.number(third)) {
      return;
    }
    const size_t colon = task.rfind(':');
    seen.thread = task.substr(0, colon);
    if (colon != std::string_view::npos) {
      Scanner(task.substr(colon + 1)).number(seen.threadId);
    }
    crossing.threshold = ordinal == "first" ? 1 : ordinal == "second" ? 2 : 3;

    std::vector<Crossing>& silence = silences_[seen.threadId];
    if (!silence.empty() && silence.back().threshold >= crossing.threshold) {
      silence.clear();  // it had been heard of in between
    }
    silence.push_back(crossing);
    if (crossing.threshold == 3) {
      seen.silence = silence;
      begin(seen);
    }
  }

  void signal(Message& message) {
    int number = 0;
    uint64_t thread = 0;
    if (!message.rest.number(number)) {
      return;
    }
    if (message.rest.skip(" is captured at ")) {
      captured(number, message.rest.text(), message.at);
    } else if (open_ && message.rest.skip(" send to thread ") && message.rest.number(thread)) {
      current().signal = number;
      current().signalFailed = message.rest.skip(" unsuccessfully");
    }
  }

  void process(Message& message) {
    std::string_view name;
    if (reporting() && message.rest.textBefore(", pid: ", name)) {
      current().process = name;
      message.rest.number(current().processId);
    }
  }

  void frame(Message& message) {
    size_t index = 0;
    if (!reporting() || !message.rest.number(index) || !message.rest.skip(" ") ||
        index != current().frames.size()) {
      return;
    }
    std::string_view text = message.rest.text();
    text.remove_suffix(text.ends_with('.') ? 1 : 0);
    current().frames.push_back(frameOf(text));
  }

  void threadHook(Message& message) { decide(&Decision::threadHook, message.at); }
  void processHook(Message& message) { decide(&Decision::processHook, message.at); }
  void byDefault(Message& message) { decide(&Decision::byDefault, message.at); }

  void exit(Message& message) {
    int status = 0;
    if (open_ && current().decision.byDefault && message.rest.number(status)) {
      current().decision.exitStatus = status;
      open_ = false;
    }
  }

 private:
  DeadLoop& current() { return loops_[index_]; }
  bool reporting() { return open_ && current().captured && !current().decision.made(); }

  void begin(const DeadLoop& loop) {
    index_ = loops_.size();
    loops_.push_back(loop);
    open_ = true;
  }

  void captured(int number, std::string_view stamp, const LogTime& at) {
    if (!open_ || current().captured) {
      begin({});  // its beginning is not in this log, or nobody asked for it
    }
    current().signal = number;
    current().captured = true;
    current().reportedAt = at;
    current().captureStamp = stamp.substr(0, stamp.find_last_not_of('.') + 1);
  }

  void decide(bool Decision::*what, const LogTime& at) {
    if (open_ && current().captured) {
      current().decision.*what = true;
      current().decision.at = at;
    }
  }

  std::vector<DeadLoop>& loops_;
  std::map<uint32_t, std::vector<Crossing>> silences_;  // by thread
  size_t index_ = 0;
  bool open_ = false;  // the dead loop at index_ may have more to come
};

struct Rule {
  std::string_view text;
  Storyteller::Take take;
};

constexpr std::array<Rule, 8> kRules{{
    {"Frame task deadloop detect, task [", &Storyteller::crossing},
    {"Signal ", &Storyteller::signal},
    {"Captured process: ", &Storyteller::process},
    {" #", &Storyteller::frame},
    {"Frame task deadloop detect, deadloop process hook start.", &Storyteller::threadHook},
    {"Frame task deadloop detect, deadloop process global hook start.", &Storyteller::processHook},
    {" deadloop detected with no process hook, execute default strategy.", &Storyteller::byDefault},
    {"ZOT_Exit with code ", &Storyteller::exit},
}};

}  // namespace

std::vector<DeadLoop> readLog(std::istream& log) {
  std::vector<DeadLoop> loops;
  std::map<std::string, Storyteller> tellers;  // by writer
  for (std::string line; std::getline(log, line);) {
    for (const Rule& rule : kRules) {
      const size_t at = line.find(rule.text);
      if (at == std::string::npos) {
        continue;
      }
      const std::string_view text(line);
      const std::string_view prefix = text.substr(0, at);
      Storyteller& teller = tellers.try_emplace(writerIn(prefix), loops).first->second;
      Message message{Scanner(text.substr(at + rule.text.size())), timeIn(prefix)};
      (teller.*rule.take)(message);
      break;
    }
  }
  return loops;
}

}  // namespace qurn::report
