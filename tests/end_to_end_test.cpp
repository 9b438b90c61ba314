// The example host as a user runs it, alone and under its guard: real threads, real signals, real
// timers, in a process of its own. Stories that take their time are told at once.
#include <csignal>

#include "support/run_program.h"

// The sanitizer for threads runs handlers late, in its own frames, and slowly.
#if defined(__SANITIZE_THREAD__)
constexpr bool kOwnFrames = true;
constexpr int kManyDeadLoops = 300;
#else
constexpr bool kOwnFrames = false;
constexpr int kManyDeadLoops = 1000;
#endif

#define GUARD QURN_EMULATOR QURN_GUARD " "
#define HOST                                                 \
  QURN_EMULATOR QURN_HOST " --config " QURN_HOST_CONFIG      \
                          " --period 200 --thresholds 1,1,2" \
                          " --seconds 5 --scenario "

namespace {

// Under a guard that does not restart it.
Program story(const std::string& options, int status, const std::string& says,
              const std::string& never = "host: done") {
  return {GUARD "--restarts 0 " HOST + options, status, "guard: READY=1 ... " + says, never};
}

// The host goes on, and is still watched when its story is over.
Program lives(const std::string& options, const std::string& says, const std::string& never) {
  return story(options, 0, says + " ... guard: WATCHDOG=1 ... host: done", never);
}

// Frames of ours, innermost first; others may lie between and around.
std::string inReport(const std::string& frames) { return kOwnFrames ? "" : frames + "+ ... "; }

// What a report of the second worker says, ending with its process's end.
std::string report(const std::string& frames) {
  return "guard: WATCHDOG=1 ... [worker-2: ... first threshold timeout ... second threshold timeout"
         " ... third threshold timeout ... is captured at ... Captured process: " +
         processName("qurn-host") + ", pid:  ... " + inReport(frames) +
         "Task(worker-2) deadloop detected with no process hook ... ZOT_Exit with code 88.";
}

std::string quoted(const std::string& text) {
  return '"' + std::regex_replace(text, std::regex("[$\"]"), "\\$&") + '"';
}

std::string shell(const std::string& command) { return "sh -c " + quoted(command); }

// Falls silent and is killed, after the command.
std::string silentHost(const std::string& command, const std::string& options = "") {
  return GUARD "--restarts 1 --delay 0.1 --watchdog 1.5 --before-kill " + quoted(command) + " " +
         options + HOST "freeze";
}

class Host : public testing::TestWithParam<int> {};

TEST_P(Host, TellsItsStoryInOrderAndEndsAsItShould) {
  std::vector<Program> stories{
      story("loop", 88, report("spin_until_rescued+ ... enter_a_loop+ ... worker_main")),
      story("sleep", 88, report("sleep_in_the_kernel+ ... block_in_the_kernel+ ... worker_main")),
      story("sdk --seconds 9", 88,
            "Section registered. ... " + inReport("spin_until_rescued") +
                "deadloop process hook start.",
            "hook end. ... host: done"),
      story("reboot", 88, "Frame reboot announce.", "trigger third ... host: done"),
      lives("hook", "the worker's hook was told of ... deadloop process hook end.",
            "default strategy"),
      lives("warn", "host: warned of thread ... , policy 1", "trigger third"),
      lives("bridge --thresholds 1,2,3 --seconds 7",
            "ZOT set heart monitor of thread ( ... " + inReport("component_loop") +
                "component: told of",
            "default strategy"),
      lives("component",
            "ZOT set heart monitor of thread ( ... component: finalised, all well"
            " ... host: the component holds 0 blocks, 0 bytes",
            "trigger third ... Block  ... still holds"),
      story("ignore", 0, "returned EPIPE, and still here after SIGHUP ... host: done",
            "trigger third"),
      lives("exit", "Task deadloop entry, task[worker-2:", "trigger third"),
      lives("healthy --thresholds 20,30,40", "", " error  ... threshold timeout")};
  std::erase_if(stories, [](const Program& one) { return one.status != GetParam(); });
  expectAll(stories);
}

INSTANTIATE_TEST_SUITE_P(Scenarios, Host, testing::Values(0, 88),
                         testing::PrintToStringParamName());

TEST(Guarded, WhatMayHelpIsRestartedAndOtherEndsAreHandedOn) {
  const std::string loop = "guard: READY=1 ... Captured process ... guard: ended with status 88";
  const std::string freeze = "guard: READY=1 ... guard: no heartbeat for 1.5 s, killed";
  std::vector<Program> programs{
      {GUARD "--restarts 2 --delay 0.2 " HOST "loop", 88,
       loop + " ... guard: restart 1 of 2 in 0.2 s ... " + loop +
           " ... guard: restart 2 of 2 in 0.4 s ... " + loop,
       "host: done ... guard: restart 3"},
      {GUARD "--restarts 1 --delay 0.1 --watchdog 1.5 " HOST "freeze", 128 + SIGKILL,
       freeze + " ... guard: restart 1 of 1 ... " + freeze, "host: done ... guard: restart 2"},
      // The shell that stands between sends it to the guard, which alone is its child.
      {GUARD HOST "healthy --seconds 0 & sleep 3; kill $!; wait $!", 0,
       "host: done ... guard: ended with status 0", "guard: restart"},
      {"timeout -s KILL 50 env --ignore-signal=CHLD " GUARD + shell("exit 3"), 3, "",
       "guard: restart"},
      {"env --block-signal=USR1 " GUARD "grep SigBlk /proc/self/status", 0,
       "SigBlk:\t0000000000000000"},
      {GUARD "--restarts 1 --delay 0.1 " + shell("kill -SEGV $$"), 128 + SIGSEGV,
       "guard: ended with status 139 ... guard: restart 1 of 1 ... guard: ended with status 139 "
       "... "
       "guard: no restart, the limit is 1 within"},
      // The pauses alone are longer than the window.
      {"export lives=$(mktemp); " GUARD "--restarts 1 --within 0.2 --delay 0.5 " +
           shell("echo >>$lives; [ $(wc -l <$lives) -eq 3 ] || exit 88") +
           "; e=$?; rm $lives; exit $e",
       0, "guard: restart 1 of 1 ... guard: restart 1 of 1 ... guard: ended with status 0"},
      // Another child of the guard's process ends in the pause.
      {"sleep 1 & exec " GUARD "--restarts 1 --delay 3 " + shell("exit 88"), 88,
       "guard: started ... guard: restart 1 of 1 ... guard: started"},
      {GUARD "no-such-program", 127, "", "guard: restart"}};
  if (!kOwnFrames) {  // the sanitizer keeps the signal back until pause returns
    programs.push_back({QURN_EMULATOR FIRST_WATCH, 88, " main+", ""});
  }
  expectAll(programs);
}

// The service or the command itself asks the guard to stop, so that it happens in time.
TEST(Guarded, StopsWhateverItWaitsForAndTakesEvidenceBeforeItKills) {
  const std::string silent = "guard: no heartbeat for 1.5 s, before-kill command runs ... ";
  const std::string killed =
      "guard: no heartbeat for 1.5 s, killed ... guard: ended with status 137";
  const std::string never = "guard: restart";
  expectAll(
      {{GUARD "--stop-timeout 0.5 " + shell("trap : TERM; kill $PPID; while :; do sleep 0.1; done"),
        128 + SIGKILL, "guard: not ended 0.5 s after SIGTERM, killed", never},
       {GUARD + shell("(sleep 1; kill $PPID) & kill -STOP $$"), 128 + SIGTERM, "",
        never + " ... guard: not ended"},
       {GUARD + shell("kill -HUP $PPID; exec sleep 60"), 128 + SIGTERM, "", never},
       {"env --ignore-signal=HUP " GUARD + shell("kill -HUP $PPID; sleep 1; exit 5"), 5, ""},
       {"env --block-signal=TERM " + shell("kill $$; exec " GUARD "true"), 0, "", "guard: started"},
       {silentHost("grep State /proc/$1/status; [ $1 = $MAINPID ] && exit 7"), 128 + SIGKILL,
        silent + "State:\tT ... guard: before-kill command ended with status 7 ... " + killed +
            " ... guard: restart 1 of 1 ... " + silent + killed},
       {silentHost("(sleep 9; echo survived) & wait", "--before-kill-timeout 1 "), 128 + SIGKILL,
        silent + "guard: before-kill command not done after  ... " + killed, "survived"},
       // The command's $1 stays the service's.
       {silentHost("kill -KILL $1; sleep 1; [ -d /proc/$1 ] && echo kept"), 128 + SIGKILL,
        silent + "kept ... status 0 ... guard: ended with status 137 ... guard: restart 1 of 1",
        "killed"},
       {silentHost("kill $PPID; sleep 1; echo taken"), 128 + SIGKILL,
        silent + "taken ... " + killed, never},
       // Nobody reads what it tells, for now and for good.
       {"{ head -c 65536 /dev/zero; " GUARD + shell("kill $PPID; exec sleep 60") +
            "; echo status $? >&2; } | { sleep 5; echo late; }",
        0, "status 143 ... late"},
       {"{ " GUARD + shell("sleep 1; exit 5") + "; echo status $? >&2; } | true", 0, "status 5"},
       // Another process's messages stand before the heartbeats that came while it could not read.
       {GUARD "--watchdog 1.5 " +
            shell("(sleep 1; kill -STOP $$ $PPID; " HOST "healthy --seconds 1; kill -CONT $$; "
                  "sleep 2; kill -CONT $PPID) & exec " HOST "healthy --seconds 8"),
        0, "guard: WATCHDOG=1 ... guard: ended with status 0", "killed"}});
}

TEST(Guarded, TellsItsDefaultsAndRefusesWhatItCannotFollow) {
  std::vector<Program> programs{
      {GUARD "--help", 0,
       "--watchdog SECONDS ... default: 4) ... --restarts N ... default: 5) ... --within SECONDS "
       "... "
       "default: 300) ... --delay SECONDS ... default: 0.5) ... --stop-timeout SECONDS ... "
       "default: 10) ... --before-kill COMMAND ... none) ... --before-kill-timeout SECONDS ... "
       "10)"},
      {GUARD, 2, "qurn-guard: there is no COMMAND"},
      {GUARD "--no-such-option true", 2, "--no-such-option"},
      {GUARD "--before-kill \"\" true", 2, "qurn-guard: --before-kill takes a command, not \"\""}};
  for (const std::string wrong :
       {"watchdog 0", "watchdog 4s", "within nan", "delay -1", "delay 1e9", "stop-timeout inf",
        "before-kill-timeout 0.0001", "restarts -1", "restarts 1.5", "restarts 99999999999"}) {
    const std::string option = "--" + wrong.substr(0, wrong.find(' '));
    programs.push_back({GUARD "--" + wrong + " true", 2, "qurn-guard: " + option + " takes "});
  }
  expectAll(programs);
}

// Their workers beat every 50 ms. All ten at the same time, for longer than their third threshold.
TEST(Stopped, HealthyHostsGoOnOnceTheyAreContinued) {
  const std::string host = HOST "healthy --period 100 --thresholds 1,2,3 --seconds 12";
  std::string allEndWell = "status 0";
  for (int i = 1; i < 10; ++i) {
    allEndWell += " ... status 0";
  }
  expectAll({{"for i in 1 2 3 4 5 6 7 8 9 10; do " + host +
                  " & hosts=\"$hosts $!\"; done; sleep 4; kill -STOP $hosts; sleep 5; "
                  "kill -CONT $hosts; for one in $hosts; do wait $one; echo status $?; done",
              0, allEndWell, "third threshold"}});
}

TEST(Soak, DoesNotGrowOverManyDeadLoops) {
  const ProgramRun run = runProgram(GUARD "--restarts 0 " HOST "soak --thresholds 20,30,40", 100);
  ASSERT_EQ(run.status, 0) << run.output;
  const std::regex holdings(
      R"(host: after (\d+) dead loops: (\d+) KiB, (\d+) descriptors, (\d+) threads)");
  std::vector<std::array<int, 4>> told;
  for (std::sregex_iterator at(run.output.begin(), run.output.end(), holdings), end; at != end;
       ++at) {
    told.push_back({stoi((*at)[1]), stoi((*at)[2]), stoi((*at)[3]), stoi((*at)[4])});
  }
  ASSERT_EQ(told.size(), 2U);
  EXPECT_GE(told[1][0], kManyDeadLoops);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // which keep what is freed
  EXPECT_TRUE(kEmulated || told[1][1] <= told[0][1] + told[0][1] / 10 + 256) << told[1][1];
#endif
  EXPECT_EQ(told[1][2], told[0][2]);
  EXPECT_LE(told[1][3], told[0][3]);
}

}  // namespace
