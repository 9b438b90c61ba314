#include "storyteller.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <utility>

namespace qurn::report {
namespace {

constexpr size_t kMostFrames = 64;     // more than the library ever writes
constexpr size_t kMostTaskBytes = 72;  // a name that is all control characters, and an id
constexpr size_t kMostSilent = 1000;   // threads of one writer, of which most are soon heard again

struct Rule {
  std::string_view text;
  bool numberFollows;
  Storyteller::Take take;
};

constexpr std::array<Rule, 8> kRules{{
    {"Frame task deadloop detect, task [", false, &Storyteller::crossing},
    {"Signal ", true, &Storyteller::signal},
    {"Captured process: ", false, &Storyteller::process},
    {"#", true, &Storyteller::frame},
    {"Frame task deadloop detect, deadloop process hook start", false, &Storyteller::threadHook},
    {"Frame task deadloop detect, deadloop process global hook start", false,
     &Storyteller::processHook},
    {"Task(", false, &Storyteller::byDefault},
    {"ZOT_Exit with code ", true, &Storyteller::exit},
}};

constexpr std::array<bool, 256> kFirstLetters = [] {
  std::array<bool, 256> letters{};
  for (const Rule& rule : kRules) {
    letters[static_cast<unsigned char>(rule.text.front())] = true;
  }
  return letters;
}();

// Most lines of a log are none of ours, and that is told by one letter.
const Rule* ruleFor(std::string_view text) {
  if (text.empty() || !kFirstLetters[static_cast<unsigned char>(text.front())]) {
    return nullptr;
  }
  const auto* rule = std::find_if(kRules.begin(), kRules.end(), [text](const Rule& candidate) {
    const size_t length = candidate.text.size();
    return text.starts_with(candidate.text) &&
           (!candidate.numberFollows ||
            (text.size() > length && std::isdigit(static_cast<unsigned char>(text[length])) != 0));
  });
  return rule == kRules.end() ? nullptr : rule;
}

Frame frameOf(std::string_view text) {
  Frame frame;
  frame.isCut = !text.ends_with('.');
  text.remove_suffix(frame.isCut ? 0 : 1);
  text.remove_suffix(text.ends_with(kCutMark) ? kCutMark.size() : 0);
  frame.text = text;
  if (frame.isCut) {
    return frame;  // a part of a name or number is another name or number
  }
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

// "NAME:ID" of the thread; the name may hold a colon.
void takeThread(std::string_view task, DeadLoop& loop) {
  const size_t colon = task.rfind(':');
  loop.thread = task.substr(0, colon);
  if (colon != std::string_view::npos) {
    Scanner(task.substr(colon + 1)).number(loop.threadId);
  }
}

int thresholdOf(std::string_view text) {
  constexpr std::array<std::string_view, 3> kOrdinals{"first", "second", "third"};
  const auto* found = std::find_if(kOrdinals.begin(), kOrdinals.end(),
                                   [text](auto ordinal) { return text.starts_with(ordinal); });
  return found == kOrdinals.end() ? 0 : 1 + static_cast<int>(found - kOrdinals.begin());
}

// A number that the line was cut in is not known. It is followed by something else in a whole one.
template <typename Number>
bool wholeNumber(Scanner& rest, Number& number) {
  Number value = 0;
  if (!rest.number(value) || rest.text().empty() || rest.text().starts_with(kCutMark)) {
    return false;
  }
  number = value;
  return true;
}

}  // namespace

bool beginsMessage(std::string_view text) { return ruleFor(text) != nullptr; }

bool Storyteller::tell(std::string_view text, std::string_view at) {
  const Rule* rule = ruleFor(text);
  if (rule != nullptr) {
    Message message{Scanner(text.substr(rule->text.size())), LogTime(at)};
    (this->*rule->take)(message);
    if (isOpen()) {
      tellings_->heardOf(*telling_);
    }
  }
  return rule != nullptr;
}

void Storyteller::crossing(Message& message) {
  std::string_view task;
  if (!message.rest.textBeforeLast("] trigger ", task, kMostTaskBytes)) {
    return;
  }
  Crossing crossing{thresholdOf(message.rest.text()), message.at, 0, true};
  if (crossing.threshold == 0) {
    return;
  }
  DeadLoop seen;
  takeThread(task, seen);
  DeadLoop& known = silenceOf(seen.threadId);
  if (!known.silence.empty() && known.silence.back().threshold >= crossing.threshold) {
    known = {};  // it had been heard of in between
  }
  known.thread = seen.thread;
  known.threadId = seen.threadId;
  std::string_view ordinal;
  auto& [first, second, third] = known.thresholdsMs;
  Scanner& rest = message.rest;
  crossing.isCut = !rest.textBefore(" threshold timeout.(elapsed time = ", ordinal) ||
                   !wholeNumber(rest, crossing.silentMs) || !rest.skip(", first threshold = ") ||
                   !wholeNumber(rest, first) || !rest.skip(", second threshold = ") ||
                   !wholeNumber(rest, second) || !rest.skip(", third threshold = ") ||
                   !wholeNumber(rest, third);
  known.silence.push_back(crossing);
  if (crossing.threshold == 3) {
    begin(known);
  }
}

void Storyteller::signal(Message& message) {
  int number = 0;
  uint64_t thread = 0;
  if (!message.rest.number(number)) {
    return;
  }
  if (message.rest.skip(" is captured at ")) {
    captured(number, message.rest.text(), message.at);
  } else if (isOpen() && !current().captured && message.rest.skip(" send to thread ") &&
             message.rest.number(thread)) {
    current().signal = number;
    current().signalFailed = message.rest.skip(" unsuccessfully");
  }
}

void Storyteller::process(Message& message) {
  if (!reporting() || !current().process.empty()) {
    begin({});  // the line before it is lost, and with it whose report it is
  }
  current().captured = true;
  constexpr std::string_view kBehindName = ", pid: ";
  std::string_view name;
  if (message.rest.textBefore(kBehindName, name)) {
    wholeNumber(message.rest, current().processId);
  } else {
    name.remove_suffix(name.ends_with(kCutMark) ? kCutMark.size() : 0);
    name = name.substr(0, name.rfind(kBehindName.front()));
  }
  current().process = name;
}

void Storyteller::frame(Message& message) {
  size_t index = 0;
  // Others write messages that begin with a number too, but never a number and one word.
  if (!reporting() || !message.rest.number(index) || !message.rest.skip(" ") ||
      index >= kMostFrames) {
    return;
  }
  const Frame frame = frameOf(message.rest.text());
  if (frame.text.empty() || frame.text.find(' ') != std::string::npos) {
    return;
  }
  const std::vector<Frame>& frames = current().frames;
  if (index < frames.size() && !frames[index].text.empty()) {
    if (index > 0 || frames.front().text == frame.text) {
      return;  // the same line twice, or somebody else's
    }
    begin({});  // all that stands before the frames is lost
  }
  current().captured = true;
  current().frames.resize(std::max(current().frames.size(), index + 1));
  current().frames[index] = frame;
}

void Storyteller::byDefault(Message& message) {
  std::string_view thread;
  if (message.rest.textBefore(") deadloop detected with no process hook", thread)) {
    recall(thread);
    decide(&Decision::byDefault, message.at);
  }
}

void Storyteller::exit(Message& message) {
  int status = 0;
  if (!isOpen() || !wholeNumber(message.rest, status)) {
    return;
  }
  Decision& decision = current().decision;
  if (!decision.threadHook && !decision.processHook && (decision.byDefault || current().captured)) {
    decision.exitStatus = status;
    decision.at = decision.byDefault ? decision.at : message.at;
    end();
  }
}

DeadLoop& Storyteller::silenceOf(uint32_t threadId) {
  Silence& silence = silences_[threadId];
  silence.heardAt = ++crossings_;
  if (silences_.size() > kMostSilent) {
    silences_.erase(std::min_element(silences_.begin(), silences_.end(),
                                     [](const auto& one, const auto& other) {
                                       return one.second.heardAt < other.second.heardAt;
                                     }));
  }
  return silence.known;
}

void Storyteller::begin(const DeadLoop& loop) {
  end();
  telling_ = tellings_->begin(loop);
}

void Storyteller::end() {
  if (isOpen()) {
    telling_->isOpen = false;
    tellings_->tellEnded();
  }
}

void Storyteller::captured(int number, std::string_view stamp, const LogTime& at) {
  if (!reporting() || current().captured) {
    begin({});  // its beginning is not in this log, or nobody asked for it
  }
  current().signal = number;
  current().captured = true;
  current().reportedAt = at;
  current().isCaptureCut = !stamp.ends_with('.');
  stamp.remove_suffix(stamp.ends_with(kCutMark) ? kCutMark.size() : 0);
  current().captureStamp = stamp.substr(0, stamp.find_last_not_of('.') + 1);
}

// The line of the third threshold is lost, those of the others may be there.
void Storyteller::recall(std::string_view thread) {
  if (!isOpen() || !current().thread.empty()) {
    return;
  }
  DeadLoop* found = nullptr;
  for (auto& [id, silence] : silences_) {
    DeadLoop& known = silence.known;
    if (known.thread == thread && known.silence.back().threshold < 3) {
      found = found == nullptr ? &known : nullptr;
    }
  }
  current().thread = thread;
  if (found != nullptr) {
    current().threadId = found->threadId;
    current().thresholdsMs = found->thresholdsMs;
    current().silence = std::exchange(found->silence, {});
    silences_.erase(current().threadId);
  }
}

void Storyteller::decide(bool Decision::*what, const LogTime& at) {
  if (isOpen()) {
    current().decision.*what = true;
    current().decision.at = at;
  }
}

}  // namespace qurn::report
