// Writes lines to the stand-in's log, for the tests of what arrives: log_lines [WHAT]
#include <fcntl.h>
#include <qurnadapt/platform.h>
#include <qurnadapt/qurnadapt.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "support/interpose.h"

#define PRINT(PRINTER, LEVEL, ...) PRINTER(0, "a/b/unit", 8, "<unknown>", 9, 42, LEVEL, __VA_ARGS__)

namespace {

std::atomic<bool> g_nextIsTooLong{false};

void writeUsual() {
  PRINT(LOG_InnerPrint, 40, "information %d", 1);
  PRINT(LOG_InnerPrint, 80, "warning");
  PRINT(LOG_InnerPrint, 100, "error");
  ZotKemLogPrint("legacy %s", "text");
  TovPluginKmsEncrypt("plain", 5);
  for (int i = 0; i < 1000; ++i) {
    PRINT(LOG_InnerPrint, 40, "again");
    PRINT(LOG_InnerPrintUnsuppress, 80, "report");
  }
  for (int i = 0; i < 300; ++i) {
    PRINT(LOG_InnerPrint, 40, "different %d", i);
  }
}

// What could pass for a line of its own, or do something to a terminal.
void writeOdd() {
  prctl(PR_SET_NAME, "a\nb");
  PRINT(LOG_InnerPrint, 80,
        "one\ntwo\ttabs \x1b[31m and \x7f, \xC2\x9B csi; \xC3\xA4, \xC2\xA9 and \xC2");
  PRINT(LOG_InnerPrint, 80, "%s", std::string(3000, 'x').c_str());
  PRINT(LOG_InnerPrint, 80, "%s", std::string(2000, '\x1b').c_str());
}

void writeReport() {
  // Data, too, may look like a program.
  mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE, open("/proc/self/exe", O_RDONLY | O_CLOEXEC), 0);
  PRINT(LOG_InnerPrint, 40, "information");
  PRINT(LOG_InnerPrint, 80, "warning");
  PRINT(LOG_InnerPrint, 100,
        "Frame task deadloop detect, task [%s:%d] trigger third threshold timeout.(elapsed time = "
        "%u, first threshold = %u, second threshold = %u, third threshold = %u)",
        "my: [worker:1] trigger ", 77, 3003U, 1000U, 2000U, 3000U);
  PRINT(LOG_InnerPrintUnsuppress, 80, "Signal %d is captured at %s.", 36, "then");
  PRINT(LOG_InnerPrintUnsuppress, 80, "#%u %s.", 0U, "spin+0x10");
  PRINT(LOG_InnerPrint, 100,
        "Task(%s) deadloop detected with no process hook, execute default strategy.", "worker");
}

// Nobody reads standard error, until somebody does.
void writeToTheDeaf() {
  std::array<int, 2> ends{};
  std::array<char, 1U << 16U> dots{};
  dots.fill('.');
  static_cast<void>(!pipe2(ends.data(), O_NONBLOCK));
  while (write(ends[1], dots.data(), dots.size()) > 0 || write(ends[1], ".", 1) > 0) {
  }
  fcntl(ends[1], F_SETFL, 0);
  dup2(ends[1], STDERR_FILENO);
  for (int i = 0; i < 1000; ++i) {
    PRINT(LOG_InnerPrintUnsuppress, 80, "lost");
  }
  const auto drain = [&] {
    ssize_t got = 0;
    while ((got = read(ends[0], dots.data(), dots.size())) > 0) {
      const std::string_view text(dots.data(), static_cast<size_t>(got));
      std::printf(
          "%s", std::string(text.substr(text.find_first_not_of('.') == text.npos ? text.size() : 0))
                    .c_str());
    }
  };
  drain();
  PRINT(LOG_InnerPrint, 80, "heard");
  drain();
}

// A terminal that nobody reads has room for less and less.
void writeToADeafTerminal() {
  const int other = posix_openpt(O_RDWR | O_NOCTTY);
  grantpt(other);
  unlockpt(other);
  dup2(open(ptsname(other), O_RDWR | O_NOCTTY), STDERR_FILENO);
  for (int i = 0; i < 2000; ++i) {
    PRINT(LOG_InnerPrintUnsuppress, 80, "lost");
  }
}

// No file may become longer, as on a full disk, and then it may.
void writeWithoutRoom() {
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit limit{};
  getrlimit(RLIMIT_FSIZE, &limit);
  const rlimit small{4000, limit.rlim_max};
  setrlimit(RLIMIT_FSIZE, &small);
  for (int i = 0; i < 100; ++i) {
    PRINT(LOG_InnerPrintUnsuppress, 80, "Signal %d is captured at %s.", 36, "then");
  }
  setrlimit(RLIMIT_FSIZE, &limit);
  PRINT(LOG_InnerPrint, 80, "room again");
}

// Closes all that it does not know, and has something else in its place. Returns one of that.
int useDescriptorsAnew(int known) {
  constexpr int kMost = 20;
  for (int fd = STDERR_FILENO + 1; fd < kMost; ++fd) {
    if (fd != known) {
      close(fd);
    }
  }
  const int other = memfd_create("other", 0);
  while (dup(other) < kMost) {
  }
  return other;
}

void writeAsADaemon() {
  PRINT(LOG_InnerPrint, 80, "before");
  static_cast<void>(!chdir("/"));
  const int other = useDescriptorsAnew(-1);
  PRINT(LOG_InnerPrintUnsuppress, 80, "Signal %d is captured at %s.", 36, "then");
  std::printf("%d elsewhere\n", static_cast<int>(lseek(other, 0, SEEK_END)));
}

// ---- a journal of our own

int listenAsTheJournal() {
  sockaddr_un address{AF_UNIX, "/run/systemd/journal/socket"};
  const int journal = socket(AF_UNIX, SOCK_DGRAM, 0);
  if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      mount("none", "/run", "tmpfs", 0, nullptr) != 0 || mkdir("/run/systemd", 0700) != 0 ||
      mkdir("/run/systemd/journal", 0700) != 0 ||
      bind(journal, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
    std::puts("no namespaces here");
    exit(0);
  }
  return journal;
}

// Returns how many records there were; prints those that are to be shown.
int readRecords(int journal, bool isShown) {
  for (int count = 0;; ++count) {
    std::array<char, 1U << 16U> text{};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
    iovec part{text.data(), text.size() - 1};
    msghdr message{nullptr, 0, &part, 1, control.data(), control.size(), 0};
    if (recvmsg(journal, &message, MSG_DONTWAIT) < 0) {
      return count;
    }
    if (const cmsghdr* passed = CMSG_FIRSTHDR(&message); passed != nullptr) {
      const int file = *reinterpret_cast<const int*>(CMSG_DATA(passed));
      const bool isSealed = write(file, "x", 1) < 0 && errno == EPERM;
      std::printf("%s file: ", isSealed ? "sealed" : "open");
      static_cast<void>(!pread(file, text.data(), text.size() - 1, 0));
      close(file);
    }
    std::printf(isShown ? "%s\n" : "", text.data());
  }
}

void writeToTheJournal() {
  const int journal = listenAsTheJournal();
  writeReport();
  useDescriptorsAnew(journal);
  g_nextIsTooLong = true;
  PRINT(LOG_InnerPrint, 40, "large\n");
  readRecords(journal, true);
  for (int i = 0; i < 3000; ++i) {
    PRINT(LOG_InnerPrintUnsuppress, 80, "nobody reads");
  }
  const int held = readRecords(journal, false);
  PRINT(LOG_InnerPrint, 40, "read again");
  std::printf("%d lost at least\n%d more\n", held < 3000 ? 1 : 0, readRecords(journal, false));
  close(journal);
  unlink("/run/systemd/journal/socket");
  PRINT(LOG_InnerPrint, 40, "without a journal");
}

}  // namespace

INTERPOSE(
    ssize_t, sendmsg, (int fd, const msghdr* message, int flags), (fd, message, flags),
    if (g_nextIsTooLong.exchange(false)) {
      errno = EMSGSIZE;
      return -1;
    })

int main(int argc, char** argv) {
  const std::string_view what = argc > 1 ? argv[1] : "usual";
  what == "odd"        ? writeOdd()
  : what == "report"   ? writeReport()
  : what == "deaf"     ? writeToTheDeaf()
  : what == "terminal" ? writeToADeafTerminal()
  : what == "full"     ? writeWithoutRoom()
  : what == "daemon"   ? writeAsADaemon()
  : what == "journal"  ? writeToTheJournal()
                       : writeUsual();
  return 0;
}
