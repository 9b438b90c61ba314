// What the user asks for.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "symbols.h"

namespace qurn::inspect {

enum class Stacks : uint8_t { kNone, kSilent, kAll };
enum class Form : uint8_t { kText, kJson, kMetrics };

struct Options {
  std::string target;  // a process id, or the path of a core
  Stacks stacks = Stacks::kNone;
  bool isRecordShown = false;
  Form form = Form::kText;
  SymbolSources sources;
  std::chrono::milliseconds betweenLooks{100};
  std::optional<double> watchSeconds;
  std::optional<unsigned> awaitedLevel;  // 2 or 3
  std::string output;
};

// Ends the program after --help, or a mistake.
Options parseOptions(int argc, char** argv);

}  // namespace qurn::inspect
