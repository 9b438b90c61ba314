// The reader of reports, as a user runs it: over logs written here, and over a real one.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "support/emulated.h"
#include "support/run_program.h"

using Json = nlohmann::json;

// Named by nothing but the debug information.
static void hiddenFunction() { std::puts("hidden"); }

namespace {

std::string writeFile(const std::string& name, const std::string& text) {
  const std::string path = testing::TempDir() + name + std::to_string(getpid());
  std::ofstream(path) << text;
  return path;
}

ProgramRun report(const std::string& arguments) {
  return runProgram(QURN_EMULATOR QURN_REPORT " " + arguments);
}

Json jsonOf(const std::string& log, const std::string& options = "") {
  const std::string path = writeFile("log", log);
  const ProgramRun run = report("--json " + options + " " + path);
  std::remove(path.c_str());
  const Json loops = Json::parse(run.output, nullptr, false);
  EXPECT_TRUE(loops.is_array()) << run.output;
  EXPECT_EQ(run.status, loops.empty() ? 1 : 0);
  return loops;
}

// What the detection thread `writer` says of thread 7, which is called "worker".
class Log {
 public:
  explicit Log(int writer = 50) : writer_(writer) {}

  Log& say(const std::string& message) {
    text += "2026-01-02 03:04:05." + std::to_string(100 + ++lines_) +
            " error [tovDeadloopTask:" + std::to_string(writer_) + "] 0 unit:1 " + message + "\n";
    return *this;
  }
  Log& crossing(const char* ordinal, int ms) {
    return say("Frame task deadloop detect, task [worker:7] trigger " + std::string(ordinal) +
               " threshold timeout.(elapsed time = " + std::to_string(ms) +
               ", first threshold = 1000, second threshold = 2000, third threshold = 3000)");
  }
  Log& silence() {
    return crossing("first", 1100).crossing("second", 2100).crossing("third", 3100);
  }
  Log& capture(const std::vector<std::string>& frames) {
    say("Signal 36 send to thread 123456.");
    say("Signal 36 is captured at 2026-01-02 11:04:08..");
    say("Captured process: svc, pid: " + std::to_string(writer_) + ".");
    for (size_t i = 0; i < frames.size(); ++i) {
      say("#" + std::to_string(i) + " " + frames[i] + ".");
    }
    return *this;
  }
  Log& end() {
    return say("Task(worker) deadloop detected with no process hook, execute default strategy.")
        .say("ZOT_Exit with code 88. (process id = 50)");
  }

  std::string text;

 private:
  int writer_;
  int lines_ = 0;
};

TEST(Report, AWholeStory) {
  const Json loops =
      jsonOf("host: started\n" +
             Log().silence().capture({"_ZN3svc4spinEv+0x9", "0x7f00aa", "main"}).end().text);
  ASSERT_EQ(loops.size(), 1U);
  const Json expected = Json::parse(R"story({
    "process": "svc", "process_id": 50, "thread": "worker", "thread_id": 7,
    "thresholds_ms": [1000, 2000, 3000],
    "silence": [{"threshold": 1, "at": "2026-01-02 03:04:05.101", "silent_ms": 1100},
                {"threshold": 2, "at": "2026-01-02 03:04:05.102", "silent_ms": 2100},
                {"threshold": 3, "at": "2026-01-02 03:04:05.103", "silent_ms": 3100}],
    "signal": 36, "signal_failed": false, "captured": true,
    "reported_at": "2026-01-02 03:04:05.105", "capture_stamp_utc8": "2026-01-02 11:04:08",
    "frames": [{"text": "_ZN3svc4spinEv+0x9", "function": "svc::spin()", "offset": 9,
                "address": null, "source": null},
               {"text": "0x7f00aa", "function": null, "offset": null, "address": 8323242,
                "source": null},
               {"text": "main", "function": "main", "offset": 0, "address": null, "source": null}],
    "decision": {"at": "2026-01-02 03:04:05.110", "thread_hook": false, "process_hook": false,
                 "exit_status": 88}})story");
  EXPECT_EQ(loops[0], expected) << loops[0].dump(1);
}

TEST(Report, HooksDecideAndTheWatchGoesOn) {
  Log log;
  log.silence().capture({"spin"});
  log.say("Frame task deadloop detect, deadloop process hook start.");
  log.say("Frame task deadloop detect, deadloop process global hook start.");
  log.say("ZOT_Exit with code 3. (process id = 50)");  // not by the watch
  log.crossing("first", 1200);                         // recovers
  log.silence().capture({"wait"}).end();
  const Json loops = jsonOf(log.text);
  ASSERT_EQ(loops.size(), 2U);
  EXPECT_TRUE(loops[0]["decision"]["thread_hook"]);
  EXPECT_TRUE(loops[0]["decision"]["process_hook"]);
  EXPECT_TRUE(loops[0]["decision"]["exit_status"].is_null());
  EXPECT_EQ(loops[1]["silence"].size(), 3U);
  EXPECT_EQ(loops[1]["silence"][0]["silent_ms"], 1100);
  EXPECT_EQ(loops[1]["frames"][0]["function"], "wait");
  EXPECT_EQ(loops[1]["decision"]["exit_status"], 88);
}

TEST(Report, LinesOfTwoProcessesAreToldApart) {
  std::string one = Log(50).silence().capture({"spin"}).end().text;
  std::string other = Log(60).silence().capture({"wait"}).text;
  std::string mixed;
  while (!one.empty() || !other.empty()) {
    for (std::string* text : {&one, &other}) {
      const size_t length = text->empty() ? 0 : text->find('\n') + 1;
      mixed += text->substr(0, length);
      text->erase(0, length);
    }
  }
  const Json loops = jsonOf(mixed);
  ASSERT_EQ(loops.size(), 2U);
  EXPECT_EQ(loops[0]["frames"][0]["function"], "spin");
  EXPECT_EQ(loops[0]["process_id"], 50);
  EXPECT_EQ(loops[1]["frames"][0]["function"], "wait");
  EXPECT_TRUE(loops[1]["decision"].is_null());
}

TEST(Report, IncompleteStoriesAreToldAsFarAsTheyGo) {
  const Json blocked = jsonOf(Log().silence().say("Signal 36 send to thread 12.").text);
  EXPECT_FALSE(blocked[0]["captured"]);
  EXPECT_EQ(blocked[0]["signal"], 36);
  const Json failed = jsonOf(Log()
                                 .silence()
                                 .say("Signal 36 send to thread 12.")
                                 .say("Signal 36 send to thread 12 unsuccessfully.")
                                 .text);
  EXPECT_TRUE(failed[0]["signal_failed"]);

  std::string rotated = Log().silence().capture({"a", "b"}).end().text;
  rotated.erase(0, rotated.find("Signal 36 is captured"));
  const Json beheaded = jsonOf("\xFF" + rotated);
  ASSERT_EQ(beheaded.size(), 1U);
  EXPECT_TRUE(beheaded[0]["thread"].is_null());
  EXPECT_TRUE(beheaded[0]["thresholds_ms"].is_null());
  EXPECT_TRUE(beheaded[0]["reported_at"].is_null());

  const Json strange =
      jsonOf(Log().silence().capture({"a"}).say("#7 z.").say("#x y.").say("#1 b.").text);
  EXPECT_EQ(strange[0]["frames"].size(), 2U);
}

TEST(Report, BareAddressesAreFoundInTheMemoryMap) {
  hiddenFunction();
  std::ifstream map("/proc/self/maps");
  const std::string maps = writeFile("maps", std::string(std::istreambuf_iterator<char>(map), {}));
  std::array<char, 32> address{};
  std::snprintf(address.data(), address.size(), "%p", reinterpret_cast<void*>(&hiddenFunction));
  std::array<char, 32> behind{};  // as a return address may lie
  std::snprintf(behind.data(), behind.size(), "0x%lx",
                reinterpret_cast<unsigned long>(&hiddenFunction) + 4);
  const Json loops =
      jsonOf(Log().silence().capture({address.data(), behind.data(), address.data()}).text,
             "--maps " + maps);
  std::remove(maps.c_str());
  ASSERT_EQ(loops[0]["frames"].size(), 3U);
  EXPECT_NE(loops[0]["frames"][2]["function"], "hiddenFunction()") << "called before it begins";
  EXPECT_EQ(loops[0]["frames"][0]["function"], "hiddenFunction()");
  EXPECT_EQ(loops[0]["frames"][0]["offset"], 0);
  EXPECT_EQ(loops[0]["frames"][1]["offset"], 4);
  EXPECT_NE(loops[0]["frames"][1]["source"].dump().find("report_tool_test.cpp:"),
            std::string::npos);
}

TEST(Report, AsPeopleReadIt) {
  const std::string path =
      writeFile("log", Log().silence().capture({"_ZN3svc4spinEv+0x9", "\033[2Jevil"}).end().text);
  const ProgramRun run = report("<" + path);
  std::remove(path.c_str());
  EXPECT_EQ(
      run.output,
      "Dead loop of thread worker (7) in svc (process 50)\n"
      "  2026-01-02 03:04:05.101  silent for 1.1 s   =======               first threshold, 1.0 s\n"
      "  2026-01-02 03:04:05.102  silent for 2.1 s   =============         second threshold, 2.0 "
      "s\n"
      "  2026-01-02 03:04:05.103  silent for 3.1 s   ====================  third threshold, 3.0 s\n"
      "  2026-01-02 03:04:05.105  captured by signal 36 (2026-01-02 11:04:08 UTC+8)\n"
      "  2026-01-02 03:04:05.109  no hook of its own: the process ended with status 88\n"
      "  #0   svc::spin()+0x9\n"
      "  #1   ?[2Jevil\n");
}

TEST(Report, MistakesEndWithStatus2) {
  for (const char* arguments :
       {"/nonexistent/log", "--program /nonexistent/program </dev/null", "--base zz </dev/null",
        "--maps /nonexistent/maps </dev/null", "--nonsense", "a b"}) {
    EXPECT_EQ(report(arguments).status, 2) << arguments;
  }
  EXPECT_EQ(report("</dev/null").status, 1);
}

TEST(Report, OfARealProcessHasTheSourceOfWhereItWasStuck) {
  const std::string path = writeFile(
      "log", runProgram(QURN_EMULATOR QURN_HOST " --period 200 --thresholds 1,1,2").output);
  const ProgramRun run = report("--json --program " QURN_HOST " " + path);
  std::remove(path.c_str());
  const Json loops = Json::parse(run.output, nullptr, false);
  ASSERT_EQ(loops.size(), 1U) << run.output;
  EXPECT_EQ(loops[0]["silence"].size(), 3U);
  EXPECT_EQ(loops[0]["decision"]["exit_status"], 88);
  [[maybe_unused]] std::string source;
  for (const Json& frame : loops[0]["frames"]) {
    source = frame["function"] == "enter_a_loop" ? frame["source"].get<std::string>() : source;
  }
#if !defined(__SANITIZE_THREAD__)  // which runs the handler late, when the stack has moved on
  EXPECT_TRUE(source.starts_with("examples/host/scenarios.cpp:")) << run.output;
#endif
}

}  // namespace
