// What the environment says about the log. A value that is none is told on standard error.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "record.h"

namespace tov::log {

struct Settings {
  bool isOff;   // nothing is written at all
  Level least;  // of a message, not of a report's lines
  std::string target;
  size_t fileBytes;    // a log file is rotated at
  size_t rotatedKept;  // so many that were are kept
};

Settings readSettings();

// Whose names are as those of the log's are: misspelt, perhaps.
std::vector<std::string> unknownVariables();

}  // namespace tov::log
