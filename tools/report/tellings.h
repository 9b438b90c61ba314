// Dead loops of which more may be told, and those that wait for one that began before them.
#pragma once

#include <deque>
#include <functional>
#include <memory>

#include "dead_loop.h"

namespace qurn::report {

using Sink = std::function<void(DeadLoop&&)>;

struct Telling {
  DeadLoop loop;
  bool isOpen = true;  // more may come
  unsigned heardAt = 0;
};

// Hands each on when nothing more belongs to it, in the order in which they began.
class Tellings {
 public:
  explicit Tellings(Sink sink) : sink_(std::move(sink)) {}

  std::shared_ptr<Telling> begin(DeadLoop loop);
  void heardOf(Telling& telling) const { telling.heardAt = now_; }
  void tellEnded();
  // Called at regular intervals where somebody waits: what was not heard of for two ends.
  void passTime();
  void finish();

 private:
  void tellFirst();

  Sink sink_;
  std::deque<std::shared_ptr<Telling>> all_;
  unsigned now_ = 0;
};

}  // namespace qurn::report
