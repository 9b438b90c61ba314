// Awkward places to be stuck in, each in a process of its own: what the report names, how the
// process ends, and what its signal handler did meanwhile.
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <regex>
#include <string>
#include <vector>

#include "hard_cases/handler_stack.h"
#include "support/run_program.h"

namespace {

using Names = std::vector<std::string>;

ProgramRun run(const std::string& name) { return runProgram(QURN_EMULATOR HARD_CASE " " + name); }

// The names of each report's frames, innermost first.
std::vector<Names> reports(const std::string& output) {
  const std::regex frame(R"( #(\d+) ([^+\n]*))");
  std::vector<Names> all;
  for (std::sregex_iterator at(output.begin(), output.end(), frame), end; at != end; ++at) {
    if ((*at)[1] == "0") {
      all.emplace_back();
    }
    all.back().push_back((*at)[2]);
  }
  return all;
}

// Those of our own places.
Names places(const Names& frames) {
  Names own;
  for (const std::string& name : frames) {
    if (name.rfind("at_", 0) == 0) {
      own.push_back(name);
    }
  }
  return own;
}

void expectSafeHandler(const std::string& output, int captures, bool painted) {
  EXPECT_EQ(output.find("forbidden:"), std::string::npos);
  std::smatch said;
  ASSERT_TRUE(std::regex_search(output, said,
                                std::regex(R"((\d+) captures, at most (\d+) bytes of stack)")));
  EXPECT_EQ(std::stoi(said[1]), captures);
  EXPECT_LT(std::stoul(said[2]), kMostHandlerStack);
  EXPECT_TRUE(!painted || std::stoi(said[2]) > 1000);
}

struct Case {
  const char* name;
  int status;
  size_t reports;
  Names places;  // innermost first; of a sampled case, where nobody chose the moment, the outermost
};

void PrintTo(const Case& one, std::ostream* out) { *out << one.name; }

constexpr size_t kSamples = 300;

class HardCases : public testing::TestWithParam<Case> {};

TEST_P(HardCases, EveryReportNamesThePlaceAndTheProcessEndsAsItShould) {
  const auto& [name, status, count, expected] = GetParam();
  const ProgramRun result = run(name);
  SCOPED_TRACE(count == kSamples ? "" : result.output);
  EXPECT_EQ(result.status, status);
  EXPECT_LT(result.seconds, 30);
  EXPECT_FALSE(result.has("CHANGED")) << "registers or errno";
  const std::vector<Names> written = reports(result.output);
  ASSERT_EQ(written.size(), count);
  for (const Names& frames : written) {
    Names own = places(frames);
    own.erase(own.begin(), count == kSamples && !own.empty() ? own.end() - 1 : own.begin());
    ASSERT_EQ(own, expected) << testing::PrintToString(frames);
  }
  expectSafeHandler(result.output, static_cast<int>(count), std::string(name) != "end_of_stack");
}

Names levels(int deepest) {
  Names names{"at_spin"};
  for (int level = 1; level <= deepest; ++level) {
    names.push_back("at_level_" + std::to_string(level));
  }
  return names;
}

Names recursion() {
  Names names(20, "at_recursion");
  names[0] = "at_spin";
  return names;
}

INSTANTIATE_TEST_SUITE_P(
    Stuck, HardCases,
    testing::Values(
        Case{"leaf", 88, 1, levels(1)}, Case{"twelve", 88, 1, levels(12)},
        Case{"recursion", 88, 1, recursion()}, Case{"mutex", 88, 1, {"at_mutex"}},
        Case{"condition", 88, 1, {"at_condition"}}, Case{"read", 88, 1, {"at_read"}},
        Case{"sleep", 88, 1, {"at_sleep"}}, Case{"epoll", 88, 1, {"at_epoll"}},
        Case{"join", 88, 1, {"at_join"}},
        Case{"allocator", 88, 1, {"at_spin", "at_allocator_lock", "at_allocator"}},
        Case{"stream", 88, 1, {"at_spin", "at_stream"}},
        Case{"phdr", 88, 1, {"at_spin", "at_phdr_callback", "at_phdr"}},
        Case{"beside_allocator", 88, 1, levels(1)}, Case{"beside_stream", 88, 1, levels(1)},
        Case{"beside_phdr", 88, 1, levels(1)},
        Case{"handler", 88, 1, {"at_spin", "at_handler", "at_raise"}},
        Case{"alternate_stack", 88, 1, {"at_spin", "at_spin_with_alternate_stack"}},
        Case{"on_alternate_stack", 88, 1, {"at_spin", "at_handler", "at_raise_to_alternate_stack"}},
        Case{"end_of_stack", 88, 1, {"at_spin", "at_end_of_stack"}},
        Case{"stripped", 88, 1, {"at_library_entry", "at_stripped_library"}},
        Case{"main_thread", 88, 1, levels(1)}, Case{"registers", 0, 1, {"at_registers"}},
        Case{"two", 0, 2, levels(1)}, Case{"five", 0, 5, levels(1)},
        Case{"clock", 0, kSamples, {"at_clock"}}, Case{"churn", 0, kSamples, {"at_churn"}},
        Case{"printing", 0, kSamples, {"at_printing"}},
        Case{"walking", 0, kSamples, {"at_walking"}}),
    [](const auto& one) { return std::string(one.param.name); });

TEST(Stepped, TheWalkIsRightBeforeEveryInstruction) {
  const ProgramRun result = run("stepped");
  if (result.status == 77) {
    GTEST_SKIP() << result.output;
  }
  EXPECT_EQ(result.status, 0) << result.output;
}

TEST(Debugged, AThreadIsReportedOnceTheDebuggerLetsItGo) {
  const ProgramRun result = run("debugged");
  SCOPED_TRACE(result.output);
  const size_t letGo = result.output.find("the debugger lets go");
  if (result.output.find("no debugging here") != std::string::npos) {
    GTEST_SKIP() << "not allowed to trace";
  }
  EXPECT_EQ(result.status, 88);
  EXPECT_LT(result.output.find("Signal 36 send"), letGo);
  EXPECT_LT(letGo, result.output.find("is captured at"));
  ASSERT_EQ(reports(result.output).size(), 1U);
  EXPECT_EQ(places(reports(result.output)[0]), (Names{"at_spin", "at_debugged"}));
}

class Silenced : public testing::TestWithParam<const char*> {};

// Names need the loader's lock, which is held for good: the detection thread waits for it too, and
// its heartbeats stop.
TEST_P(Silenced, TheGuardNotices) {
  const ProgramRun result = run(GetParam());
  SCOPED_TRACE(result.output);
  EXPECT_EQ(result.status, 0);
  EXPECT_NE(result.output.find("trigger third threshold"), std::string::npos);
  EXPECT_NE(result.output.find("the heartbeats stopped"), std::string::npos);
  EXPECT_EQ(reports(result.output).size(), 0U);
  expectSafeHandler(result.output, 1, true);
}

INSTANTIATE_TEST_SUITE_P(Stuck, Silenced, testing::Values("loading", "beside_loading"),
                         [](const auto& one) { return std::string(one.param); });

}  // namespace
