// What the environment says about the log. What it says wrongly is told on standard error.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

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

}  // namespace tov::log
