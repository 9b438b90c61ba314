#include "log_file.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "options.h"

namespace qurn::report {
namespace {

constexpr size_t kBlockBytes = size_t{128} * 1024;

}  // namespace

LogFile::LogFile(std::string path, LogText& text)
    : path_(std::move(path)),
      text_(text),
      unpacker_([&text](std::string_view part) { text.take(part); }),
      block_(kBlockBytes) {
  if (path_ != "-") {
    file_.emplace(::open(path_.c_str(), O_RDONLY | O_CLOEXEC));
  }
  struct stat status {};
  if (!isOpen() || fstat(descriptor(), &status) != 0) {
    complain(strerror(errno));
    return;
  }
  isPipe_ = !S_ISREG(status.st_mode);
}

int LogFile::descriptor() const { return path_ == "-" ? STDIN_FILENO : file_ ? file_->get() : -1; }

bool LogFile::readBlock() {
  ssize_t length = 0;
  do {
    length = read(descriptor(), block_.data(), block_.size());
  } while (length < 0 && errno == EINTR);
  if (length < 0) {
    complain(strerror(errno));
    isReadable_ = false;
  }
  if (length > 0) {
    unpacker_.take({block_.data(), static_cast<size_t>(length)});
  }
  return length > 0;
}

void LogFile::readToEnd() {
  while (isOpen() && readBlock()) {
  }
}

bool LogFile::readWhatIsThere() {
  if (!isPipe_) {
    readToEnd();
    return isReadable_;
  }
  pollfd ready{descriptor(), POLLIN, 0};
  while (poll(&ready, 1, 0) == 1) {
    if (!readBlock()) {
      return false;
    }
  }
  return true;
}

void LogFile::followRotation() {
  struct stat ours {};
  if (isPipe_ || fstat(descriptor(), &ours) != 0) {
    return;
  }
  if (ours.st_size < lseek(descriptor(), 0, SEEK_CUR)) {
    endPart();
    lseek(descriptor(), 0, SEEK_SET);
    return;
  }
  // The service goes on with the old file until it opens the new one.
  struct stat current {};
  if (path_ == "-" || stat(path_.c_str(), &current) != 0 || current.st_size == 0 ||
      (current.st_ino == ours.st_ino && current.st_dev == ours.st_dev)) {
    return;
  }
  const int next = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
  if (next >= 0) {
    readToEnd();
    endPart();
    file_.emplace(next);
  }
}

bool LogFile::end() {
  endPart();
  return isWell_;
}

void LogFile::endPart() {
  if (const std::string mistake = unpacker_.end(); !mistake.empty()) {
    complain(mistake);
  }
  text_.end();
}

void LogFile::complain(const std::string& why) {
  report::complain("cannot read " + std::string(path_ == "-" ? "all of standard input" : path_) +
                   ": " + why);
  isWell_ = false;
}

}  // namespace qurn::report
