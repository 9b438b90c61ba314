// Makes dead loops of the library's messages.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "dead_loop.h"
#include "scanner.h"

namespace qurn::report {

// Whether the text begins as one of the messages that tell of a dead loop.
bool beginsMessage(std::string_view text);

// What one writer tells, line by line. A line that is lost or cut costs what it held and no more.
class Storyteller {
 public:
  explicit Storyteller(std::vector<DeadLoop>& loops) : loops_(loops) {}

  // False when the text begins as no message does.
  bool tell(std::string_view text, std::string_view at);

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
  DeadLoop& current() { return loops_[index_]; }
  [[nodiscard]] bool reporting() const {
    return open_ && !loops_[index_].decision.made() && !loops_[index_].decision.exitStatus;
  }

  void begin(const DeadLoop& loop);
  void captured(int number, std::string_view stamp, const LogTime& at);
  void recall(std::string_view thread);
  void decide(bool Decision::*what, const LogTime& at);

  std::vector<DeadLoop>& loops_;
  std::map<uint32_t, DeadLoop> silences_;  // what is known so far, by thread
  size_t index_ = 0;
  bool open_ = false;  // the dead loop at index_ may have more to come
};

}  // namespace qurn::report
