// qurn-inspect against a program that tells the truth about itself: what it says of a process that
// runs, is stopped, traced or dead, and that it leaves the process as it was.
#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "support/inspected_program.h"
#include "support/run_program.h"

namespace {

using Json = nlohmann::json;

const std::string kInspect = QURN_INSPECT " ";

Json inspected(const std::string& arguments, int status) {
  const ProgramRun run = runProgram(kInspect + "--json " + arguments, 300);
  EXPECT_EQ(run.status, status) << run.output;
  return Json::parse(run.output, nullptr, false);
}

pid_t holderIn(const Json& row) {
  return row["holder_tid"].is_null() ? 0 : row["holder_tid"].get<pid_t>();
}

// What is said instead of a verdict, or of all, in a state that hides them; or of a thread by name,
// where the wait is hidden too.
using Hidden = std::map<std::string, std::string>;

// What was found, a word for each that is wrong.
std::string mistakes(const Json& found, const Inspected& program, const Hidden& hidden) {
  std::map<pid_t, Json> watched;
  std::map<pid_t, Json> waits;
  for (const Json& row : found["watched"]) {
    watched[row["tid"]] = row;
  }
  for (const Json& row : found["waits"]) {
    waits[row["tid"]] = row;
  }
  std::string wrong;
  for (const auto& [name, tid] : program.tids()) {
    const auto& [verdict, holder] = program.truth().at(tid);
    std::string expected = verdict;
    const std::string kind = hidden.contains(name) ? hidden.at(name) : verdict;
    for (const std::string& key : {name, verdict, std::string("*")}) {
      if (hidden.contains(key)) {
        expected = hidden.at(key);
        break;
      }
    }
    const Json& row = watched[tid];
    const bool isRight = row.is_object() && row["verdict"] == expected &&
                         (expected != verdict || holderIn(row) == holder) &&
                         (name != "outsiders" || expected != verdict ||
                          // Cores have no names of threads.
                          std::regex_search(row.dump(), std::regex("by (outsider|thread) \\("))) &&
                         (name != "blocker" || row["blocks_signal"] != false);
    const bool blocks =
        std::string("working loop starved ended uninterruptible paging").find(verdict) ==
        std::string::npos;
    const bool waitIsRight = !blocks || (waits.contains(tid) && waits[tid]["kind"] == kind &&
                                         holderIn(waits[tid]) == holder);
    if (!isRight || !waitIsRight) {
      wrong.append(name).append(" (").append(expected).append("): ");
      wrong.append(row.dump()).append(waits[tid].dump()).append("\n");
    }
  }
  return wrong;
}

// Each cycle from its lowest thread on.
std::set<std::vector<pid_t>> deadlocksIn(const Inspected& program) {
  std::set<std::vector<pid_t>> all;
  for (const std::vector<const char*>& names : {std::vector{"two_a", "two_b"},
                                                {"three_a", "three_b", "three_c"},
                                                {"joiner", "joined"},
                                                {"itself"}}) {
    std::vector<pid_t> cycle(names.size());
    std::transform(names.begin(), names.end(), cycle.begin(),
                   [&](const char* name) { return program.tids().at(name); });
    std::rotate(cycle.begin(), std::min_element(cycle.begin(), cycle.end()), cycle.end());
    all.insert(cycle);
  }
  return all;
}

// Who gets the processor when is the machine's affair: a look that shows otherwise is repeated.
void expectTruth(const Inspected& program, const std::string& arguments,
                 const Hidden& hidden = {}) {
  std::string wrong;
  for (int attempt = 0; attempt < 30; ++attempt) {
    const Json found = inspected("--between 300 " + arguments, 1);
    ASSERT_TRUE(found.is_object());
    EXPECT_EQ(found["deadlocks"].get<std::set<std::vector<pid_t>>>(), deadlocksIn(program));
    wrong = mistakes(found, program, hidden);
    const std::regex chance("((loop|starved|beating|busy|vforking) \\(.*\n)*");
    if (wrong.empty() || !std::regex_match(wrong, chance)) {
      break;
    }
  }
  EXPECT_EQ(wrong, "");
}

std::string debuggersCoreOf(const Inspected& program) {
  std::string core = program.directory() + "/gcore";
  runProgram("gdb -nx -batch -p " + program.pid() + " -ex \"gcore " + core + "\"", 300);
  return core;
}

class Inspection : public testing::Test {
 protected:
  void SetUp() override {
    if (kEmulated) {
      GTEST_SKIP() << "an emulator does not show its threads' system calls";
    }
  }
};

TEST_F(Inspection, TellsTheTruthOfAProcessThatRunsAndDoesNotDisturbIt) {
  const Inspected program({"1", "600000", "hard"});
  const std::string before = program.switches();
  expectTruth(program, program.pid());
  EXPECT_EQ(program.switches(), before);
  EXPECT_TRUE(program.said().ends_with("ready\n")) << program.said();
  int asleep = 0;
  for (int look = 0; look < 15; ++look) {
    for (const Json& row : inspected("--between 30 " + program.pid(), 1)["watched"]) {
      asleep += row["name"] == "busy" && row["verdict"] == "sleep" ? 1 : 0;
    }
  }
  EXPECT_LE(asleep, 2) << "though it computes a quarter of the time";
  const std::string vfork = std::to_string(program.tids().at("vfork"));
  const Json child = inspected("$(cat /proc/" + vfork + "/task/" + vfork + "/children)", 1);
  EXPECT_EQ(child["watched"][0]["verdict"], "unknown") << "its threads are its parent's";
}

TEST_F(Inspection, TellsTheTruthOfAStoppedProcessAndOnceItGoesOn) {
  const Inspected program({"1", "600000"});
  program.send(SIGSTOP, "T");
  const Hidden stopped{{"ended", "ended"}, {"*", "stopped"}};
  expectTruth(program, program.pid(), stopped);
  expectTruth(program, "--stacks=all " + program.pid(), stopped);
  EXPECT_EQ(program.states(), (std::set<std::string>{"", "T"}));
  program.send(SIGCONT, "S");
  expectTruth(program, program.pid());
}

// As a container that is paused.
TEST_F(Inspection, TellsTheTruthOfAFrozenProcess) {
  const Inspected program({"1", "600000"});
  for (const auto& [root, file, on] :
       {std::array{"/sys/fs/cgroup/", "cgroup.freeze", "1"},
        std::array{"/sys/fs/cgroup/unified/", "cgroup.freeze", "1"},
        std::array{"/sys/fs/cgroup/freezer/", "freezer.state", "FROZEN"}}) {
    const std::string group = root + ("inspected-" + program.pid());
    std::error_code mistake;
    std::filesystem::create_directory(group, mistake);
    if (std::filesystem::exists(group + "/" + file)) {
      std::ofstream(group + "/cgroup.procs") << program.pid() << std::flush;
      std::ofstream(group + "/" + file) << on << std::flush;
      const std::string isThere = "grep -qE \"frozen 1|FROZEN\" " + group + "/*";
      Inspected::waitUntil([&] { return runProgram(isThere).status == 0; });
      expectTruth(program, program.pid(), {{"ended", "ended"}, {"*", "stopped"}});
      std::ofstream(group + "/" + file) << (*on == '1' ? "0" : "THAWED") << std::flush;
      std::ofstream(root + std::string("cgroup.procs")) << program.pid() << std::flush;
    }
    std::filesystem::remove(group, mistake);
  }
}

// Where thread ids are others than here, and as small as the words of locks; the main one is gone.
TEST_F(Inspection, TellsTheTruthOfAProcessInANamespace) {
  const int own = open("/proc/self/ns/pid", O_RDONLY);
  const int ownTime = open("/proc/self/ns/time", O_RDONLY);
  if (unshare(CLONE_NEWPID) != 0) {
    GTEST_SKIP() << "no namespaces for this user";
  }
  if (unshare(CLONE_NEWTIME) == 0) {
    std::ofstream("/proc/self/timens_offsets") << "monotonic 5000 0";  // later than here
  }
  const Inspected program({"1", "600000", "mainless"});
  ASSERT_EQ(setns(own, CLONE_NEWPID), 0);
  setns(ownTime, CLONE_NEWTIME);
  expectTruth(program, program.pid());
  const Json found = inspected("--stacks=all " + program.pid(), 1);
  EXPECT_NE(found["stacks"].dump().find("::joinOne()"), std::string::npos);
  const std::string core = debuggersCoreOf(program);
  if (std::filesystem::exists(core)) {  // its ids are those that the debugger sees
    EXPECT_EQ(inspected(core, 1)["watched"][0]["verdict"], "unknown");
  }
}

TEST_F(Inspection, TellsTheTruthOfATracedProcess) {
  const Inspected program({"1", "600000"});
  for (const auto& [name, tid] : program.tids()) {
    if (name != "ended") {
      if (ptrace(PTRACE_SEIZE, tid, nullptr, nullptr) != 0) {
        GTEST_SKIP() << "no tracing here";
      }
      ptrace(PTRACE_INTERRUPT, tid, nullptr, nullptr);
      waitpid(tid, nullptr, __WALL);
    }
  }
  const Hidden traced{{"ended", "ended"}, {"*", "traced"}};
  expectTruth(program, program.pid(), traced);
  const Json found = inspected("--stacks " + program.pid(), 1);
  ASSERT_FALSE(found["stacks"].empty());
  for (const Json& stack : found["stacks"]) {
    if (!program.truth().contains(stack["tid"])) {
      continue;  // the outsider
    }
    EXPECT_TRUE(stack["frames"].empty()) << stack;
    EXPECT_EQ(stack["note"], "traced already, by process " + std::to_string(getpid()));
  }
}

const Hidden kDead{
    {"loop", "unknown"}, {"paging", "unknown"}, {"working", "sleep"}, {"timer", "syscall"}};

// A core that is cut off anywhere does no harm.
void expectTruthOfCore(const Inspected& program, const std::string& core) {
  expectTruth(program, core, kDead);
  const Json found = inspected("--stacks=all --record --program " INSPECTED " " + core, 1);
  EXPECT_NE(found["stacks"].dump().find("pthread_rejoin_free"), std::string::npos);
  EXPECT_FALSE(runProgram(kInspect + "--metrics " + core).has("qurn_up_seconds{")) << "in a core";
  const size_t bytes = std::filesystem::file_size(core);
  const std::string half = std::to_string(bytes / 2);
  const ProgramRun cut =
      runProgram(kInspect + "--stacks=all " + core + " & sleep 0.03; truncate -s " + half + " " +
                 core + "; wait $!");
  EXPECT_LE(cut.status, 2) << "cut off while it is read" << cut.output;
  const std::string command = kInspect + "--stacks --record " + core;
  for (const size_t part : {2U, 10U, 100U, 1000U, 10000U}) {
    std::filesystem::resize_file(core, bytes / part - 1);
    const ProgramRun run = runProgram(command);
    EXPECT_TRUE(run.status <= 2) << run.status << run.output;
    EXPECT_TRUE(part < 1000 || run.has("no libqurnadapt in")) << run.output;
  }
}

TEST_F(Inspection, TellsTheTruthOfTheDebuggersCore) {
  const Inspected program({"1", "600000"});
  const std::string core = debuggersCoreOf(program);
  if (!std::filesystem::exists(core)) {
    GTEST_SKIP() << "no debugger here, or it may not attach";
  }
  expectTruthOfCore(program, core);
}

TEST_F(Inspection, TellsTheTruthOfTheKernelsCore) {
  Inspected program({"1", "600000"});
  program.end(SIGABRT);
  for (const auto& file : std::filesystem::directory_iterator(program.directory())) {
    if (file.path().filename().string().starts_with("core")) {
      expectTruthOfCore(program, file.path());
      return;
    }
  }
  GTEST_SKIP() << "this kernel's cores go elsewhere";
}

TEST_F(Inspection, ShowsStacksAndLetsEveryThreadGoOnAlsoWhenItIsKilled) {
  const Inspected program({"1", "600000", "hard"});
  const Json found = inspected("--stacks=all " + program.pid(), 1);
  std::map<pid_t, std::string> stacks;
  for (const Json& stack : found["stacks"]) {
    stacks[stack["tid"]] = stack.dump();
  }
  const std::map<std::string, std::string> kWays{
      {"loop", "::spin()\" ... inspected.cpp"},
      {"normal", "lockMutex<0>() ... run("},
      {"joiner", "joinOne"},
      {"loader", "waitForEver ... ::holdLoader( ... dl_iterate_phdr"},
      {"vfork", "uninterruptible sleep, not stopped"}};
  for (const auto& [name, way] : kWays) {
    SCOPED_TRACE(stacks[program.tids().at(name)]);
    expectInOrder(stacks[program.tids().at(name)], way);
  }
  for (int i = 0; i < 20; ++i) {
    runProgram("timeout -s KILL 0.0" + std::to_string(10 + 4 * i) + " " + kInspect +
               "--stacks=all --between 1 " + program.pid());
  }
  Inspected::waitUntil([&] { return !program.states().contains("t"); });
  expectTruth(program, program.pid());
}

TEST_F(Inspection, ShowsTheLastCaptureOfADeadLoopThatAHookDealtWith) {
  const Inspected program({"1000", "100", "loop"});
  Inspected::waitUntil([&] { return program.said().find("dealt with") != std::string::npos; });
  const Json record = inspected("--record " + program.pid(), 1)["record"];
  SCOPED_TRACE(record.dump());
  EXPECT_EQ(record["tid"], program.tids().at("loop"));
  expectInOrder(record["frames"].dump(), "spin() ... run(");
#if defined(__x86_64__)
  const std::string programCounter = "rip";
  const std::string stackPointer = "rsp";
#else
  const std::string programCounter = "pc";
  const std::string stackPointer = "sp";
#endif
  EXPECT_EQ(record["registers"][programCounter], record["frames"][0]["address"]);
  EXPECT_NE(record["stack"].dump().find(record["registers"][stackPointer]), std::string::npos);
  EXPECT_NE(record["stack"].dump().find("run("), std::string::npos);
}

TEST_F(Inspection, TakesNoMemoryForAProcessWithoutTheLibrary) {
  constexpr size_t kBytes = size_t{1} << 26U;
  const int shared = memfd_create("shared", MFD_CLOEXEC);
  ASSERT_EQ(ftruncate(shared, kBytes), 0);
  void* unused = mmap(nullptr, kBytes, PROT_READ | PROT_WRITE, MAP_SHARED, shared, 0);
  prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY);
  const Program none{kInspect + std::to_string(getpid()), 2, "no libqurnadapt in the process"};
  expectOne(none, runProgram(none.command));
  struct stat status {};
  EXPECT_EQ(fstat(shared, &status), 0);
  EXPECT_EQ(status.st_blocks, 0);
  munmap(unused, kBytes);
}

Json writtenFile(const Inspected& program) {
  std::ifstream file(program.directory() + "/" + program.pid() + ".json");
  EXPECT_TRUE(std::filesystem::exists(program.directory() + "/" + program.pid() + ".txt"));
  return Json::parse(file, nullptr, false);
}

TEST_F(Inspection, WaitsUntilAThreadIsSilentForTooLong) {
  const Inspected program({"4", "600000"});
  const std::string arguments = " --output " + program.directory() + " " + program.pid();
  std::filesystem::create_symlink("said", program.directory() + "/" + program.pid() + ".json");
  EXPECT_EQ(runProgram(kInspect + "--at fatal" + arguments).status, 1);
  EXPECT_NE(program.said().find("ready\n"), std::string::npos) << "a link was followed";
  const Json found = writtenFile(program);
  EXPECT_GE(found["watched"][0]["silence_ms"], 4000) << found;
  EXPECT_FALSE(found["stacks"].empty());
}

// No thread is silent beyond its threshold: the guard is.
TEST_F(Inspection, WaitsUntilTheGuardHasHeardNothing) {
  const Inspected program({"1000", "200"});
  auto run = std::async(
      std::launch::async, runProgram,
      kInspect + "--at warning --output " + program.directory() + " " + program.pid(), 60);
  program.send(SIGSTOP, "T");
  EXPECT_EQ(run.get().status, 0);
  EXPECT_EQ(writtenFile(program)["watched"][0]["verdict"], "stopped");
}

TEST_F(Inspection, EndsWithAStatusAndALine) {
  const Inspected calm({"1000", "600000"});
  const std::string core = calm.directory() + "/said";
  const std::string keeper = std::to_string(calm.tids().at("keeper"));
  const bool isRoot = geteuid() == 0;
  const std::string asNobody = isRoot ? "setpriv --reuid 65534 --clear-groups " : "";
  const auto lines = [](const std::string& output) {
    const std::regex line(R"((# (HELP|TYPE) qurn_\w+ .*|qurn_\w+\{(\w+="([^"\\]|\\["\\n])*",?)*\} )"
                          R"([0-9.]+)\n)");
    EXPECT_EQ(std::regex_replace(output, line, ""), "");
    EXPECT_EQ(output.find('\xFF'), std::string::npos) << "no UTF-8";
  };
  const auto harmless = [](const std::string& output) {
    EXPECT_EQ(output.find('\033'), std::string::npos);
    EXPECT_EQ(output.find("\u202E"), std::string::npos);  // NOLINT: hostile
  };
  expectAll({{kInspect + calm.pid(), 0, "keeper ... no thread of this process", "", harmless},
             {kInspect + "--metrics " + calm.pid(), 0, "qurn_deadlocks{ ... 4", "", lines},
             {kInspect + "--json " + keeper, 0, "\"pid\": " + calm.pid() + ","},
             {kInspect + "4194305", 2, "no process 4194305"},
             {kInspect + "4294967297", 2, "no process 4294967297"},
             {kInspect + calm.pid() + " >/dev/full", 2, "cannot write"},
             {kInspect + "--watch=0.1 " + calm.pid() + " >/dev/full", 2, "cannot write"},
             {kInspect + "--program /none " + calm.pid(), 2, "cannot read /none"},
             {kInspect + "--at fatal --output /none " + calm.pid(), 2, "cannot write into /none"},
             {asNobody + kInspect + (isRoot ? calm.pid() : "1"), 2, "may not be looked into"},
             {kInspect + core, 2, "is no core"},
             {kInspect + calm.directory(), 2, "cannot read"},
             {kInspect + "$$; exit $?", 2, "no libqurnadapt in the process"},
             {kInspect + "--at fatal " + calm.pid(), 2, "--output"}});
  const std::string end = "(sleep 1; kill -KILL " + calm.pid() + ") & ";
  const std::string at = "(" + kInspect + "--at fatal --output " + calm.directory() + " " +
                         calm.pid() + "; echo waited $?) & ";
  const Program ended{end + at + kInspect + "--between 5000 " + calm.pid() + "; wait", 0,
                      "waited 0 ... ended meanwhile"};
  expectOne(ended, runProgram(ended.command));
  const Program gone{kInspect + calm.pid(), 2, "has ended"};
  expectOne(gone, runProgram(gone.command));
}

}  // namespace
