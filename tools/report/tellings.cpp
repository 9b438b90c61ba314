#include "tellings.h"

#include <utility>

namespace qurn::report {
namespace {

// Nothing in a log says that a hook ends the report of a thread that is never heard of again. So
// many others may begin before it is told as it is, which bounds what is kept.
constexpr size_t kMostWaiting = 1000;

}  // namespace

std::shared_ptr<Telling> Tellings::begin(DeadLoop loop) {
  while (all_.size() >= kMostWaiting) {
    tellFirst();
  }
  all_.push_back(std::make_shared<Telling>(Telling{std::move(loop), true, now_}));
  return all_.back();
}

void Tellings::tellEnded() {
  while (!all_.empty() && !all_.front()->isOpen) {
    tellFirst();
  }
}

void Tellings::passTime() {
  ++now_;
  for (const auto& telling : all_) {
    telling->isOpen = telling->isOpen && now_ - telling->heardAt <= 2;
  }
  tellEnded();
}

void Tellings::finish() {
  while (!all_.empty()) {
    tellFirst();
  }
}

void Tellings::tellFirst() {
  const std::shared_ptr<Telling> first = std::move(all_.front());
  all_.pop_front();
  first->isOpen = false;
  sink_(std::move(first->loop));
}

}  // namespace qurn::report
