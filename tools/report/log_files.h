// Which files are logs, and which of them were one log before it was rotated.
#pragma once

#include <string>
#include <vector>

namespace qurn::report {

// A log's files, oldest first.
using LogParts = std::vector<std::string>;

// Of these files and of those in these directories. `x.log.2.gz`, `x.log-20261126.zst`, `x.1.log`
// and `x.log` are one log; logs stand in the order of their first files here, those of a directory
// in the order in which they were last written to.
std::vector<LogParts> logsIn(const std::vector<std::string>& paths);

}  // namespace qurn::report
