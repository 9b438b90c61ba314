// Makes dead loops of the library's messages.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string_view>

#include "dead_loop.h"
#include "scanner.h"
#include "tellings.h"

namespace qurn::report {

// What stands at the end of a line that the library cut.
constexpr std::string_view kCutMark = " ... (cut)";

// Whether the text begins as one of the messages that tell of a dead loop.
bool beginsMessage(std::string_view text);

// What one writer tells, line by line. A line that is lost or cut costs what it held and no more.
class Storyteller {
 public:
  explicit Storyteller(Tellings& tellings) : tellings_(&tellings) {}

  // False when the text begins as no message does.
  bool tell(std::string_view text, std::string_view at);
  [[nodiscard]] size_t silentCount() const { return silences_.size(); }

  struct Message {
    Scanner rest;  // behind the text that it was recognised by
    LogTime at;
  };
  using Take = void (Storyteller::*)(Message& message);

  void crossing(Message& message);
  void signal(Message& message);
  void process(Message& message);
  void frame(Message& message);
  void threadHook(Message& message) { decide(&Decision::threadHook, message.at); }
  void processHook(Message& message) { decide(&Decision::processHook, message.at); }
  void byDefault(Message& message);
  void exit(Message& message);

 private:
  DeadLoop& current() { return telling_->loop; }
  [[nodiscard]] bool isOpen() const { return telling_ != nullptr && telling_->isOpen; }
  [[nodiscard]] bool reporting() const {
    return isOpen() && !telling_->loop.decision.made() && !telling_->loop.decision.exitStatus;
  }

  DeadLoop& silenceOf(uint32_t threadId);
  void begin(const DeadLoop& loop);
  void end();
  void captured(int number, std::string_view stamp, const LogTime& at);
  void recall(std::string_view thread);
  void decide(bool Decision::*what, const LogTime& at);

  struct Silence {
    DeadLoop known;
    uint64_t heardAt = 0;  // as a count of crossings
  };

  Tellings* tellings_;
  std::map<uint32_t, Silence> silences_;  // by thread
  uint64_t crossings_ = 0;
  std::shared_ptr<Telling> telling_;  // the newest
};

}  // namespace qurn::report
