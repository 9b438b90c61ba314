// What the guard tells, on standard output. Each line is one write, so that the service's lines and
// ours do not mix. Nobody is waited for: who watches a service must not hang with whoever reads of
// it. What is not taken at once is lost.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>

// Pipes and terminals are the service's too, which may want to wait: the guard has its own way to
// them.
inline int openOutput() {
  struct stat is {};
  const bool mayBlock =
      fstat(STDOUT_FILENO, &is) == 0 && (S_ISFIFO(is.st_mode) || S_ISCHR(is.st_mode));
  const int own =
      mayBlock ? open("/proc/self/fd/1", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC) : -1;
  return own < 0 ? STDOUT_FILENO : own;
}

__attribute__((format(printf, 1, 2))) inline void tell(const char* format, ...) {
  static const int output = openOutput();
  std::array<char, 4096> text{};  // a pipe takes so much at once or nothing
  va_list args;
  va_start(args, format);
  const int length = std::vsnprintf(text.data(), text.size(), format, args);
  va_end(args);
  pollfd descriptor{output, POLLOUT, 0};
  if (length > 0 && poll(&descriptor, 1, 0) > 0) {
    const size_t bytes = std::min(static_cast<size_t>(length), text.size() - 1);
    static_cast<void>(write(output, text.data(), bytes) == 0);
  }
}
