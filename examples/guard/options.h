// What the guard's command line says.
#pragma once

#include <chrono>

struct Options {
  std::chrono::milliseconds watchdog{4'000};
  int restarts = 5;
  std::chrono::milliseconds within{300'000};
  std::chrono::milliseconds delay{500};  // before the first restart
  std::chrono::milliseconds stopTimeout{10'000};
  const char* beforeKill = nullptr;  // a shell's command
  std::chrono::milliseconds beforeKillTimeout{10'000};
  char** command = nullptr;
};

// Ends the program where the command line asks for help or cannot be followed.
Options parseOptions(int argc, char** argv);
