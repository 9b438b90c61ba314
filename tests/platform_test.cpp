// The stand-in platform on its own, beyond what the library's tests and the fuzz targets use of it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <qurnadapt/qurnadapt.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <termios.h>
#include <tovplatform/stand_in.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <fstream>
#include <regex>
#include <sstream>
#include <vector>

#include "common/scoped_fd.h"
#include "support/in_child.h"

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
  EXPECT_EQ(KEM_BoxextRegionClean(8), QURN_FAILED) << "there are eight";
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
  for (const auto& [ours, times] :
       {std::pair{&FrameSignalIgnoreFunc, 0}, std::pair{&ignoreTheThird, 3}}) {
    EXPECT_TRUE(inBackground([handler = ours, deliveries = times](int terminal) {
      KEM_SigcapHandleReg(SIGTTIN, handler);
      char text = 0;
      return read(terminal, &text, 1) == -1 && errno == EIO && g_deliveries == deliveries;
    }));
    EXPECT_TRUE(inBackground([handler = ours, deliveries = times](int terminal) {
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
