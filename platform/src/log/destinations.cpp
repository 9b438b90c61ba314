#include "destinations.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <memory>
#include <system_error>
#include <utility>
#include <vector>

#include "common/fork_mutex.h"
#include "common/scoped_fd.h"
#include "line.h"

namespace tov::log {
namespace {

// ---- standard error

bool isWritable(int fd, int patienceMs) noexcept {
  pollfd descriptor{fd, POLLOUT, 0};
  return poll(&descriptor, 1, patienceMs) > 0;
}

// Who read a pipe may have gone, which is no reason to end the process that logs.
class PipeMayBreak {
 public:
  PipeMayBreak() noexcept {
    sigemptyset(&brokenPipe_);
    sigaddset(&brokenPipe_, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &brokenPipe_, &before_);
  }
  ~PipeMayBreak() {
    const int error = errno;
    const timespec noTime{};
    if (error == EPIPE) {
      sigtimedwait(&brokenPipe_, nullptr, &noTime);
    }
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    errno = error;
  }
  PipeMayBreak(const PipeMayBreak&) = delete;
  PipeMayBreak& operator=(const PipeMayBreak&) = delete;

 private:
  sigset_t brokenPipe_{};
  sigset_t before_{};
};

// A terminal with room for a single character counts as writable, and would then keep the line's
// writer waiting. A descriptor of our own for it may be non-blocking.
ssize_t writeOnceReady(int fd, std::string_view text) noexcept {
  if (!isWritable(fd, 0)) {
    errno = EAGAIN;
    return -1;
  }
  const qurn::ScopedFd own(
      open("/proc/self/fd/2", O_WRONLY | O_APPEND | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  return write(own.valid() ? own.get() : fd, text.data(), text.size());
}

// Pipes and terminals are shared with others, whose writes must stay as they are: the descriptor
// cannot be made non-blocking. A kernel that knows no such write for them is asked first.
ssize_t writeWithoutWaiting(int fd, std::string_view text) noexcept {
  const PipeMayBreak pipeMayBreak;
  const iovec part = partOf(text);
  errno = 0;
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
  std::string_view rest = text;
  while (!rest.empty()) {
    const ssize_t written = writeOnce(rest);
    if (written >= 0) {
      rest.remove_prefix(static_cast<size_t>(written));
    } else if (errno == EAGAIN) {
      if (!isWritable(STDERR_FILENO, std::exchange(patienceMs, 0))) {
        break;
      }
    } else if (errno == ENOTSOCK) {
      g_writes = 0;
    } else if (errno != EINTR) {
      break;  // a full disk
    }
  }
  if (rest.size() == text.size()) {
    return Written::kNot;
  }
  return rest.empty() ? Written::kWhole : Written::kPartly;
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

// ---- descriptors of our own

namespace {

// Its times are not asked for: the next write would have to note its own as exactly, which takes as
// long as the write.
bool lookAt(int fd, struct statx& is) noexcept {
  return fd >= 0 && statx(fd, "", AT_EMPTY_PATH, STATX_INO | STATX_SIZE, &is) == 0;
}

dev_t deviceOf(const struct statx& is) noexcept {
  return makedev(is.stx_dev_major, is.stx_dev_minor);
}

}  // namespace

bool OwnFd::isOurs(uint64_t& length) const noexcept {
  struct statx is {};
  const bool isOurs = lookAt(fd_, is) && deviceOf(is) == device_ && is.stx_ino == node_;
  length = is.stx_size;
  return isOurs;
}

void OwnFd::set(int fd) noexcept {
  struct statx is {};
  lookAt(fd, is);
  fd_ = fd;
  device_ = deviceOf(is);
  node_ = is.stx_ino;
}

// ---- a file

namespace {

class RotatedFile {
 public:
  RotatedFile(const std::filesystem::path& path, size_t most, size_t kept)
      : paths_(1 + kept), most_(most) {
    paths_[0] = path;
    for (size_t i = 1; i < paths_.size(); ++i) {
      const std::string name = path.stem().string() + "." + std::to_string(i);
      paths_[i] = path.parent_path() / (name + path.extension().string());
    }
  }

  bool open() noexcept {
    struct stat is {};
    const int flags = O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    qurn::ScopedFd file(::open(paths_[0].c_str(), flags, 0666));
    if (!file.valid() || fstat(file.get(), &is) != 0) {
      return false;
    }
    if (!S_ISREG(is.st_mode)) {
      errno = EINVAL;
      return false;
    }
    fd_.set(file.release());
    return true;
  }

  // False when the whole of it could not be written.
  bool write(std::string_view line) noexcept {
    if (!makeRoom(line.size()) || (isTorn_ && ::write(fd_.get(), "\n", 1) != 1)) {
      return false;
    }
    const ssize_t written = ::write(fd_.get(), line.data(), line.size());
    isTorn_ = written > 0 && written < std::ssize(line);
    return written == std::ssize(line);
  }

 private:
  bool makeRoom(size_t bytes) noexcept {
    uint64_t length = 0;
    if (!fd_.isOurs(length)) {
      return open();
    }
    if (length == 0 || length + bytes <= most_) {
      return true;
    }
    for (size_t i = paths_.size() - 1; i > 1; --i) {
      rename(paths_[i - 1].c_str(), paths_[i].c_str());
    }
    isTorn_ = false;
    if (rename(paths_[0].c_str(), paths_[1].c_str()) != 0) {  // it does not grow for that
      return ftruncate(fd_.get(), 0) == 0;
    }
    close(fd_.get());
    fd_.set(-1);
    return open();
  }

  std::vector<std::filesystem::path> paths_;  // the newest first
  size_t most_;
  OwnFd fd_;
  bool isTorn_ = false;  // the last line has no end
};

constinit RotatedFile* g_file = nullptr;

}  // namespace

void openFile(const std::string& path, size_t bytes, size_t kept) {
  std::error_code none;
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), none);
  auto file = std::make_unique<RotatedFile>(path, bytes, kept);
  if (!file->open()) {
    throw std::system_error(errno, std::generic_category(), path);
  }
  g_file = file.release();
}

bool writeToFile(const Record& record, int /*patienceMs*/) noexcept {
  const Line line(record);
  return g_file->write(line.whole());
}

// ---- sockets

DatagramSocket::Answer DatagramSocket::send(msghdr message, int patienceMs) noexcept {
  if (uint64_t length = 0; !fd_.isOurs(length)) {
    fd_.set(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  }
  sockaddr_un address{AF_UNIX, {}};
  strncpy(address.sun_path, path_, sizeof(address.sun_path) - 1);
  message.msg_name = &address;
  message.msg_namelen = sizeof(address);
  for (;; --patienceMs) {
    if (sendmsg(fd_.get(), &message, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) {
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
