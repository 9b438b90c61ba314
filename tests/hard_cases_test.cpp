// Awkward places to be stuck in, each in a process of its own: what the report names, how the
// process ends, and what its signal handler did meanwhile.
#include "hard_cases/hard_case.h"
#include "support/run_program.h"

namespace {

// The names of our own places in each report's frames, innermost first.
std::vector<std::string> reports(const std::string& output) {
  const std::regex frame(R"( #(\d+) (?:_Z\d+)?(at_\w+)?)");
  std::vector<std::string> all;
  for (std::sregex_iterator at(output.begin(), output.end(), frame), end; at != end; ++at) {
    if ((*at)[1] == "0") {
      all.emplace_back();
    }
    all.back() += (*at)[2].matched ? (*at)[2].str() + " " : "";
  }
  return all;
}

void expectSafeHandler(const std::string& output, size_t captures, unsigned long leastStack,
                       unsigned long mostStack) {
  const std::regex summary(R"((\d+) captures, at most (\d+) bytes of stack)");
  std::smatch said;
  ASSERT_TRUE(std::regex_search(output, said, summary));
  EXPECT_EQ(std::stoul(said[1]), captures);
  EXPECT_LT(std::stoul(said[2]), mostStack);
  EXPECT_GE(std::stoul(said[2]), leastStack);
}

// PLACES fits the names of our own places in each of so many reports, innermost first.
Program hardCase(const std::string& arguments, size_t count, const std::string& places,
                 const std::string& says = "") {
  const auto more = [=](const std::string& output) {
    const std::vector<std::string> written = reports(output);
    EXPECT_EQ(written.size(), count);
    for (const std::string& names : written) {
      ASSERT_TRUE(std::regex_match(names, std::regex(places + " "))) << names;
    }
    const bool painted = arguments.find("end_of_stack") == std::string::npos;
    // A walk that meets a fault takes a second signal frame.
    const bool faults = arguments.find("smashed_") != std::string::npos;
    expectSafeHandler(output, std::max(count, size_t{1}), painted ? 1001 : 0,
                      kMostHandlerStack * (faults ? 2 : 1));
  };
  const bool ends = arguments.starts_with("reported") || arguments.starts_with("left");
  return {QURN_EMULATOR HARD_CASE " " + arguments, ends ? 88 : 0, says, "forbidden: ... CHANGED",
          more};
}

std::string twelve() {
  std::string names = "at_spin at_leaf";
  for (int level = 1; level <= 12; ++level) {
    names += " at_levelILi" + std::to_string(level) + "EEvv";
  }
  return names + " at_twelve";
}

TEST(HardCases, EveryReportNamesThePlaceAndTheProcessEndsAsItShould) {
  const std::string spinning = "at_spin at_leaf";
  // Names need the loader's lock, which is held for good: the detection thread waits for it too,
  // and its heartbeats stop.
  const std::string silence = "trigger third threshold ... the heartbeats stopped";
  expectAll({
      hardCase("reported leaf", 1, spinning),
      hardCase("reported twelve", 1, twelve()),
      hardCase("reported recursion", 1, "at_spin( at_recurring){19}"),
      hardCase("reported mutex", 1, "at_mutex"),
      hardCase("reported condition", 1, "at_condition"),
      hardCase("reported read", 1, "at_read"),
      hardCase("reported sleep", 1, "at_sleep"),
      hardCase("reported epoll", 1, "at_epoll"),
      hardCase("reported join", 1, "at_join"),
      hardCase("reported allocator", 1, "at_spin at_allocator_lock at_allocator"),
      hardCase("reported stream", 1, "at_spin at_stream"),
      hardCase("reported phdr", 1, "at_spin at_phdr_callback at_phdr"),
      hardCase("reported leaf 1 allocator", 1, spinning),
      hardCase("reported leaf 1 stream", 1, spinning),
      hardCase("reported leaf 1 phdr", 1, spinning),
      hardCase("reported handler", 1, "at_spin at_handling at_handler"),
      hardCase("reported alternate_stack", 1, "at_spin at_alternate_stack"),
      hardCase("reported on_alternate_stack", 1, "at_spin at_handling at_on_alternate_stack"),
      hardCase("reported end_of_stack", 1, "at_spin at_end_of_stack"),
      hardCase("reported stripped", 1, "at_library_entry at_stripped"),
      hardCase("reported masked", 1, "at_spin at_masked"),
      hardCase("reported cancelled", 1, "at_spin at_cancelled"),
      hardCase("reported replaced", 1, "at_spin at_replaced"),
      hardCase("reported smashed_frame", 1, "at_spin at_smashing at_smashed_frame"),
      hardCase("reported smashed_return", 1, "at_spin at_smashing"),
      hardCase("reported leaf 0", 1, spinning),
      hardCase("rescued registers", 1, "at_registers"),
      hardCase("rescued leaf 2", 2, spinning),
      hardCase("left leaf", 1, spinning, "deadloop process hook start. ... with code 88"),
      hardCase("rescued leaf 5", 5, spinning),
      hardCase("silenced loading", 0, "", silence),
      hardCase("silenced leaf 1 loading", 0, "", silence),
      {QURN_EMULATOR HARD_CASE " unseen loading", 0, "the heartbeats stopped", "trigger"},
  });
}

// What is inside the place at that moment may be anything.
TEST(HardCases, AreReportedRightAtMomentsThatNobodyChose) {
  expectAll({hardCase("sampled clock", 300, "(at_\\w+ )*at_clock"),
             hardCase("sampled churn", 300, "(at_\\w+ )*at_churn"),
             hardCase("sampled printing", 300, "(at_\\w+ )*at_printing"),
             hardCase("sampled walking", 300, "(at_\\w+ )*at_walking")});
}

void expectUnless(const std::string& cannot, const Program& program) {
  const ProgramRun run = runProgram(program.command);
  if (run.has(cannot)) {
    GTEST_SKIP() << cannot;
  }
  expectOne(program, run);
}

TEST(Stepped, TheWalkIsRightBeforeEveryInstruction) {
  expectUnless("not on this machine", {QURN_EMULATOR HARD_CASE " stepped", 0, ", 0 wrong"});
}

TEST(Debugged, AThreadIsReportedOnceTheDebuggerLetsItGo) {
  expectUnless("no debugging here",
               hardCase("reported debugged", 1, "at_spin at_debugged",
                        "Signal 36 send ... the debugger lets go ... is captured at"));
}

}  // namespace
