// Tells of a log's dead loops while it grows.
#pragma once

#include <ostream>

#include "log_file.h"
#include "log_reader.h"

namespace qurn::report {

// Until a signal asks for the end, the writer of a pipe is gone, or nobody reads the output.
void follow(LogFile& file, LogReader& reader, std::ostream& out);

// Whether standard output is a pipe that nobody reads any more.
bool isReaderGone();

}  // namespace qurn::report
