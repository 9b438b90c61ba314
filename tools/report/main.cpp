// Prints the dead loops that logs tell of, each as a trace with a timeline of the silence before
// it.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <vector>

#include "explainer.h"
#include "log_reader.h"
#include "log_text.h"
#include "options.h"
#include "output.h"

namespace qurn::report {
namespace {

Explainer explainerFor(const Options& options) {
  try {
    return {{options.program, options.base, options.maps, mapDirectoriesBeside(options.logs)},
            [](const std::string& warning) { std::cerr << "qurn-report: " << warning << "\n"; }};
  } catch (const std::runtime_error& mistake) {
    fail(mistake.what());
  }
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
  Explainer explainer = explainerFor(options);
  const std::unique_ptr<Output> output = outputFor(options);
  int status = kNoneFound;
  LogReader reader([&](DeadLoop&& loop) {
    explainer.explain(loop);
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
