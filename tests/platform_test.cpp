// The stand-in platform on its own, beyond what the library's tests and the fuzz targets use of it.
#include <fcntl.h>
#include <qurnadapt/qurnadapt.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <termios.h>
#include <tovplatform/stand_in.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csetjmp>
#include <csignal>
#include <cstdarg>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#include "common/machine_context.h"
#include "common/scoped_fd.h"
#include "support/in_child.h"
#include "support/interpose.h"
#include "support/run_program.h"

namespace {

// What was told, to be compared with what is known to be right.
std::string g_told;
uint32_t tell(const char* line) {
  g_told += std::string(line) + "\n";
  return 0;
}
void expectTold(const std::string& name) {
  std::ostringstream known;
  known << std::ifstream(GOLDEN "/" + name).rdbuf();
  EXPECT_EQ(std::exchange(g_told, ""), known.str());
}

void tellAnswers(const std::string& file, const std::string& keys) {
  const std::string path = testing::TempDir() + "/qurn-" + std::to_string(getpid()) + ".yaml";
  std::ofstream(path) << file;
  void* yaml = TovYamlLoadFile(path.c_str());
  g_told += (yaml == nullptr ? "no file: " : "file: ") + file + "\n";
  std::istringstream words(keys);
  for (std::string key; words >> key;) {
    const char* text = TovYamlGetProperty(yaml, "%s", key.c_str());
    g_told += key + (TovYamlIsKeyExist(yaml, key.c_str()) ? " exists, " : " is absent, ") +
              std::to_string(TovYamlGetArraySize(yaml, "%s", key.c_str())) + " elements, " +
              (text == nullptr ? "no text" : "\"" + std::string(text) + "\"") + "\n";
  }
  TovYamFreelHandle(yaml);
  std::remove(path.c_str());
}

TEST(Yaml, AnswersByDottedPathsAndIndexes) {
  tellAnswers(
      "a: {b: {c: deep}, list: [x, {k: v}, '', [p, q]]}\nempty:\nnumber: 12\n0: {0: none}\n",
      "a.b.c a.list[0] a.list[1].k a.list[2] a.list[3] a.list[3][1] number a a.b a.list "
      "empty 0.0 0[0] a.list[4] a.list[x] a.list[ a.list.k number.x number[0] absent absent.x . "
      "[0] " +
          std::string(600, 'k'));
  for (const char* other : {"", "just text", "[1, 2]", "a: [unclosed"}) {
    tellAnswers(other, "watchDog");
  }
  expectTold("yaml.txt");
  EXPECT_TRUE(TovYamlLoadFile("/dev/null/none") == nullptr && TovYamlLoadFile(nullptr) == nullptr);
}

// The log's destination is fixed when a program is loaded, so each case is a process.
const std::string kLines = QURN_EMULATOR LOG_LINES;

// What is different each time is taken out of the lines.
std::string asKnown(const std::string& command, const std::string& known) {
  return "(" + command + R"() 2>&1 | sed -E "s/[0-9]{4}(-[0-9]{2}){2}T[0-9:]{8}[.][0-9]{3}Z /at /
                          s/\[)" +
         processName("log_lines") + R"(:[0-9]+\]/[log_lines]/
                          s/b:[0-9]+\]/b]/
                          s/(x|[\]x1b){20,}/.../
                          s/^(TID|THREAD_NAME)=.*/\1=/
                          s/(management_stand_in:)[0-9]+/\1/" | diff )" GOLDEN "/" +
         known + " -";
}

TEST(Log, WritesALineAMessageDropsRepeatsAndIsRotated) {
  expectAll(
      {{asKnown(kLines +
                    " 2>&1 | head -n 5; for level in warning Warning NONE \"\" error OFF; do "
                    "echo $level:; TOV_LOG_LEVEL=$level " +
                    kLines +
                    " report; done; "
                    "TOV_LOG_TARGET=paper TOV_LOG_FILE_BYTES=10k " +
                    kLines + " odd; " + kLines + " deaf",
                "log.txt"),
        0, ""},
       // By way of a file: a pipe's reader that gets no processor for long costs lines.
       {"d=$(mktemp); " + kLines +
            R"( 2>$d; awk "/ again/ {again++} / report/ {report++} / different/ {different++}
                                /identical lines dropped/ {sub(/.*\(/, \"\"); dropped += \$1}
                                END {print again + dropped, report, different, (dropped > 0), (again > 199)}" $d; rm $d)",
        0, "1000 1000 300 1 1\n"},
       {"d=$(mktemp -d); TOV_LOG_FILE_BYTES=10000 TOV_LOG_TARGET=file:$d/log " + kLines +
            "; cd $d; find . -size +10000c; echo *; rm -r $d",
        0, "log log.1 log.2 log.3 log.4 log.5\n", "unit ... ./log"},
       {kLines + " terminal", 0, ""},
       {"{ { sleep 0.5; " + kLines + "; echo status $? >&3; } 2>&1 | true; } 3>&1", 0, "status 0"},
       {"d=$(mktemp); " + kLines + " full 2>$d; cat $d; rm $d", 0,
        " lines lost: nobody took them)\n ... room again"},
       {"cd $(mktemp -d); TOV_LOG_TARGET=file:log " + kLines + " full; cat log; echo *; rm -r $PWD",
        0, " lines lost: nobody took them)\n ... room again\nlog\n"},
       {"cd $(mktemp -d); TOV_LOG_TARGET=file:log " + kLines +
            " daemon; cat log; ls | wc -l; rm -r $PWD",
        0, "0 elsewhere ... before\n ... is captured ... \n3\n"},
       {"d=$(mktemp -d); mkfifo $d/log; TOV_LOG_TARGET=file:$d/log " + kLines + "; rm -r $d", 0,
        "logging to standard error\n ... information 1"},
       {"TOV_LOG_TARGET=file:/dev/null/log " + kLines, 0,
        "logging to standard error\n ... information 1"}});
}

TEST(Log, GivesTheJournalFieldsAndNeverWaitsForIt) {
  const std::string command = "TOV_LOG_TARGET=journal " + kLines + " journal";
  if (runProgram(command).has("no namespaces here")) {
    GTEST_SKIP();
  }
  expectAll({{asKnown(command, "journal.txt"), 0, ""}});
}

// As many as are kept, and the build id that the program itself has. What else lies there stays,
// and data is not looked at.
TEST(Log, KeepsTheMemoryMapOfAReport) {
  expectAll(
      {{"export RUNTIME_DIRECTORY=$(mktemp -d); (cd $RUNTIME_DIRECTORY; echo >2024-notes.maps; "
        "mkdir $(seq -f %g.maps 20); touch -d 2020-01-01 *); for i in $(seq 20); do " +
            kLines +
            " report 2>/dev/null; done; cd $RUNTIME_DIRECTORY; ls | wc -l; "
            "for id in *.build-ids; do grep -c tovplatform ${id%.build-ids}.maps >/dev/null && "
            "grep -q \"^$(readelf -n " LOG_LINES
            " | sed -n \"s/.*Build ID: //p\") \" $id && echo same; "
            "sort $id | uniq -d; done | sort | uniq -c; rm -r $RUNTIME_DIRECTORY",
        0, "53\n ... 16 same", "/log_lines"}});
}

// ---- call stack

// Made-up contexts: whatever the registers say, the walk reads nothing that it must not read.
TEST(CallStack, SurvivesGarbageRegisters) {
  uint64_t addresses[20];
  uint32_t none = 0;
  EXPECT_NE(KEM_ExceptCallStackGetEx(nullptr, 20, 0, addresses, &none), QURN_OK);
  const auto here = reinterpret_cast<uint64_t>(__builtin_frame_address(0));
  for (const uint64_t framePointer :
       {uint64_t{0}, uint64_t{1}, uint64_t{8}, here, here + 1, here + 8, here + (1U << 20U),
        ~uint64_t{0}, ~uint64_t{0} - 15, uint64_t{1} << 46U}) {
    for (const uint64_t stackPointer : {uint64_t{0}, here, framePointer}) {
      ucontext_t context{};
      auto* words = reinterpret_cast<uint64_t*>(&context.uc_mcontext);
      words[qurn::kProgramCounterWord] = 0x1234;
      words[qurn::kFramePointerWord] = framePointer;
      words[qurn::kStackPointerWord] = stackPointer;
      uint32_t depth = 0;
      EXPECT_EQ(KEM_ExceptCallStackGetEx(&context, 20, 0, addresses, &depth), QURN_OK);
      EXPECT_GE(depth, 1U);
      EXPECT_EQ(addresses[0], 0x1234U);
    }
  }
}

// A walk is going on nearly all the time; what this thread does meanwhile is none of its business.
class BesideWalks : public testing::Test {
 protected:
  BesideWalks() { setHandler(recover); }

  static void setHandler(void (*handler)(int), int flags = 0) {
    struct sigaction own {};
    own.sa_handler = handler;
    own.sa_flags = flags;
    sigaction(SIGSEGV, &own, nullptr);
  }
  static struct sigaction current() {
    struct sigaction now {};
    sigaction(SIGSEGV, nullptr, &now);
    return now;
  }
  static void recover(int) {
    ++g_faults;
    siglongjmp(g_back, 1);
  }
  static void fault() {
    static const volatile uintptr_t nowhere = 64;
    *reinterpret_cast<volatile int*>(nowhere) = 1;
  }
  // Whether each fault has reached the handler that recovers.
  static bool recovers(int faults) {
    g_faults = 0;
    for (g_done = 0; g_done < faults; ++g_done) {
      if (sigsetjmp(g_back, 1) == 0) {
        fault();
      }
    }
    return g_faults == faults;
  }

  static inline sigjmp_buf g_back{};
  static inline int g_faults = 0;
  static inline int g_done = 0;
  static inline struct sigaction g_chained {};
  static void walk(const std::stop_token& stop) {
    while (!stop.stop_requested()) {
      uint64_t addresses[20];
      uint32_t depth = 0;
      ucontext_t context;
      getcontext(&context);
      EXPECT_EQ(KEM_ExceptCallStackGetEx(&context, 20, 0, addresses, &depth), QURN_OK);
    }
  }
  std::jthread walker_{walk};
};

TEST_F(BesideWalks, FaultsReachTheirHandlerAndSoTheyDoThroughOneThatHandsOn) {
  EXPECT_TRUE(recovers(2000));
  while (current().sa_handler == recover) {
  }
  struct sigaction handingOn {};
  handingOn.sa_flags = SA_SIGINFO;
  handingOn.sa_sigaction = [](int sig, siginfo_t* info, void* context) {
    (g_chained.sa_flags & SA_SIGINFO) != 0 ? g_chained.sa_sigaction(sig, info, context)
                                           : g_chained.sa_handler(sig);
  };
  sigaction(SIGSEGV, &handingOn, &g_chained);
  EXPECT_TRUE(recovers(2000));
  walker_ = {};
  EXPECT_EQ(current().sa_sigaction, handingOn.sa_sigaction);
}

TEST_F(BesideWalks, AChildHasItsOwnHandlersAndOneThatIsToRunOnceRunsOnce) {
  for (int i = 0; i < 50; ++i) {
    EXPECT_TRUE(inChild([] { return current().sa_handler == recover; }));
  }
  static std::atomic<int>& runs = *static_cast<std::atomic<int>*>(
      mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  for (int i = 0; kThreadsInChild && i < 20; ++i) {
    runs = 0;
    EXPECT_FALSE(inChild([] {
      setHandler([](int) { ++runs; }, static_cast<int>(SA_RESETHAND | SA_NODEFER));
      const std::jthread walker(walk);
      usleep(1000);
      fault();
      return true;
    }));
    EXPECT_TRUE(runs == 1 || runs == 2) << runs << ", the second just when a walk ended";
  }
}

// ---- stack bounds

std::atomic<bool> g_kernelAnswers{true};
std::atomic<size_t> g_longestRead{0};
std::atomic<size_t> g_seeks{0};

}  // namespace

extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list more;
  va_start(more, request);
  void* const argument = va_arg(more, void*);
  va_end(more);
  errno = ENOTTY;
  return g_kernelAnswers ? static_cast<int>(syscall(SYS_ioctl, fd, request, argument)) : -1;
}
INTERPOSE(ssize_t, read, (int fd, void* bytes, size_t count), (fd, bytes, count),
          g_longestRead = std::max(g_longestRead.load(), count))
INTERPOSE(off_t, lseek, (int fd, off_t offset, int whence), (fd, offset, whence), ++g_seeks)

namespace {

std::pair<uint64_t, uint64_t> mappingOf(uint64_t address) {
  std::ifstream maps("/proc/thread-self/maps");
  uint64_t start = 0;
  uint64_t end = 0;
  char hyphen = 0;
  for (std::string rest; maps >> std::hex >> start >> hyphen >> end && std::getline(maps, rest);) {
    if (start <= address && address < end) {
      return {start, end};
    }
  }
  return {};
}

// What is told, with the kernel's answer and without.
struct Asked {
  uint64_t here;
  std::array<FrameTaskStackInfo, 2> told;
  size_t longestRead;
  size_t seeks;
};

Asked askHere() {
  Asked asked{reinterpret_cast<uint64_t>(__builtin_frame_address(0)), {}, 0, 0};
  g_longestRead = g_seeks = 0;
  for (const bool kernelAnswers : {true, false}) {
    g_kernelAnswers = kernelAnswers;
    KEM_TaskStackInfoGet(0, &asked.told[kernelAnswers ? 0 : 1]);
  }
  asked.longestRead = g_longestRead;
  asked.seeks = g_seeks;
  return asked;
}

Asked askOnAnotherStack() {
  static Asked asked;
  static std::vector<char> memory(1U << 18U);
  const stack_t other{memory.data(), 0, memory.size()};
  stack_t before{};
  sigaltstack(&other, &before);
  struct sigaction on {};
  on.sa_handler = [](int) { asked = askHere(); };
  on.sa_flags = SA_ONSTACK;
  sigaction(SIGUSR1, &on, nullptr);
  raise(SIGUSR1);
  sigaltstack(&before, nullptr);
  return asked;
}

void expectMappingOf(uint64_t address, const Asked& asked) {
  const auto [start, end] = mappingOf(address);
  for (const FrameTaskStackInfo& told : asked.told) {
    EXPECT_TRUE(told.start == start && told.start + told.size == end);
  }
  EXPECT_TRUE(asked.longestRead <= 1024 && asked.seeks == 0) << "in one pass";
}

TEST(StackBounds, AreTheMappingInUseOnTheFirstThreadAndThatOfTheControlBlockOnOthers) {
  FrameTaskStackInfo scanned{0, 0};
  EXPECT_NE(KEM_TaskStackInfoGet(1, &scanned), QURN_OK);
  for (const Asked& asked : {askHere(), askOnAnotherStack()}) {
    expectMappingOf(asked.here, asked);
  }
  std::thread([&scanned] {
    for (const Asked& asked : {askHere(), askOnAnotherStack()}) {
      expectMappingOf(pthread_self(), asked);
      FrameTaskStackInfoGet(&scanned);
      EXPECT_TRUE(asked.told[1].start == scanned.start && asked.told[1].size == scanned.size);
    }
  }).join();
}

// ---- the rest of the KEM layer

void tellHeld(uint32_t id) {
  uint64_t blocks = 0;
  uint64_t bytes = 0;
  TovStandInMemoryHeld(id, &blocks, &bytes);
  g_told += std::to_string(blocks) + " blocks, " + std::to_string(bytes) + " bytes are held by:\n";
  TovStandInMemoryPrint(tell);
}

// The newest twenty, and then none any more.
void tellMistakes() {
  KEM_HookPrint(tell);
  tell("mistakes:");
  EXPECT_EQ(KEM_BoxextRecordShow(3, 0, 99, 0xFFFFFFFF) | KEM_BoxextRegionClean(3) |
                KEM_BoxextRecordShow(3, 0, 99, 0xFFFFFFFF),
            QURN_OK);
}

TEST(KemMemory, IsAccountedForByHandlePartitionAndPlaceAndMistakesAreSaid) {
  uint32_t id = 0;
  ASSERT_EQ(KEM_HandleInitialize("module", &id), QURN_OK);
  void* one = KEM_MemAlloc_F(id, 1, 100, "one", 10);
  void* two = KEM_MemAlloc_F(id, 1, 50, "one", 10);
  void* other = KEM_MemAlloc_F(id, 2, 1, "one", 10);
  void* raw = KEM_MemAlloc_F(0x04048000, 0, 7, nullptr, 0);
  tellHeld(id);
  tellHeld(TOV_STAND_IN_ALL_HANDLES);
  EXPECT_EQ(KEM_MemFree_F(0, one, "x", 1) | KEM_MemFree_F(0, raw, "x", 1) | KEM_HandleFinalize(id),
            QURN_OK);
  EXPECT_EQ(KEM_MemFree_F(id, two, "x", 1), QURN_OK);  // still theirs to free
  tellHeld(id);
  EXPECT_EQ(KEM_MemFree_F(0, other, "x", 1), QURN_OK);
  tellHeld(id);
  tellMistakes();

  // What is no live block or handle is left alone.
  void* block = KEM_MemAlloc_F(0, 0, 32, "owner", 1);
  EXPECT_EQ((std::vector{KEM_MemFree_F(0, nullptr, "x", 1),
                         KEM_MemFree_F(0, static_cast<char*>(block) + 8, "inside", 2),
                         KEM_MemFree_F(0, block, "first", 3), KEM_MemFree_F(0, block, "second", 4),
                         KEM_MemFree_F(0, &block, "foreign", 5), KEM_HandleFinalize(id),
                         KEM_HandleFinalize(99)}),
            (std::vector{QURN_OK, QURN_FAILED, QURN_OK, QURN_FAILED, QURN_FAILED, QURN_FAILED,
                         QURN_FAILED}));
  EXPECT_EQ(KEM_MemAlloc_F(id, 0, 8, "late", 6), nullptr);
  EXPECT_EQ(KEM_MemAlloc_F(0xFFFFFFFF, 0, 8, "bad", 7), nullptr);
  EXPECT_NE(KEM_HandleInitialize(nullptr, &id), QURN_OK);
  tellMistakes();
  for (uint32_t many = 101; many <= 122; ++many) {
    KEM_HandleFinalize(many);
  }
  tellMistakes();
  g_told = std::regex_replace(g_told, std::regex("0x[0-9a-f]+"), "ADDRESS");
  expectTold("memory.txt");
  EXPECT_EQ(TovStandInBoxWrite(7, "x"), QURN_OK);
  EXPECT_TRUE(KEM_BoxextRecordShow(8, 0, 20, 0xFFFFFFFF) != QURN_OK &&
              TovStandInBoxWrite(8, "x") != QURN_OK);
}

// ---- signals of the terminal

int g_deliveries = 0;
uint32_t ignoreTheThird(uint32_t sig, void* info, void* context) {
  return ++g_deliveries < 3 ? 0 : FrameSignalIgnoreFunc(sig, info, context);
}

// In the background of a terminal of its own, which its parent leads.
template <typename Action>
bool inBackground(Action isGood) {
  return inChild([=] {
    const int other = posix_openpt(O_RDWR | O_NOCTTY);
    grantpt(other);
    unlockpt(other);
    setsid();
    const int terminal = open(ptsname(other), O_RDWR);
    return inChild([&] {
      setpgid(0, 0);
      return tcgetpgrp(terminal) == getppid() && isGood(terminal);
    });
  });
}

TEST(IgnoredSignal, OfTheTerminalLetsTheInterruptedCallEnd) {
  if (kSanitizers == "thread") {
    GTEST_SKIP() << "its handlers wait for the call to end";
  }
  for (const auto& [handler, deliveries] :
       {std::pair{&FrameSignalIgnoreFunc, 0}, std::pair{&ignoreTheThird, 3}}) {
    EXPECT_TRUE(inBackground([handler = handler, deliveries = deliveries](int terminal) {
      KEM_SigcapHandleReg(SIGTTIN, handler);
      char text = 0;
      return read(terminal, &text, 1) == -1 && errno == EIO && g_deliveries == deliveries;
    }));
    EXPECT_TRUE(inBackground([handler = handler, deliveries = deliveries](int terminal) {
      KEM_SigcapHandleReg(SIGTTOU, handler);
      termios settings{};
      return tcgetattr(terminal, &settings) == 0 && tcsetattr(terminal, TCSANOW, &settings) == 0 &&
             g_deliveries == deliveries;
    }));
  }
  EXPECT_TRUE(inChild([] {
    KEM_SigcapHandleReg(SIGHUP, ignoreTheThird);
    for (int i = 0; i < 5; ++i) {
      raise(SIGHUP);
    }
    return g_deliveries == 5;
  })) << "others stay open";
}

// ---- the guard's client

extern "C" int32_t bexlin_notify(int32_t what);

TEST(GuardClient, NeverWaitsForAGuardAndTellsItsAddressFromOthers) {
  unsetenv("NOTIFY_SOCKET");
  EXPECT_EQ(bexlin_notify(1), 0);
  const std::string name = testing::TempDir() + "/qurn-guard-" + std::to_string(getpid());
  for (const std::string& shown : {name, "@" + name}) {
    sockaddr_un address{AF_UNIX, ""};
    shown.copy(address.sun_path, shown.size());
    address.sun_path[0] = shown == name ? '/' : '\0';
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + shown.size());
    const qurn::ScopedFd guard(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(bind(guard.get(), reinterpret_cast<const sockaddr*>(&address), length), 0);
    setenv("NOTIFY_SOCKET", shown.c_str(), 1);
    alarm(20);  // if it waits after all
    EXPECT_EQ(bexlin_notify(1), 0);
    int32_t answer = 0;
    while (answer == 0) {
      answer = bexlin_notify(0);
    }
    alarm(0);
    EXPECT_EQ(answer, EAGAIN);
    const auto receive = [&] {
      std::array<char, 64> text{};
      EXPECT_GT(recv(guard.get(), text.data(), text.size() - 1, 0), 0);
      return std::string(text.data());
    };
    EXPECT_EQ(receive(), "READY=1");
    EXPECT_EQ(receive(), "WATCHDOG=1");
    EXPECT_EQ(bexlin_notify(0), 0);
  }
  EXPECT_EQ(bexlin_notify(0), ECONNREFUSED) << "it has ended";
  unlink(name.c_str());
  for (const std::string& none :
       {std::string(), std::string("@"), std::string("relative"), "/" + std::string(200, 'x')}) {
    setenv("NOTIFY_SOCKET", none.c_str(), 1);
    EXPECT_EQ(bexlin_notify(0), EINVAL) << none;
  }
}

TEST(Kem, AMutexExistsBetweenInitAndDestroy) {
  uint64_t mutex = 0;
  EXPECT_NE(KEM_MutexLock(&mutex), QURN_OK);
  EXPECT_EQ(KEM_MutexInit(&mutex), QURN_OK);
  EXPECT_EQ(KEM_MutexLock(&mutex) | KEM_MutexUnlock(&mutex) | KEM_MutexDestroy(&mutex), QURN_OK);
  EXPECT_EQ(mutex, 0U);
}

}  // namespace
