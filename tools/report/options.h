// What the user asks for.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "selection.h"

namespace qurn::report {

constexpr int kFound = 0;
constexpr int kNoneFound = 1;
constexpr int kMistake = 2;

struct Options {
  bool json = false;
  bool group = false;
  bool collapsed = false;
  bool follow = false;
  Selection selection;
  std::string program;
  uint64_t base = 0;
  std::string maps;
  std::vector<std::string> logs;
};

// Ends the program after --help, or a mistake.
Options parseOptions(int argc, char** argv);

void complain(const std::string& why);
// Ends the program.
[[noreturn]] void fail(const std::string& why);

}  // namespace qurn::report
