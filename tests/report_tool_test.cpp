// The reader of reports, as a user runs it: over logs that the example host wrote, in whole and in
// pieces, and over one that it is writing.
#include <unistd.h>

#include <fstream>

#include "support/run_program.h"

#define REPORT QURN_EMULATOR QURN_REPORT " "

// Named by nothing but the debug information.
static void hiddenFunction() { std::puts("hidden"); }

namespace {

// What it prints of the log that the shell's commands make of the recorded ones, for people and for
// machines.
void expectGolden(const std::string& name, const std::string& log) {
  const std::string piped = "cd " GOLDEN " && (" + log + ") | " REPORT;
  expectAll({{piped + "| diff " + name + ".txt -", 0, ""},
             {piped + "--json /dev/stdin | diff " + name + ".json -", 0, ""}});
}

TEST(Report, TellsWhatTheLogTells) {
  expectGolden("whole", "cat loop.log");
  expectGolden("mixed", R"(paste -d "\n" loop.log hook.log)");
  // Both hooks, and an end that is not the watch's; then another dead loop after a recovery.
  expectGolden("hooks", R"((sed "/hook start/{p;s/process hook/process global hook/}
                                 /hook end/s/Frame.*/ZOT_Exit with code 3. (process id = 5)/" hook.log
                            sed "/first threshold timeout/p" loop.log) |
                           sed "s/tovDeadloopTask:[0-9]*/tovDeadloopTask:50/")");
  expectGolden("incomplete", R"(printf "\377"; sed "1,/send to thread/d" loop.log
                                sed "/ZOT_Exit/d" loop.log
                                sed "/ #3 /q" loop.log
                                sed "/send to thread/q" loop.log
                                sed "/send to thread/{p;s/\.$/ unsuccessfully./;q}" hook.log)");
  expectGolden("strange_frames", R"(sed "/ #1 /{h;s/#1/#7/p;s/#7/#x/p;g}
                                         s/#1 [^+]*/#1 _ZN3svc4spinEv/
                                         s/#2 .*/#2 main./
                                         s/#3 .*/#3 \x1b[2Jevil./
                                         s/#4 .*/#4 0x12z./
                                         s/#5 .*/#5 \xff./" loop.log)");
  expectGolden("other_prefixes",
               R"(sed "s/ /T/; s/\./,/; s/tovDeadloopTask://; s/^/abcd-ef-gh ij:kl:mn /" loop.log
                                    sed "s/\.[0-9]* / 42 /" loop.log
                                    sed "s/^.*:[0-9]* \([FTSZC]\|#\)/ \1/" hook.log)");
}

TEST(Report, EndsAsItsHelpSays) {
  expectAll({{REPORT "--help", 0, "usage: qurn-report"},
             {REPORT GOLDEN "/loop.log", 0, "Dead loop of thread worker-2"},
             {REPORT "</dev/null", 1, ""},
             {REPORT "/nonexistent/log", 2, ""},
             {REPORT "--program /nonexistent/program </dev/null", 2, ""},
             {REPORT "--base zz </dev/null", 2, ""},
             {REPORT "--maps /nonexistent/maps </dev/null", 2, ""},
             {REPORT "--nonsense", 2, "usage: qurn-report"},
             {REPORT "a b", 2, ""}});
}

TEST(Report, BareAddressesAreFoundInTheMemoryMap) {
  hiddenFunction();
  const std::string maps = testing::TempDir() + "maps" + std::to_string(getpid());
  std::ofstream(maps) << std::ifstream("/proc/self/maps").rdbuf();
  const auto start = reinterpret_cast<unsigned long>(&hiddenFunction);
  const std::string here = std::to_string(start);
  // Where it is, as a return address may lie, and before it begins.
  const std::string frames = "0 " + here + " 1 " + std::to_string(start + 4) + " 2 " + here;
  expectAll({{R"((echo "Signal 36 is captured at ."; echo Captured process: svc; )"
              R"(printf " #%d 0x%x.\n" )" +
                  frames + ") | " REPORT "--maps " + maps,
              0,
              "#0   hiddenFunction()   ... report_tool_test.cpp: ... "
              "#1   hiddenFunction()+0x4   ... report_tool_test.cpp: ... #2   ",
              "#2   hiddenFunction()"}});
  std::remove(maps.c_str());
}

TEST(Report, OfARealProcessHasTheSourceOfWhereItWasStuck) {
  // ThreadSanitizer runs the handler late, when the stack has moved on.
  const std::string frame =
      std::string(QURN_SANITIZE) == "thread"
          ? ""
          : R"("function": "enter_a_loop" ... "source": "examples/host/scenarios.cpp: ... )";
  expectAll({{QURN_EMULATOR QURN_HOST " --period 200 --thresholds 1,1,2 2>&1 | " REPORT
                                      "--json --program " QURN_HOST,
              0,
              R"("threshold": 1 ... "threshold": 2 ... "threshold": 3 ... )" + frame +
                  R"("exit_status": 88)",
              R"("thread_id": null ... "threshold": 4)"}});
}

}  // namespace
