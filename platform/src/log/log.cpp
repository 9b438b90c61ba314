// Stands in for the framework's log library: one line a message, to standard error, a rotated file,
// the system log or the journal. Callable from any thread, not from signal handlers.
#include <pthread.h>
#include <qurnadapt/platform.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <functional>
#include <string>

#include "common/fork_mutex.h"
#include "common/uncancellable.h"
#include "common/unit_log.h"
#include "destinations.h"
#include "events.h"
#include "journal.h"
#include "memory_map.h"
#include "record.h"
#include "settings.h"
#include "text_builder.h"

namespace tov::log {
namespace {

constexpr size_t kTextBytes = 2048;

// ---- where lines go

// How a line gets out; the log's lock is held.
class Outlet {
 public:
  void set(Take take) noexcept { take_ = take; }
  void addLost(uint64_t count) noexcept { lost_ += count; }

  // A destination that takes nothing is waited for once. From then on lines are dropped, and
  // counted, until it takes one: the number.
  void deliver(const Record& record) noexcept {
    if (lost_ != 0 && !tellLoss(record)) {
      ++lost_;
      return;
    }
    if (!take_(record, lost_ == 0 ? kPatienceMs : 0)) {
      ++lost_;
    }
  }

 private:
  static constexpr int kPatienceMs = 100;

  bool tellLoss(const Record& next) noexcept {
    std::array<char, 64> bytes{};
    TextBuilder text(bytes.data(), bytes.size());
    text.add("(").addNumber(lost_).add(" lines lost: nobody took them)");
    Record loss = next;
    loss.level = Level::kWarning;
    loss.format = "(%u lines lost: nobody took them)";
    loss.text = text.text();
    if (!take_(loss, 0)) {
      return false;
    }
    lost_ = 0;
    return true;
  }

  Take take_ = writeToStandardError;
  uint64_t lost_ = 0;
};

// ---- repeats

// Lets a call site say the same thing this often a second, and counts what it holds back. Sites
// that fall on one entry only make each other less suppressed.
class RepeatFilter {
 public:
  struct Verdict {
    bool isDropped;
    uint32_t droppedBefore;  // to be told before the message
  };

  Verdict judge(const Record& record) noexcept {
    const uint64_t site = reinterpret_cast<uintptr_t>(record.path.data()) * 31 + record.line;
    const uint64_t text = std::hash<std::string_view>{}(record.text) ^ site;
    Entry& entry = entries_[site % entries_.size()];
    if (entry.text == text && entry.second == record.at.tv_sec) {
      const bool isDropped = entry.count >= kRepeatsPerSecond;
      ++(isDropped ? entry.dropped : entry.count);
      return {isDropped, 0};
    }
    const Verdict verdict{false, entry.dropped};
    entry = {text, record.at.tv_sec, 1, 0};
    return verdict;
  }

 private:
  static constexpr uint32_t kRepeatsPerSecond = 200;
  struct Entry {
    uint64_t text;
    time_t second;
    uint32_t count;
    uint32_t dropped;
  };

  std::array<Entry, 127> entries_{};
};

// ---- the log

constinit qurn::ForkMutex g_lock;  // for what follows
constinit Outlet g_outlet{};
constinit RepeatFilter g_repeats{};

// A thread may be stuck within its line, in a signal's handler, with the lock. It is waited for
// once; then lines are dropped, and counted, until the lock is free: nobody else is to get stuck,
// least of all the thread that watches the others.
class Turn {
 public:
  Turn() noexcept : isMine_(g_lock.lockFor(g_isHeldUp ? 0 : kPatienceMs)) {
    g_isHeldUp = !isMine_;
    if (isMine_) {
      g_outlet.addLost(g_dropped.exchange(0));
    } else {
      ++g_dropped;
    }
  }
  ~Turn() {
    if (isMine_) {
      g_lock.unlock();
    }
  }
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;
  [[nodiscard]] bool isMine() const noexcept { return isMine_; }

 private:
  static constexpr int64_t kPatienceMs = 500;
  static constinit std::atomic<bool> g_isHeldUp;
  static constinit std::atomic<uint64_t> g_dropped;

  const bool isMine_;
};
constinit std::atomic<bool> Turn::g_isHeldUp{false};
constinit std::atomic<uint64_t> Turn::g_dropped{0};

// Asked for once: a system call that every line would make.
[[gnu::tls_model("initial-exec")]] constinit thread_local pid_t t_tid = 0;

pid_t ownTid() noexcept {
  if (t_tid == 0) {
    t_tid = static_cast<pid_t>(syscall(SYS_gettid));
  }
  return t_tid;
}

struct Setup {
  bool isOff = false;
  Level least = Level::kInfo;
  std::string mapDirectory;  // empty: memory maps are not kept
};

Take destinationFor(const Settings& settings) {
  const std::string& target = settings.target;
  if (target == "journal") {
    return writeToJournal;
  }
  if (target == "syslog") {
    return writeToSystemLog;
  }
  if (target.starts_with("file:")) {
    try {
      openFile(target.substr(5), settings.fileBytes, settings.rotatedKept);
      return writeToFile;
    } catch (const std::exception& mistake) {
      std::fprintf(stderr, "log file: %s; logging to standard error\n", mistake.what());
    }
  }
  return writeToStandardError;
}

// Beside a file, else where the service manager lets the service keep what it needs at run time.
std::string mapDirectoryFor(const Settings& settings) {
  if (settings.target.starts_with("file:")) {
    return std::filesystem::path(settings.target.substr(5)).parent_path();
  }
  const char* runtime = getenv("RUNTIME_DIRECTORY");
  const std::string directories = runtime == nullptr ? "" : runtime;
  return directories.substr(0, directories.find(':'));
}

// Never destroyed: threads may log while the process ends.
const Setup& setup() {
  static const Setup& instance = *[] {
    const Settings settings = readSettings();
    g_outlet.set(destinationFor(settings));
    return new Setup{settings.isOff, settings.least, mapDirectoryFor(settings)};
  }();
  return instance;
}

void tellUnknownVariables() {
  static constexpr char kUnit[] = "log";
  for (const std::string& variable : unknownVariables()) {
    QURN_LOG_AS(LOG_InnerPrint, kUnit, TOV_LOG_WARNING,
                "%s: unknown variable, nothing is taken from it", variable.c_str());
  }
}

// At load, so that no message has to set the destination up.
__attribute__((constructor)) void prepare() {
  setup();
  tellUnknownVariables();
  qurn::holdAcrossFork<[]() -> qurn::ForkMutex& { return g_lock; }>();
  static_cast<void>(pthread_atfork(nullptr, nullptr, [] { t_tid = 0; }));
}

Level levelFor(uint32_t level) noexcept {
  if (level >= TOV_LOG_ERROR) {
    return Level::kError;
  }
  return level >= TOV_LOG_WARNING ? Level::kWarning : Level::kInfo;
}

void writeUnlessRepeated(const Record& record) noexcept {
  const Turn turn;
  if (!turn.isMine()) {
    return;
  }
  const RepeatFilter::Verdict verdict = g_repeats.judge(record);
  if (verdict.droppedBefore != 0) {
    std::array<char, 64> bytes{};
    TextBuilder text(bytes.data(), bytes.size());
    text.add("(").addNumber(verdict.droppedBefore).add(" identical lines dropped)");
    Record told = record;
    told.format = "(%u identical lines dropped)";
    told.text = text.text();
    g_outlet.deliver(told);
  }
  if (!verdict.isDropped) {
    g_outlet.deliver(record);
  }
}

// A line of a report.
void writeAlways(const Record& record) noexcept {
  if (beginsReport(record) && !setup().mapDirectory.empty()) {
    keepMemoryMap(setup().mapDirectory);
  }
  if (const Turn turn; turn.isMine()) {
    g_outlet.deliver(record);
  }
}

struct Place {
  uint32_t moduleId;
  const char* file;
  uint32_t fileLen;
  uint32_t line;
  uint32_t level;
};

void formatAndWrite(void (*write)(const Record&) noexcept, const Place& place, const char* format,
                    va_list args) noexcept {
  const qurn::Uncancellable uncancellable;  // writing is a cancellation point
  std::array<char, kTextBytes> text;        // NOLINT: filled by vsnprintf
  std::array<char, 16> thread{};
  const int length = std::vsnprintf(text.data(), text.size(), format, args);
  if (length < 0) {
    return;
  }
  prctl(PR_GET_NAME, thread.data());
  Record record{};
  clock_gettime(CLOCK_REALTIME, &record.at);
  record.level = levelFor(place.level);
  record.moduleId = place.moduleId;
  record.path = place.file == nullptr ? "-" : std::string_view(place.file, place.fileLen);
  record.line = place.line;
  record.thread = thread.data();
  record.tid = ownTid();
  record.format = format;
  record.isCut = static_cast<size_t>(length) >= text.size();
  record.text = {text.data(), record.isCut ? text.size() - 1 : static_cast<size_t>(length)};
  write(record);
}

bool isWritten(uint32_t level) {
  const Setup& current = setup();
  return !current.isOff && levelFor(level) >= current.least;
}

}  // namespace
}  // namespace tov::log

using namespace tov::log;

extern "C" {

void LOG_InnerPrint(uint32_t moduleId, const char* file, uint32_t fileLen, const char* /*func*/,
                    uint32_t /*funcLen*/, uint32_t line, uint32_t level, const char* format, ...) {
  if (!isWritten(level)) {
    return;
  }
  va_list args;
  va_start(args, format);
  formatAndWrite(writeUnlessRepeated, {moduleId, file, fileLen, line, level}, format, args);
  va_end(args);
}

// No level but `off` takes a line out of a report.
void LOG_InnerPrintUnsuppress(uint32_t moduleId, const char* file, uint32_t fileLen,
                              const char* /*func*/, uint32_t /*funcLen*/, uint32_t line,
                              uint32_t level, const char* format, ...) {
  if (setup().isOff) {
    return;
  }
  va_list args;
  va_start(args, format);
  formatAndWrite(writeAlways, {moduleId, file, fileLen, line, level}, format, args);
  va_end(args);
}

void LOG_InnerVprint(uint32_t moduleId, uint32_t /*kind*/, const char* file, uint32_t fileLen,
                     const char* /*func*/, uint32_t /*funcLen*/, uint32_t line, uint32_t level,
                     const char* format, va_list args) {
  if (isWritten(level)) {
    formatAndWrite(writeUnlessRepeated, {moduleId, file, fileLen, line, level}, format, args);
  }
}

}  // extern "C"
