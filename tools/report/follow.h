// Tells of a log's dead loops while it grows.
#pragma once

#include <functional>
#include <ostream>

#include "log_reader.h"

namespace qurn::report {

struct Growing {
  std::function<bool()> read;       // what there is; false at an end for good
  std::function<int()> descriptor;  // that tells of more, or -1
};

// Until a signal asks for the end, the writer of a pipe is gone, or nobody reads the output.
void follow(const Growing& log, LogReader& reader, std::ostream& out);

// Whether standard output is a pipe that nobody reads any more.
bool isReaderGone();

}  // namespace qurn::report
