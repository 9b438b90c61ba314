// Dead loops as people and as machines read them.
#pragma once

#include <memory>
#include <ostream>

#include "dead_loop.h"
#include "group.h"

namespace qurn::report {

class Output {
 public:
  Output() = default;
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;
  virtual ~Output() = default;

  virtual void tell(const DeadLoop& loop) = 0;
  virtual void end() {}
};

std::unique_ptr<Output> textOutput(std::ostream& out, bool inColour);
// Times as the log has them, durations in milliseconds, null for what it does not tell: one array.
std::unique_ptr<Output> jsonOutput(std::ostream& out);
// An object a line, for whoever does not wait for the end.
std::unique_ptr<Output> jsonLineOutput(std::ostream& out);

// These write at the end.
std::unique_ptr<Output> textGroupOutput(std::ostream& out, bool inColour);
std::unique_ptr<Output> jsonGroupOutput(std::ostream& out);
std::unique_ptr<Output> collapsedOutput(std::ostream& out);

// How a dead loop ended, as people would say it.
std::string decisionText(const DeadLoop& loop);

}  // namespace qurn::report
