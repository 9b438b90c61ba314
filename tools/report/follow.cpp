#include "follow.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <csignal>

namespace qurn::report {
namespace {

constexpr int kLookMs = 200;
constexpr unsigned kLooksASecond = 1000 / kLookMs;

// What asks for the end, as a descriptor to wait for.
ScopedFd endSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
  return ScopedFd(signalfd(-1, &signals, SFD_CLOEXEC));
}

}  // namespace

void follow(LogFile& file, LogReader& reader, std::ostream& out) {
  const ScopedFd signals = endSignals();
  std::array<pollfd, 3> events{{{signals.get(), POLLIN, 0}, {STDOUT_FILENO, 0, 0}, {}}};
  for (unsigned look = 1; file.readWhatIsThere() && out.flush(); ++look) {
    file.followRotation();
    if (look % kLooksASecond == 0) {
      reader.passTime();
    }
    events[2] = {file.pipe(), POLLIN, 0};
    poll(events.data(), events.size(), kLookMs);
    if (events[0].revents != 0 || events[1].revents != 0) {
      return;
    }
  }
}

bool isReaderGone() {
  pollfd output{STDOUT_FILENO, 0, 0};
  return poll(&output, 1, 0) == 1 && (output.revents & POLLERR) != 0;
}

}  // namespace qurn::report
