// Dead loops that are stuck at the same place, told once.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "dead_loop.h"

namespace qurn::report {

using Counts = std::map<std::string, size_t>;

struct Group {
  size_t count = 0;
  LogTime first;
  LogTime last;
  uint32_t longestSilenceMs = 0;
  Counts processes;
  Counts threads;
  Counts decisions;
  DeadLoop example;  // the first with the most of its stack
};

// By the names of the stuck stack: where it waits and where code lies in memory differ from one
// time to the next.
class Groups {
 public:
  void add(const DeadLoop& loop);
  // The most frequent first.
  [[nodiscard]] std::vector<Group> sorted() const;

 private:
  std::map<std::string, size_t> places_;  // by what is the same in all of one group
  std::vector<Group> groups_;
};

// The stack with its outermost frame first, as tools for flame graphs read it.
std::string collapsedStack(const DeadLoop& loop);

}  // namespace qurn::report
