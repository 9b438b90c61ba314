// Names and source lines from the debug information of a program and its libraries.
#pragma once

#include <elfutils/libdwfl.h>

#include <cstdint>
#include <memory>
#include <string>

#include "dead_loop.h"

namespace qurn::report {

class Symbols {
 public:
  Symbols();

  // The program alone, loaded this far above the addresses in its file. False when it cannot be
  // read.
  bool addProgram(const std::string& path, uint64_t base);
  // Everything in the memory map of its process, as /proc/PID/maps had it. False when it cannot be
  // read.
  bool addMemoryMap(const std::string& path);

  // Adds what is known about the frame to it; `caller` when it is not the innermost one.
  void explain(Frame& frame, bool caller) const;

 private:
  using Session = std::unique_ptr<Dwfl, decltype(&dwfl_end)>;

  [[nodiscard]] uint64_t addressOf(const std::string& symbol) const;

  Session session_;
};

// The C++ name as people write it; other names as they are.
std::string demangled(const std::string& symbol);

}  // namespace qurn::report
