// A file of a log, read to its end and, where that is wanted, as it grows.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "common/scoped_fd.h"
#include "log_text.h"
#include "unpacker.h"

namespace qurn::report {

class LogFile {
 public:
  // "-" is standard input.
  LogFile(std::string path, LogText& text);
  LogFile(const LogFile&) = delete;
  LogFile& operator=(const LogFile&) = delete;
  ~LogFile() = default;

  [[nodiscard]] bool isOpen() const { return descriptor() >= 0; }
  void readToEnd();
  // What there is without waiting. False at the end of a pipe, or when it cannot be read.
  bool readWhatIsThere();
  // Goes on with the file that has taken its place or, where it was truncated, from its start.
  void followRotation();
  // False when some of it could not be read, which has been said.
  bool end();

  // To wait for a pipe; a file is always ready.
  [[nodiscard]] int pipe() const { return isPipe_ ? descriptor() : -1; }

 private:
  [[nodiscard]] int descriptor() const;
  bool readBlock();
  void endPart();
  void complain(const std::string& why);

  std::string path_;
  LogText& text_;
  std::optional<ScopedFd> file_;
  bool isPipe_ = false;
  bool isReadable_ = true;
  bool isWell_ = true;
  Unpacker unpacker_;
  std::vector<char> block_;
};

}  // namespace qurn::report
