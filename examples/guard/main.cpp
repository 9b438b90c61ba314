// A small service manager: starts one service, takes its notifications, kills it when they stop and
// restarts it when a restart may help. It speaks the protocol of sd_notify, so what runs under it
// runs under a real service manager too. One thread; everything arrives through one poll, and each
// line is one write, so that the service's lines and ours do not mix.
#include <getopt.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "notify_socket.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::duration_cast;
using std::chrono::milliseconds;

constexpr int kDeadLoop = 88;  // how the library ends a process with a stuck thread
constexpr milliseconds kStartLimit{30'000};
constexpr milliseconds kLongestDelay{10'000};

struct Options {
  milliseconds watchdog{4'000};
  milliseconds delay{500};  // before the first restart
  int restarts = 5;
  char** command = nullptr;
};

struct End {
  int status;      // as a shell tells it: 128 and more for a signal
  bool silent;     // killed for its silence
  bool onRequest;  // we were asked to stop
  milliseconds life;
};

double seconds(milliseconds time) { return static_cast<double>(time.count()) / 1000; }

[[noreturn]] void usage(int status) {
  std::fputs(
      "usage: qurn-guard [--watchdog S] [--delay S] [--restarts N] COMMAND [ARGUMENTS...]\n"
      "Runs COMMAND, kills it after S seconds without a heartbeat, and restarts it then and after\n"
      "exit status 88, with a delay that doubles; ends as the last run did.\n",
      status == 0 ? stdout : stderr);
  std::exit(status);
}

milliseconds parseSeconds(const char* text) {
  return milliseconds(static_cast<int64_t>(std::atof(text) * 1000));
}

Options parseOptions(int argc, char** argv) {
  constexpr std::array<option, 5> kLong{{{"watchdog", required_argument, nullptr, 'w'},
                                         {"delay", required_argument, nullptr, 'd'},
                                         {"restarts", required_argument, nullptr, 'r'},
                                         {"help", no_argument, nullptr, 'h'},
                                         {nullptr, 0, nullptr, 0}}};
  Options options;
  for (int c = 0; (c = getopt_long(argc, argv, "+", kLong.data(), nullptr)) != -1;) {
    switch (c) {
      case 'w':
        options.watchdog = parseSeconds(optarg);
        break;
      case 'd':
        options.delay = parseSeconds(optarg);
        break;
      case 'r':
        options.restarts = std::atoi(optarg);
        break;
      default:
        usage(c == 'h' ? 0 : 2);
    }
  }
  if (optind >= argc || options.watchdog.count() <= 0 || options.delay.count() <= 0) {
    usage(2);
  }
  options.command = argv + optind;
  return options;
}

sigset_t ourSignals() {
  sigset_t set;
  sigemptyset(&set);
  for (const int sig : {SIGCHLD, SIGTERM, SIGINT}) {
    sigaddset(&set, sig);
  }
  return set;
}

// Between fork and exec; does not return.
[[noreturn]] void becomeService(const Options& options, const NotifySocket& notifications) {
  const auto limit = duration_cast<std::chrono::microseconds>(options.watchdog).count();
  setenv("NOTIFY_SOCKET", notifications.address().c_str(), 1);
  setenv("WATCHDOG_USEC", std::to_string(limit).c_str(), 1);
  setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
  const sigset_t ours = ourSignals();
  sigprocmask(SIG_UNBLOCK, &ours, nullptr);
  prctl(PR_SET_PDEATHSIG, SIGTERM);  // it does not outlive its guard
  execvp(options.command[0], options.command);
  std::perror(options.command[0]);
  _exit(127);
}

// One life of the service.
class Run {
 public:
  Run(const Options& options, NotifySocket& notifications, int signals)
      : options_(options), notifications_(notifications), signals_(signals) {}

  End live() {
    const Clock::time_point start = Clock::now();
    pid_ = fork();
    if (pid_ < 0) {
      std::perror("fork");
      std::exit(1);
    }
    if (pid_ == 0) {
      becomeService(options_, notifications_);
    }
    dprintf(STDOUT_FILENO, "guard: started, process %d\n", pid_);
    deadline_ = start + kStartLimit;
    while (!ended_) {
      waitForSomething();
    }
    end_.life = duration_cast<milliseconds>(Clock::now() - start);
    return end_;
  }

 private:
  void waitForSomething() {
    std::array<pollfd, 2> sources{
        {{signals_, POLLIN, 0}, {notifications_.descriptor(), POLLIN, 0}}};
    const auto left = duration_cast<milliseconds>(deadline_ - Clock::now()).count() + 1;
    poll(sources.data(), sources.size(), static_cast<int>(std::clamp<int64_t>(left, 0, 60'000)));
    // What has arrived counts, however late we come to read it.
    if ((sources[1].revents & POLLIN) != 0) {
      takeNotification();
    }
    if ((sources[0].revents & POLLIN) != 0) {
      takeSignal();
    }
    if (!ended_ && !end_.silent && Clock::now() >= deadline_) {
      dprintf(STDOUT_FILENO, "guard: no heartbeat for %.1f s, killed\n",
              seconds(ready_ ? options_.watchdog : kStartLimit));
      end_.silent = true;
      kill(pid_, SIGKILL);
    }
  }

  void takeNotification() {
    const std::string text = notifications_.receive(pid_);
    for (std::string_view rest = text; !rest.empty();) {
      const std::string_view line = rest.substr(0, rest.find('\n'));
      rest.remove_prefix(std::min(rest.size(), line.size() + 1));
      dprintf(STDOUT_FILENO, "guard: %.*s\n", static_cast<int>(line.size()), line.data());
      ready_ = ready_ || line == "READY=1";
      if (ready_ && (line == "READY=1" || line == "WATCHDOG=1")) {
        deadline_ = Clock::now() + options_.watchdog;
      }
    }
  }

  void takeSignal() {
    signalfd_siginfo signal{};
    if (read(signals_, &signal, sizeof(signal)) != sizeof(signal)) {
      return;
    }
    int status = 0;
    if (signal.ssi_signo != SIGCHLD) {
      end_.onRequest = true;
      kill(pid_, SIGTERM);
    } else if (waitpid(pid_, &status, WNOHANG) == pid_) {
      ended_ = true;
      end_.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
  }

  const Options& options_;
  NotifySocket& notifications_;
  const int signals_;
  pid_t pid_ = -1;
  Clock::time_point deadline_;
  bool ready_ = false;
  bool ended_ = false;
  End end_{};
};

// As the unit file beside this file has it.
bool restartHelps(const End& end) {
  return !end.onRequest && (end.silent || end.status == kDeadLoop);
}

int guard(const Options& options, NotifySocket& notifications, int signals) {
  milliseconds delay = options.delay;
  for (int restarts = 0;; ++restarts) {
    const End end = Run(options, notifications, signals).live();
    dprintf(STDOUT_FILENO, "guard: ended with status %d after %.1f s%s\n", end.status,
            seconds(end.life), end.status == kDeadLoop ? ": dead loop" : "");
    if (!restartHelps(end) || restarts >= options.restarts) {
      return end.status;
    }
    if (end.life > kLongestDelay) {
      delay = options.delay;  // it was well in between
    }
    dprintf(STDOUT_FILENO, "guard: restart %d of %d in %.1f s\n", restarts + 1, options.restarts,
            seconds(delay));
    pollfd requests{signals, POLLIN, 0};
    if (poll(&requests, 1, static_cast<int>(delay.count())) != 0) {
      return end.status;
    }
    delay = std::min(delay * 2, kLongestDelay);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = parseOptions(argc, argv);
  const sigset_t ours = ourSignals();
  sigprocmask(SIG_BLOCK, &ours, nullptr);
  const int signals = signalfd(-1, &ours, SFD_CLOEXEC | SFD_NONBLOCK);
  NotifySocket notifications;
  if (signals < 0 || !notifications.open()) {
    std::perror("qurn-guard");
    return 1;
  }
  return guard(options, notifications, signals);
}
