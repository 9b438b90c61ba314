// Prints the dead loops that logs tell of, each as a trace with a timeline of the silence before
// it.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <iostream>
#include <memory>
#include <vector>

#include "log_reader.h"
#include "log_text.h"
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
    return options.group ? jsonGroupOutput(std::cout) : jsonOutput(std::cout);
  }
  const bool inColour = isatty(STDOUT_FILENO) == 1;
  return options.group ? textGroupOutput(std::cout, inColour) : textOutput(std::cout, inColour);
}

void readLog(const std::string& log, LogText& text) {
  const int file = log == "-" ? STDIN_FILENO : open(log.c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0) {
    fail("cannot read the log " + log);
  }
  std::vector<char> block(size_t{256} * 1024);
  for (ssize_t length = 0;
       (length = read(file, block.data(), block.size())) > 0 || (length < 0 && errno == EINTR);) {
    text.take({block.data(), static_cast<size_t>(std::max<ssize_t>(length, 0))});
  }
  text.end();
}

int report(const Options& options) {
  const Symbols symbols = symbolsFor(options);
  const std::unique_ptr<Output> output = outputFor(options);
  int status = kNoneFound;
  LogReader reader([&](DeadLoop&& loop) {
    for (Frame& frame : loop.frames) {
      symbols.explain(frame, &frame != &loop.frames.front());
    }
    output->tell(loop);
    status = kFound;
  });
  LogText text(reader);
  for (const std::string& log : options.logs) {
    readLog(log, text);
  }
  reader.finish();
  output->end();
  return status;
}

}  // namespace
}  // namespace qurn::report

int main(int argc, char** argv) {
  std::ios::sync_with_stdio(false);
  return qurn::report::report(qurn::report::parseOptions(argc, argv));
}
