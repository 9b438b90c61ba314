// Names and source lines in the reader's output: of this program, and of a service that ended.
#include <unistd.h>

#include <fstream>

#include "support/run_program.h"

#define REPORT QURN_EMULATOR QURN_REPORT " "

// Named by nothing but the debug information.
static void* returnAddress = nullptr;
__attribute__((noinline)) static void noteCaller() { returnAddress = __builtin_return_address(0); }
__attribute__((always_inline)) inline void inlinedFunction() {
  noteCaller();
  std::puts("hidden");
}
__attribute__((noinline)) static void hiddenFunction() { inlinedFunction(); }

namespace {

TEST(Report, BareAddressesAreFoundInTheMemoryMap) {
  hiddenFunction();
  const std::string maps = testing::TempDir() + "maps" + std::to_string(getpid());
  std::ofstream(maps) << std::ifstream("/proc/self/maps").rdbuf();
  std::ofstream(maps, std::ios::app) << "8000-9000 r-xp 0 00:00 0 \n9000-a000 r-xp 0 00:00 0 [x]\n";
  const auto start = reinterpret_cast<unsigned long>(&hiddenFunction);
  // Where it is, as a return address may lie, before it begins, and what is in no file.
  std::string frames;
  for (const unsigned long address :
       {start, reinterpret_cast<unsigned long>(returnAddress), start, 0x8010UL, 0x9020UL}) {
    frames += " " + std::to_string(address);
  }
  const std::string log = R"((echo "Signal 36 is captured at ."; echo Captured process: svc; n=0
                              for address in)" +
                          frames + R"(; do printf " #%d 0x%x.\n" $n $address; n=$((n + 1)); done
                              echo " #5 i."; echo " #6 f+0x1.") | )" REPORT "--maps " +
                          maps;
  expectAll(
      {{log, 0,
        "#0   hiddenFunction()   ... report_symbols_test.cpp: ... "
        "\n       inlinedFunction ... report_symbols_test.cpp: ... (inlined)\n"
        "  #1   hiddenFunction()+0x ... report_symbols_test.cpp: ... #2   ... "
        "  #3   [anonymous]+0x10\n  #4   [x]+0x20\n  #5   i\n  #6   f+0x1\n",
        "#2   hiddenFunction() ... lacks frame"},
       {log + " --json", 0, "inlinedFunction ... \"inlined\": true"},
       {log + " --collapsed", 0, ";hiddenFunction();inlinedFunction ... ;hiddenFunction() 1"}});
  std::remove(maps.c_str());
}

// The map that the platform kept beside the log names every address, unless it cannot be the
// process's, or the files are no longer those that it ran.
TEST(Report, OfARealProcessHasTheSourceOfWhereItWasStuck) {
  const std::string kept = testing::TempDir() + "kept" + std::to_string(getpid());
  const auto run = runProgram("mkdir " + kept + "; TOV_LOG_TARGET=file:" + kept +
                              "/log " QURN_EMULATOR QURN_HOST " --period 200 --thresholds 1,1,2");
  ASSERT_EQ(run.status, 88) << run.output;
  // ThreadSanitizer runs the handler late, when the stack has moved on.
  const bool hasFrames = std::string(QURN_SANITIZE) != "thread";
  const std::string never = R"("thread_id": null ... "threshold": 4)";
  const std::string neverInFrames = R"( ... "function": null,
        "module": null)";
  const std::string frame =
      hasFrames ? R"("function": "enter_a_loop" ... "source": "examples/host/scenarios.cpp: ... )"
                : "";
  const auto changed = [&](const std::string& name, const std::string& change) {
    const std::string copy = kept + name;
    return "cp -rp " + kept + " " + copy + "; cd " + copy + "; " + change + "; " + REPORT +
           "--json log";
  };
  expectAll({{REPORT "--json " + kept + "/log", 0,
              R"("threshold": 1 ... "threshold": 2 ... "threshold": 3 ... )" + frame +
                  R"("exit_status": 88)",
              never + (hasFrames ? neverInFrames : "")},
             {REPORT "--json --maps /nowhere/; " REPORT "--json --program " QURN_HOST " <" + kept +
                  "/log",
              0, "cannot read the memory map ... " + frame},
             {"cp -r " + kept + " " + kept + "0; rm " + kept + "0/*.maps; " + REPORT "--group " +
                  kept + "0/log " + kept + "/log",
              0, "2 dead loops"}});
  if (hasFrames) {
    expectAll(
        {{changed("1", "echo 00ff " QURN_HOST " | tee *.build-ids"), 0,
          R"(qurn-host is not what the process of  ... it had 00ff ... "module": "libc.so.6")",
          "scenarios.cpp"},
         {changed("2", "rm *.build-ids; touch -d @0 *.maps"), 0,
          "qurn-host has changed since  ... \"module\": \"libc.so.6\"", "scenarios.cpp"},
         {changed("3", "touch -d 1999-01-01 *.maps *.build-ids"), 0, "is older than the report of",
          R"("module": ")"},
         {changed("5", "for ids in *.build-ids; do rm $ids; mkfifo $ids; done"), 0, frame},
         {changed("6", "chmod 777 .; if ! chown 1 *.maps; then rm *.maps; echo another user; fi"),
          0, "another user", R"("module": ")"},
         {changed("7",
                  "mv *.maps map; (cat log; until test -s told; do sleep 0.1; done; rm map; "
                  "cat log) | " REPORT "--json --follow --maps map >told; grep -c status told"),
          0, "2\n"},
         {changed("4", R"(sed -i "s/ 0x[0-9a-f]*\./ 0x10./" log)"), 0, "is another process",
          R"("module": ")"}});
  }
  runProgram("rm -r " + kept + "*");
}

}  // namespace
