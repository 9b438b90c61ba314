// Prints the dead loops that logs tell of, each as a trace with a timeline of the silence before
// it.
#include <unistd.h>

#include <iostream>
#include <memory>
#include <vector>

#include "follow.h"
#include "log_file.h"
#include "log_files.h"
#include "log_reader.h"
#include "options.h"
#include "output.h"
#include "symbols.h"

namespace qurn::report {
namespace {

Symbols symbolsFor(const Options& options) {
  Symbols symbols;
  if (!options.program.empty() && !symbols.addProgram(options.program, options.base)) {
    fail("cannot read the program " + options.program);
  }
  if (!options.maps.empty() && !symbols.addMemoryMap(options.maps)) {
    fail("cannot read the memory map " + options.maps);
  }
  return symbols;
}

std::unique_ptr<Output> outputFor(const Options& options) {
  if (options.collapsed) {
    return collapsedOutput(std::cout);
  }
  if (options.json) {
    return options.group    ? jsonGroupOutput(std::cout)
           : options.follow ? jsonLineOutput(std::cout)
                            : jsonOutput(std::cout);
  }
  const bool inColour = isatty(STDOUT_FILENO) == 1;
  return options.group ? textGroupOutput(std::cout, inColour) : textOutput(std::cout, inColour);
}

// False when some of it could not be read.
bool readLog(const LogParts& parts, bool isFollowed, LogReader& reader) {
  bool isWell = true;
  LogText text(reader);
  for (const std::string& part : parts) {
    LogFile file(part, text);
    if (isFollowed && file.isOpen() && &part == &parts.back()) {
      follow(file, reader, std::cout);
    } else {
      file.readToEnd();
    }
    isWell = file.end() && isWell;
  }
  reader.finish();
  return isWell;
}

int report(const Options& options) {
  const Symbols symbols = symbolsFor(options);
  const std::unique_ptr<Output> output = outputFor(options);
  int status = kNoneFound;
  const auto tell = [&](DeadLoop&& loop) {
    if (!options.selection.has(loop)) {
      return;
    }
    for (Frame& frame : loop.frames) {
      symbols.explain(frame, &frame != &loop.frames.front());
    }
    output->tell(loop);
    status = kFound;
  };
  bool isWell = true;
  const std::vector<LogParts> logs = logsIn(options.logs);
  for (const LogParts& log : logs) {
    LogReader reader(tell);
    isWell = readLog(log, options.follow && &log == &logs.back(), reader) && isWell;
  }
  output->end();
  if (!std::cout.flush() && !isReaderGone()) {
    fail("cannot write all of it");
  }
  return isWell ? status : kMistake;
}

}  // namespace
}  // namespace qurn::report

int main(int argc, char** argv) {
  std::ios::sync_with_stdio(false);
  return qurn::report::report(qurn::report::parseOptions(argc, argv));
}
