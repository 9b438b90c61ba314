// The example host as a user runs it: real threads, real signals, real timers, in a process of its
// own.
#include <gtest/gtest.h>

#include <algorithm>
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

struct Story {
  const char* options;
  int status;
  std::vector<std::string> says;  // in this order
  std::vector<std::string> never;
  std::vector<std::string> frames;  // of ours, innermost first; others may lie between and around
};

void PrintTo(const Story& story, std::ostream* out) { *out << story.options; }

class Host : public testing::TestWithParam<Story> {};

TEST_P(Host, TellsItsStoryInOrderAndEndsAsItShould) {
  const Story& story = GetParam();
  const ProgramRun run = runHost(std::string("--scenario ") + story.options);
  SCOPED_TRACE(run.output);
  EXPECT_EQ(run.status, story.status);
  EXPECT_TRUE(run.has("guard: WATCHDOG=1") || run.seconds < 3);
  EXPECT_EQ(run.has("host: done"), story.status == 0);
  size_t last = 0;
  for (const std::string& text : story.says) {
    const size_t at = run.output.find(text, last);
    ASSERT_NE(at, std::string::npos) << text;
    last = at;
  }
  for (const std::string& text : story.never) {
    EXPECT_FALSE(run.has(text)) << text;
  }
  std::vector<std::string> ours = frames(run);
  std::erase_if(ours, [&](const std::string& name) {
    return std::find(story.frames.begin(), story.frames.end(), name) == story.frames.end();
  });
  EXPECT_TRUE(kOwnFrames || ours == story.frames) << testing::PrintToString(ours);
}

// What every report of the second worker says, ending with its process's end.
std::vector<std::string> endByDefault() {
  return {"guard: READY=1",
          "[worker-2:",
          "first threshold timeout",
          "second threshold timeout",
          "third threshold timeout",
          "is captured at",
          "Captured process: " + processName("qurn-host") + ", pid: ",
          "Task(worker-2) deadloop detected with no process hook",
          "ZOT_Exit with code 88."};
}

INSTANTIATE_TEST_SUITE_P(
    Scenarios, Host,
    testing::Values(
        Story{
            "loop", 88, endByDefault(), {}, {"spin_until_rescued", "enter_a_loop", "worker_main"}},
        Story{"sleep",
              88,
              endByDefault(),
              {},
              {"sleep_in_the_kernel", "block_in_the_kernel", "worker_main"}},
        Story{"sdk --seconds 9",
              88,
              {"Section registered.", "deadloop process hook start."},
              {"hook end."},
              {"spin_until_rescued"}},
        Story{"reboot", 88, {"Frame reboot announce."}, {"trigger third"}, {}},
        Story{"hook",
              0,
              {"the worker's hook was told of", "deadloop process hook end."},
              {"default strategy"},
              {}},
        Story{"warn", 0, {"host: warned of thread", ", policy 1"}, {"trigger third"}, {}},
        Story{"bridge --thresholds 1,2,3 --seconds 7",
              0,
              {"ZOT set heart monitor of thread (", "component: told of"},
              {"default strategy"},
              {"component_loop"}},
        Story{"component",
              0,
              {"ZOT set heart monitor of thread (", "component: finalised, all well",
               "host: the component holds 0 blocks, 0 bytes"},
              {"trigger third", "Block ", "still holds"},
              {}},
        Story{"ignore", 0, {"returned EPIPE, and still here after SIGHUP"}, {"trigger third"}, {}},
        Story{"exit", 0, {"Task deadloop entry, task[worker-2:"}, {"trigger third"}, {}},
        Story{"healthy --thresholds 20,30,40", 0, {}, {" error ", "threshold timeout"}, {}}),
    [](const auto& story) {
      const std::string options = story.param.options;
      return options.substr(0, options.find(' '));
    });

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

TEST(Soak, DoesNotGrowOverManyDeadLoops) {
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

}  // namespace
