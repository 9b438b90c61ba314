#include "destinations.h"

#include <fcntl.h>
#include <poll.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

#include "common/fork_mutex.h"
#include "line.h"

namespace tov::log {
namespace {

// ---- standard error

bool isWritable(int fd, int patienceMs) noexcept {
  pollfd descriptor{fd, POLLOUT, 0};
  return poll(&descriptor, 1, patienceMs) > 0;
}

ssize_t writeOnceReady(int fd, std::string_view text) noexcept {
  if (!isWritable(fd, 0)) {
    errno = EAGAIN;
    return -1;
  }
  return write(fd, text.data(), text.size());
}

// Pipes and terminals are shared with others, whose writes must stay as they are: the descriptor
// cannot be made non-blocking. A kernel that knows no such write for them is asked first.
ssize_t writeWithoutWaiting(int fd, std::string_view text) noexcept {
  const iovec part = partOf(text);
  const ssize_t written = pwritev2(fd, &part, 1, -1, RWF_NOWAIT);
  const bool isUnknown = written < 0 && (errno == EOPNOTSUPP || errno == EINVAL || errno == ENOSYS);
  return isUnknown ? writeOnceReady(fd, text) : written;
}

constinit uint32_t g_writes = 0;
constinit mode_t g_type = 0;      // of what standard error leads to
constinit bool g_isTorn = false;  // the last line has no end

// The process may have led the descriptor elsewhere meanwhile: looked up again now and then.
ssize_t writeOnce(std::string_view text) noexcept {
  constexpr uint32_t kWritesPerLook = 16;
  if (g_writes++ % kWritesPerLook == 0) {
    struct stat what {};
    fstat(STDERR_FILENO, &what);
    g_type = what.st_mode & static_cast<mode_t>(S_IFMT);
  }
  if (g_type == S_IFREG) {
    return write(STDERR_FILENO, text.data(), text.size());
  }
  if (g_type == S_IFSOCK) {
    return send(STDERR_FILENO, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  }
  return writeWithoutWaiting(STDERR_FILENO, text);
}

enum class Written : uint8_t { kWhole, kNot, kPartly };

Written writeWhole(std::string_view text, int patienceMs) noexcept {
  for (std::string_view rest = text; !rest.empty();) {
    const ssize_t written = writeOnce(rest);
    if (written >= 0) {
      rest.remove_prefix(static_cast<size_t>(written));
    } else if (errno == EAGAIN) {
      if (!isWritable(STDERR_FILENO, std::exchange(patienceMs, 0))) {
        return rest.size() < text.size() ? Written::kPartly : Written::kNot;
      }
    } else if (errno == ENOTSOCK) {
      g_writes = 0;
    } else if (errno != EINTR) {
      break;
    }
  }
  return Written::kWhole;
}

}  // namespace

bool writeToStandardError(const Record& record, int patienceMs) noexcept {
  const Line line(record);
  if (g_isTorn && writeWhole("\n", patienceMs) != Written::kWhole) {
    return false;
  }
  const Written written = writeWhole(line.whole(), patienceMs);
  g_isTorn = written == Written::kPartly;
  return written == Written::kWhole;
}

// ---- a file

namespace {

constexpr size_t kFilesKept = 5;

// What it is given is a line already.
class AsItIs final : public spdlog::formatter {
 public:
  void format(const spdlog::details::log_msg& message, spdlog::memory_buf_t& line) override {
    line.append(message.payload.begin(), message.payload.end());
  }
  [[nodiscard]] std::unique_ptr<formatter> clone() const override {
    return std::make_unique<AsItIs>();
  }
};

constinit spdlog::sinks::sink* g_file = nullptr;

}  // namespace

void openFile(const std::string& path, size_t bytes) {
  auto file = std::make_unique<spdlog::sinks::rotating_file_sink_st>(path, bytes, kFilesKept);
  file->set_formatter(std::make_unique<AsItIs>());
  g_file = file.release();
}

bool writeToFile(const Record& record, int /*patienceMs*/) noexcept {
  const Line line(record);
  const std::string_view whole = line.whole();
  try {
    g_file->log({{}, spdlog::level::info, {whole.data(), whole.size()}});
    g_file->flush();
  } catch (...) {  // a full disk: nobody to tell
  }
  return true;
}

// ---- sockets

DatagramSocket::Answer DatagramSocket::send(msghdr message, int patienceMs) noexcept {
  if (fd_ < 0) {
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  }
  sockaddr_un address{AF_UNIX, {}};
  strncpy(address.sun_path, path_, sizeof(address.sun_path) - 1);
  message.msg_name = &address;
  message.msg_namelen = sizeof(address);
  for (;; --patienceMs) {
    if (sendmsg(fd_, &message, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) {
      return Answer::kTaken;
    }
    if (errno == EMSGSIZE || errno == ENOBUFS) {
      return Answer::kTooLong;
    }
    if (errno != EAGAIN && errno != EINTR) {
      return Answer::kNobody;
    }
    if (patienceMs <= 0) {
      return Answer::kBusy;
    }
    qurn::sleepAMillisecond();
  }
}

bool writeToSystemLog(const Record& record, int patienceMs) noexcept {
  static constinit DatagramSocket socket("/dev/log");
  constexpr std::array<int, 3> kPriorities{LOG_INFO, LOG_WARNING, LOG_ERR};
  std::array<char, 64> head{};
  const int length = snprintf(
      head.data(), head.size(),
      "<%d>qurnadapt[%d]: ", LOG_DAEMON | kPriorities[static_cast<size_t>(record.level)], getpid());
  const Line line(record);
  std::array<iovec, 2> parts{partOf({head.data(), static_cast<size_t>(length)}),
                             partOf(line.withoutTime())};
  msghdr message{};
  message.msg_iov = parts.data();
  message.msg_iovlen = parts.size();
  switch (socket.send(message, patienceMs)) {
    case DatagramSocket::Answer::kBusy:
      return false;
    case DatagramSocket::Answer::kNobody:
      return writeToStandardError(record, patienceMs);
    default:
      return true;
  }
}

}  // namespace tov::log
