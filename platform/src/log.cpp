// Stands in for the framework's log library: one line a message, to standard error, a rotated file
// or the system log. Callable from any thread, not from signal handlers. Lines are put together in
// fixed buffers, because a caller may be on duty while another thread is stuck in the allocator.
#include <qurnadapt/platform.h>
#include <spdlog/details/null_mutex.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/sinks/syslog_sink.h>
#include <spdlog/spdlog.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <string>
#include <string_view>

#include "common/fork_mutex.h"
#include "common/uncancellable.h"

namespace {

constexpr size_t kDefaultFileBytes = size_t{10} << 20U;
constexpr size_t kFilesKept = 5;
constexpr size_t kTextBytes = 2048;

// ---- destination and level

// Writes to the descriptor, past the stream: a thread may be stuck with the stream locked.
class DescriptorSink final : public spdlog::sinks::base_sink<spdlog::details::null_mutex> {
 public:
  explicit DescriptorSink(int fd) : fd_(fd) {}

 private:
  void sink_it_(const spdlog::details::log_msg& message) override {
    spdlog::memory_buf_t line;
    formatter_->format(message, line);
    const char* rest = line.data();
    size_t length = line.size();
    while (length > 0) {
      const ssize_t written = ::write(fd_, rest, length);
      if (written < 0 && errno != EINTR) {
        return;
      }
      const size_t done = written < 0 ? 0 : static_cast<size_t>(written);
      rest += done;
      length -= done;
    }
  }
  void flush_() override {}

  int fd_;
};

spdlog::sink_ptr fileSink(const std::string& path) {
  const char* bytes = getenv("TOV_LOG_FILE_BYTES");
  const size_t limit = bytes == nullptr ? 0 : std::strtoull(bytes, nullptr, 10);
  return std::make_shared<spdlog::sinks::rotating_file_sink_st>(
      path, limit == 0 ? kDefaultFileBytes : limit, kFilesKept);
}

spdlog::sink_ptr sinkFor(std::string_view target) {
  constexpr std::string_view kFile = "file:";
  if (target == "syslog") {
    return std::make_shared<spdlog::sinks::syslog_sink_st>("qurnadapt", LOG_PID, LOG_DAEMON, false);
  }
  if (target.substr(0, kFile.size()) == kFile) {
    try {
      return fileSink(std::string(target.substr(kFile.size())));
    } catch (const spdlog::spdlog_ex& mistake) {
      std::fprintf(stderr, "log file: %s; logging to standard error\n", mistake.what());
    }
  }
  return std::make_shared<DescriptorSink>(STDERR_FILENO);
}

spdlog::level::level_enum configuredLevel() {
  const char* name = getenv("TOV_LOG_LEVEL");
  return name == nullptr ? spdlog::level::info : spdlog::level::from_str(name);
}

// Never destroyed: threads may log while the process ends.
spdlog::logger& logger() {
  static spdlog::logger* const instance = [] {
    const char* target = getenv("TOV_LOG_TARGET");
    auto* created = new spdlog::logger("tov", sinkFor(target == nullptr ? "stderr" : target));
    created->set_pattern("%Y-%m-%d %H:%M:%S.%e %l %v");
    created->set_level(configuredLevel());
    created->flush_on(spdlog::level::info);
    return created;
  }();
  return *instance;
}

// At load, so that no message has to set the destination up.
__attribute__((constructor)) void prepareLogger() { logger(); }

// ---- repeats

struct Message {
  uint32_t moduleId;
  std::string_view unit;
  uint32_t line;
  spdlog::level::level_enum level;
  std::string_view text;
};

constexpr uint64_t kFnvOffset = 14695981039346656037U;
constexpr uint64_t kFnvPrime = 1099511628211U;

uint64_t hashOf(std::string_view text, uint64_t seed = kFnvOffset) {
  for (const char c : text) {
    seed = (seed ^ static_cast<unsigned char>(c)) * kFnvPrime;
  }
  return seed;
}

// Lets a call site say the same thing this often a second, and counts what it holds back. Sites
// that fall on one entry only make each other less suppressed.
class RepeatFilter {
 public:
  struct Verdict {
    bool drop;
    uint32_t droppedBefore;  // to be told before the message
  };

  qurn::ForkMutex& mutex() { return mutex_; }

  Verdict judge(const Message& message) {
    const uint64_t site = hashOf(message.unit) + message.line;
    const uint64_t text = hashOf(message.text, site);
    const time_t second = now();
    const std::lock_guard lock(mutex_);
    Entry& entry = entries_[site % entries_.size()];
    if (entry.text == text && entry.second == second) {
      if (entry.count >= kRepeatsPerSecond) {
        ++entry.dropped;
        return {true, 0};
      }
      ++entry.count;
      return {false, 0};
    }
    const Verdict verdict{false, entry.dropped};
    entry = {text, second, 1, 0};
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

  static time_t now() {
    timespec stamp{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &stamp);
    return stamp.tv_sec;
  }

  qurn::ForkMutex mutex_;
  std::array<Entry, 128> entries_{};
};

constinit RepeatFilter g_repeats;

// ---- one line

constinit qurn::ForkMutex g_writing;  // the sinks have no lock of their own

__attribute__((constructor)) void watchForks() noexcept {
  qurn::holdAcrossFork<[]() -> qurn::ForkMutex& { return g_repeats.mutex(); }>();
  qurn::holdAcrossFork<[]() -> qurn::ForkMutex& { return g_writing; }>();
}

spdlog::level::level_enum levelFor(uint32_t level) {
  if (level >= TOV_LOG_ERROR) {
    return spdlog::level::err;
  }
  return level >= TOV_LOG_WARNING ? spdlog::level::warn : spdlog::level::info;
}

std::string_view baseName(std::string_view path) {
  const size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

void write(const Message& message) {
  std::array<char, 16> thread{};
  prctl(PR_GET_NAME, thread.data());
  std::array<char, kTextBytes + 256> line{};
  const int length = std::snprintf(
      line.data(), line.size(), "[%s:%ld] %u %.*s:%u %.*s", thread.data(), syscall(SYS_gettid),
      message.moduleId, static_cast<int>(message.unit.size()), message.unit.data(), message.line,
      static_cast<int>(message.text.size()), message.text.data());
  if (length > 0) {
    const std::lock_guard lock(g_writing);
    logger().log(message.level, std::string_view(line.data(), static_cast<size_t>(length)));
  }
}

void writeUnlessRepeated(const Message& message) {
  const RepeatFilter::Verdict verdict = g_repeats.judge(message);
  if (verdict.droppedBefore != 0) {
    std::array<char, 64> note{};
    std::snprintf(note.data(), note.size(), "(%u identical lines dropped)", verdict.droppedBefore);
    Message told = message;
    told.text = note.data();
    write(told);
  }
  if (!verdict.drop) {
    write(message);
  }
}

using Writer = void (*)(const Message&);

void formatAndWrite(Writer writer, uint32_t moduleId, const char* file, uint32_t fileLen,
                    uint32_t line, uint32_t level, const char* format, va_list args) {
  if (!logger().should_log(levelFor(level))) {
    return;
  }
  const qurn::Uncancellable uncancellable;  // writing is a cancellation point
  std::array<char, kTextBytes> text{};
  std::vsnprintf(text.data(), text.size(), format, args);
  const std::string_view path = file == nullptr ? "-" : std::string_view(file, fileLen);
  writer({moduleId, baseName(path), line, levelFor(level), text.data()});
}

}  // namespace

extern "C" {

void LOG_InnerPrint(uint32_t moduleId, const char* file, uint32_t fileLen, const char* /*func*/,
                    uint32_t /*funcLen*/, uint32_t line, uint32_t level, const char* format, ...) {
  va_list args;
  va_start(args, format);
  formatAndWrite(writeUnlessRepeated, moduleId, file, fileLen, line, level, format, args);
  va_end(args);
}

void LOG_InnerPrintUnsuppress(uint32_t moduleId, const char* file, uint32_t fileLen,
                              const char* /*func*/, uint32_t /*funcLen*/, uint32_t line,
                              uint32_t level, const char* format, ...) {
  va_list args;
  va_start(args, format);
  formatAndWrite(write, moduleId, file, fileLen, line, level, format, args);
  va_end(args);
}

void LOG_InnerVprint(uint32_t moduleId, uint32_t /*kind*/, const char* file, uint32_t fileLen,
                     const char* /*func*/, uint32_t /*funcLen*/, uint32_t line, uint32_t level,
                     const char* format, va_list args) {
  formatAndWrite(writeUnlessRepeated, moduleId, file, fileLen, line, level, format, args);
}

}  // extern "C"
