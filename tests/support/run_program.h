// Programs as a test sees them from outside: what they say and how they end.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <functional>
#include <future>
#include <regex>
#include <string>
#include <vector>

#include "emulated.h"

struct ProgramRun {
  int status = -1;     // of its exit, 128 and more for a signal, 124 when it takes too long
  std::string output;  // both streams

  [[nodiscard]] size_t at(const std::string& text) const { return output.find(text); }
  [[nodiscard]] bool has(const std::string& text) const { return at(text) != std::string::npos; }
};

// COMMAND is the shell's, without single quotes; QURN_EMULATOR stands before a program of ours.
inline ProgramRun runProgram(const std::string& command, int mostSeconds = 60) {
  ProgramRun run;
  const std::string limit = "timeout " + std::to_string(mostSeconds);
  FILE* pipe = popen((limit + " sh -c '" + command + "' 2>&1").c_str(), "r");
  std::array<char, 4096> text{};
  while (fgets(text.data(), text.size(), pipe) != nullptr) {
    run.output += text.data();
  }
  const int status = pclose(pipe);
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

// "one ... other": what stands between may be anything.
inline std::vector<std::string> pieces(const std::string& texts) {
  const std::regex between(R"( \.\.\. )");
  return {std::sregex_token_iterator(texts.begin(), texts.end(), between, -1), {}};
}

inline void expectInOrder(const std::string& output, const std::string& texts) {
  size_t from = 0;
  for (const std::string& piece : pieces(texts)) {
    const size_t at = output.find(piece, from);
    ASSERT_NE(at, std::string::npos) << "not in its place: " << piece;
    from = at + piece.size();
  }
}

struct Program {
  std::string command;
  int status;
  std::string says;        // pieces, in this order
  std::string never = "";  // pieces, none of which it says
  std::function<void(const std::string& output)> more = nullptr;
};

inline void expectOne(const Program& program, const ProgramRun& run) {
  SCOPED_TRACE(program.command + "\n" + run.output);
  EXPECT_EQ(run.status, program.status);
  expectInOrder(run.output, program.says);
  for (const std::string& piece : pieces(program.never)) {
    EXPECT_FALSE(!piece.empty() && run.has(piece)) << piece;
  }
  if (program.more != nullptr) {
    program.more(run.output);
  }
}

// All at once, so that they share the time that they wait.
inline void expectAll(const std::vector<Program>& programs) {
  std::vector<std::future<ProgramRun>> runs;
  for (const Program& program : programs) {
    runs.push_back(std::async(std::launch::async, runProgram, program.command, 100));
  }
  for (size_t i = 0; i < runs.size(); ++i) {
    expectOne(programs[i], runs[i].get());
  }
}
