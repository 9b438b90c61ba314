// A program as a test sees it from outside: what it says and how it ends.
#pragma once

#include <sys/wait.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <string>

#include "emulated.h"

struct ProgramRun {
  int status = -1;  // of its exit; -1 when a signal ended it
  double seconds = 0;
  std::string output;  // both streams

  [[nodiscard]] size_t at(const std::string& text) const { return output.find(text); }
  [[nodiscard]] bool has(const std::string& text) const { return at(text) != std::string::npos; }
};

// COMMAND is the shell's; QURN_EMULATOR stands before a program of ours. Status 124 when it takes
// too long.
inline ProgramRun runProgram(const std::string& command, int mostSeconds = 60) {
  ProgramRun run;
  const auto start = std::chrono::steady_clock::now();
  FILE* pipe =
      popen(("timeout " + std::to_string(mostSeconds) + " " + command + " 2>&1").c_str(), "r");
  std::array<char, 4096> text{};
  while (fgets(text.data(), text.size(), pipe) != nullptr) {
    run.output += text.data();
  }
  const int status = pclose(pipe);
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return run;
}
