// The example host as a user runs it: real threads, real signals, real timers, in a process of its
// own.
#include <gtest/gtest.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <string>
#include <vector>

#include "support/emulated.h"
#include "support/run_program.h"

// The sanitizer for threads runs handlers late, in its own frames, and slowly.
#if defined(__SANITIZE_THREAD__)
constexpr bool kOwnFrames = true;
constexpr int kManyDeadLoops = 300;
#else
constexpr bool kOwnFrames = false;
constexpr int kManyDeadLoops = 1000;
#endif

namespace {

// The host under its guard, which does not restart it unless told to.
ProgramRun runHost(const std::string& options, int mostSeconds = 30,
                   const std::string& guard = "--restarts 0") {
  const std::string host = QURN_EMULATOR QURN_HOST " --period 200 --thresholds 1,1,2 --seconds 5";
  return runProgram(QURN_EMULATOR QURN_GUARD " " + guard + " " + host +
                        " --config " QURN_HOST_CONFIG " " + options,
                    mostSeconds);
}

// Function names of the report's frames, without offsets.
std::vector<std::string> frames(const ProgramRun& run) {
  std::vector<std::string> names;
  for (size_t number = 0;; ++number) {
    const std::string mark = " #" + std::to_string(number) + " ";
    const size_t at = run.at(mark);
    if (at == std::string::npos) {
      return names;
    }
    const size_t start = at + mark.size();
    names.push_back(run.output.substr(start, run.output.find_first_of("+.", start) - start));
  }
}

TEST(FirstWatch, EndsAsItsDocumentationSays) {
  if (kOwnFrames) {
    GTEST_SKIP() << "the sanitizer keeps the signal back until pause returns";
  }
  const ProgramRun run = runProgram(QURN_EMULATOR FIRST_WATCH);
  EXPECT_EQ(run.status, 88) << run.output;
  EXPECT_TRUE(run.has(" main+")) << run.output;
}

struct Stuck {
  const char* scenario;
  std::vector<std::string> ours;  // innermost first; other frames may lie between and around
};

void PrintTo(const Stuck& stuck, std::ostream* out) { *out << stuck.scenario; }

class StuckWorker : public testing::TestWithParam<Stuck> {};

TEST_P(StuckWorker, IsReportedAndTheProcessEndsWithStatus88) {
  const std::string scenario = GetParam().scenario;
  const ProgramRun run = runHost("--scenario " + scenario);
  SCOPED_TRACE(run.output);
  EXPECT_EQ(run.status, 88);
  size_t last = 0;
  const std::string process = "Captured process: " + processName("qurn-host") + ", pid: ";
  for (const std::string& line : std::vector<std::string>{
           "guard: READY=1", "[worker-2:", "trigger first threshold", "trigger second threshold",
           "trigger third threshold", "is captured at", process,
           "Task(worker-2) deadloop detected with no process hook", "ZOT_Exit with code 88."}) {
    ASSERT_TRUE(run.has(line)) << line;
    if (line.rfind("guard", 0) != 0 && line[0] != '[') {
      EXPECT_GT(run.at(line), last) << line;
      last = run.at(line);
    }
  }
  EXPECT_TRUE(run.has("guard: WATCHDOG=1"));
  std::vector<std::string> ours;
  for (const std::string& name : frames(run)) {
    for (const std::string& mine : GetParam().ours) {
      if (name == mine) {
        ours.push_back(name);
      }
    }
  }
  if (!kOwnFrames) {
    EXPECT_EQ(ours, GetParam().ours);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Host, StuckWorker,
    testing::Values(Stuck{"loop", {"spin_until_rescued", "enter_a_loop", "worker_main"}},
                    Stuck{"sleep", {"sleep_in_the_kernel", "block_in_the_kernel", "worker_main"}}),
    [](const auto& stuck) { return std::string(stuck.param.scenario); });

TEST(Host, EndsWithStatus88WhereASectionHangsOrARebootIsAsked) {
  const ProgramRun section = runHost("--scenario sdk --seconds 9");
  EXPECT_EQ(section.status, 88);
  EXPECT_TRUE((kOwnFrames || section.has(" spin_until_rescued")) &&
              section.has("Section registered.") && section.has("deadloop process hook start.") &&
              !section.has("hook end."))
      << section.output;
  const ProgramRun reboot = runHost("--scenario reboot");
  EXPECT_EQ(reboot.status, 88);
  EXPECT_TRUE(reboot.has("Frame reboot announce.") && !reboot.has("trigger third"))
      << reboot.output;
}

// ---- under its guard, over several lives

size_t count(const ProgramRun& run, const std::string& text) {
  size_t times = 0;
  for (size_t at = run.at(text); at != std::string::npos; at = run.output.find(text, at + 1)) {
    ++times;
  }
  return times;
}

TEST(Guarded, ADeadLoopIsReportedEndsTheProcessAndItIsRestarted) {
  const ProgramRun run = runHost("--scenario loop", 60, "--restarts 2 --delay 0.2");
  SCOPED_TRACE(run.output);
  EXPECT_EQ(run.status, 88);
  EXPECT_EQ(count(run, "guard: READY=1"), 3U);
  EXPECT_EQ(count(run, "Captured process"), 3U);
  EXPECT_EQ(count(run, "guard: ended with status 88"), 3U);
  const std::string first = "guard: restart 1 of 2 in 0.2 s";
  EXPECT_LT(run.at("ZOT_Exit with code 88."), run.at(first));
  EXPECT_LT(run.at(first), run.at("guard: restart 2 of 2 in 0.4 s"));
}

TEST(Guarded, AStoppedProcessIsKilledAndRestarted) {
  const ProgramRun run =
      runHost("--scenario freeze", 60, "--restarts 1 --delay 0.1 --watchdog 1.5");
  SCOPED_TRACE(run.output);
  EXPECT_EQ(run.status, 128 + SIGKILL);
  EXPECT_EQ(count(run, "guard: READY=1"), 2U);
  EXPECT_EQ(count(run, "guard: no heartbeat for 1.5 s, killed"), 2U);
  EXPECT_EQ(count(run, "guard: restart"), 1U);
}

TEST(Guarded, OtherEndsAreHandedOn) {
  const std::pair<const char*, int> commands[] = {{"sh -c 'exit 3'", 3},
                                                  {"sh -c 'kill -SEGV $$'", 128 + SIGSEGV},
                                                  {"no-such-program", 127},
                                                  {"--watchdog 0 true", 2}};
  for (const auto& [command, status] : commands) {
    const ProgramRun run = runProgram(QURN_EMULATOR QURN_GUARD " " + std::string(command));
    EXPECT_EQ(run.status, status) << run.output;
    EXPECT_FALSE(run.has("guard: restart")) << run.output;
  }
}

TEST(Guarded, ARequestToStopReachesTheService) {
  // The shell that stands between sends it to the guard, which alone is its child.
  const ProgramRun run = runProgram("sh -c '" QURN_EMULATOR QURN_GUARD " " QURN_EMULATOR QURN_HOST
                                    " --scenario healthy --seconds 0 --config " QURN_HOST_CONFIG
                                    " & sleep 3; kill $!; wait $!'");
  SCOPED_TRACE(run.output);
  EXPECT_EQ(run.status, 0);
  EXPECT_TRUE(run.has("host: done"));
  EXPECT_TRUE(run.has("guard: ended with status 0"));
}

TEST(Host, DoesNotGrowOverManyDeadLoops) {
  const ProgramRun run = runHost("--scenario soak --thresholds 20,30,40", 100);
  ASSERT_EQ(run.status, 0);
  std::array<long, 2> kib{};
  std::array<int, 2> descriptors{};
  std::array<int, 2> threads{};
  int deadLoops = 0;
  for (size_t i = 0, from = 0; i < 2; ++i) {
    from = run.output.find("host: after ", from);
    ASSERT_NE(from, std::string::npos);
    ASSERT_EQ(sscanf(run.output.c_str() + from,
                     "host: after %d dead loops: %ld KiB, %d descriptors, %d threads", &deadLoops,
                     &kib[i], &descriptors[i], &threads[i]),
              4);
    ++from;
  }
  EXPECT_GE(deadLoops, kManyDeadLoops);
  EXPECT_EQ(descriptors[1], descriptors[0]);
  EXPECT_LE(threads[1], threads[0]);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // which keep what is freed
  EXPECT_TRUE(kEmulated || kib[1] <= kib[0] + kib[0] / 10 + 256) << kib[1] << " after " << kib[0];
#endif
}

struct Survivor {
  const char* options;
  std::vector<std::string> says;
  std::vector<std::string> never;
};

void PrintTo(const Survivor& survivor, std::ostream* out) { *out << survivor.options; }

class Survival : public testing::TestWithParam<Survivor> {};

TEST_P(Survival, EndsWithStatus0AndSaysWhatHappened) {
  const ProgramRun run = runHost(std::string("--scenario ") + GetParam().options);
  SCOPED_TRACE(run.output);
  EXPECT_EQ(run.status, 0);
  EXPECT_TRUE(run.has("host: done"));
  EXPECT_TRUE(run.has("guard: WATCHDOG=1"));
  for (const std::string& text : GetParam().says) {
    EXPECT_TRUE(run.has(text)) << text;
  }
  for (const std::string& text : GetParam().never) {
    EXPECT_FALSE(run.has(text)) << text;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Host, Survival,
    testing::Values(
        Survivor{"hook",
                 {"the worker's hook was told of", "deadloop process hook end."},
                 {"default strategy"}},
        Survivor{"warn", {"host: warned of thread", ", policy 1"}, {"trigger third"}},
        Survivor{"bridge --thresholds 1,2,3 --seconds 7",
                 {"ZOT set heart monitor of thread (", "component: told of",
                  kOwnFrames ? "" : " component_loop"},
                 {"default strategy"}},
        Survivor{"component",
                 {"ZOT set heart monitor of thread (", "component: finalised, all well",
                  "host: the component holds 0 blocks, 0 bytes"},
                 {"trigger third", "Block ", "still holds"}},
        Survivor{"ignore", {"returned EPIPE, and still here after SIGHUP"}, {"trigger third"}},
        Survivor{"exit", {"Task deadloop entry, task[worker-2:"}, {"trigger third"}},
        Survivor{"healthy --thresholds 20,30,40", {}, {" error ", "threshold timeout"}}));

}  // namespace
