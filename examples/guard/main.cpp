// A small service manager: starts one service, takes its notifications, kills it when they stop and
// restarts it when a restart may help. It speaks the protocol of sd_notify, so what runs under it
// runs under a real service manager too. One thread; everything arrives through one poll.
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <deque>
#include <string>
#include <string_view>

#include "children.h"
#include "notify_socket.h"
#include "options.h"
#include "output.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::duration_cast;
using std::chrono::milliseconds;

constexpr int kDeadLoop = 88;  // how the library ends a process with a stuck thread
constexpr milliseconds kStartLimit{30'000};
constexpr milliseconds kLongestDelay{10'000};
constexpr milliseconds kNoLimit = std::chrono::hours(24 * 365);

double seconds(Clock::duration time) { return std::chrono::duration<double>(time).count(); }

// They wait in a descriptor from before the first start on, so that none comes at a wrong time.
sigset_t blockOurSignals() {
  std::signal(SIGCHLD, SIG_DFL);  // ignored, it would never tell of an end
  struct sigaction hangUp {};
  sigaction(SIGHUP, nullptr, &hangUp);
  sigset_t set;
  sigemptyset(&set);
  for (const int sig : {SIGCHLD, SIGTERM, SIGINT, SIGHUP}) {
    if (sig != SIGHUP || hangUp.sa_handler != SIG_IGN) {  // as under nohup
      sigaddset(&set, sig);
    }
  }
  sigset_t blocked = set;
  sigaddset(&blocked, SIGPIPE);  // nobody reads of the service any more, which goes on
  sigprocmask(SIG_BLOCK, &blocked, nullptr);
  return set;
}

class Guard {
 public:
  Guard(const Options& options, NotifySocket& notifications, int signals)
      : options_(options),
        notifications_(notifications),
        signals_(signals),
        delay_(options.delay) {}

  // Returns the status of the service's last run.
  int guard() {
    enter(kPausing, milliseconds(0));
    while (!finished_) {
      waitForSomething();
    }
    return status_;
  }

 private:
  // What it waits for decides what the end of its time means, and what a request to stop.
  struct Phase {
    void (Guard::*due)();
    void (Guard::*asked)();
  };
  static const Phase kPausing;   // before a start
  static const Phase kWatching;  // for heartbeats
  static const Phase kTakingEvidence;
  static const Phase kStopping;
  static const Phase kDying;

  void enter(const Phase& phase, milliseconds most) {
    phase_ = &phase;
    deadline_ = Clock::now() + most;
  }

  void waitForSomething() {
    std::array<pollfd, 2> sources{
        {{signals_, POLLIN, 0}, {notifications_.descriptor(), POLLIN, 0}}};
    const auto left = duration_cast<milliseconds>(deadline_ - Clock::now()).count() + 1;
    poll(sources.data(), sources.size(), static_cast<int>(std::clamp<int64_t>(left, 0, 60'000)));
    takeNotifications();
    takeSignals();
    takeEnds();
    if (!finished_ && Clock::now() >= deadline_) {
      (this->*phase_->due)();
    }
  }

  // What has arrived counts, however late we come to read it: a heartbeat may stand behind other
  // messages. Who sends without an end is not listened to without an end.
  void takeNotifications() {
    constexpr int kMostAtOnce = 1'000;
    std::string text;
    for (int i = 0; i < kMostAtOnce && notifications_.receive(service_, text); ++i) {
      takeNotification(text);
    }
  }

  void takeNotification(const std::string& text) {
    for (std::string_view rest = text; !rest.empty();) {
      const std::string_view line = rest.substr(0, rest.find('\n'));
      rest.remove_prefix(std::min(rest.size(), line.size() + 1));
      tell("guard: %.*s\n", static_cast<int>(line.size()), line.data());
      ready_ = ready_ || line == "READY=1";
      if (phase_ == &kWatching && ready_ && (line == "READY=1" || line == "WATCHDOG=1")) {
        enter(kWatching, options_.watchdog);
      }
    }
  }

  void takeSignals() {
    signalfd_siginfo signal{};
    while (read(signals_, &signal, sizeof(signal)) == sizeof(signal)) {
      if (signal.ssi_signo != SIGCHLD) {
        stopAsked_ = true;
        (this->*phase_->asked)();
      }
    }
  }

  // One SIGCHLD may stand for several ends, those of orphans among them where we are process 1.
  void takeEnds() {
    int status = 0;
    for (pid_t child = 0; (child = waitpid(endsToTake(), &status, WNOHANG)) > 0;) {
      if (child == command_) {
        endEvidence(status);
      } else if (child == service_) {
        endRun(status);
      }
    }
  }

  // An end that is not taken keeps the service's number from becoming another process's, which the
  // command would then look at.
  [[nodiscard]] pid_t endsToTake() const { return phase_ == &kTakingEvidence ? command_ : -1; }

  // ---- the service's life

  void start() {
    ready_ = false;
    silent_ = false;
    started_ = Clock::now();
    service_ = startChild([this] { becomeService(options_, notifications_); });
    if (service_ < 0) {
      status_ = 1;
      return finish();
    }
    tell("guard: started, process %d\n", service_);
    enter(kWatching, kStartLimit);
  }

  void endRun(int status) {
    const Clock::duration life = Clock::now() - started_;
    service_ = -1;
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    tell("guard: ended with status %d after %.1f s%s\n", status_, seconds(life),
         status_ == kDeadLoop ? ": dead loop" : "");
    // Much as the unit file beside this file has it.
    const bool restartHelps = silent_ || WIFSIGNALED(status) || status_ == kDeadLoop;
    if (stopAsked_ || !restartHelps) {
      return finish();
    }
    if (life > kLongestDelay) {
      delay_ = options_.delay;  // it was well in between
    }
    restart();
  }

  void restart() {
    std::erase_if(restarts_, [oldest = Clock::now() - options_.within](Clock::time_point restart) {
      return restart <= oldest;
    });
    if (std::ssize(restarts_) >= options_.restarts) {
      if (options_.restarts > 0) {
        tell("guard: no restart, the limit is %d within %.1f s\n", options_.restarts,
             seconds(options_.within));
      }
      return finish();
    }
    restarts_.push_back(Clock::now());
    tell("guard: restart %zu of %d in %.1f s\n", restarts_.size(), options_.restarts,
         seconds(delay_));
    enter(kPausing, delay_);
    delay_ = std::min(delay_ * 2, std::max(kLongestDelay, options_.delay));
  }

  void finish() { finished_ = true; }

  // ---- silence

  void condemn() {
    silent_ = true;
    condemned_ = Clock::now();
    if (options_.beforeKill != nullptr) {
      tell("guard: no heartbeat for %.1f s, before-kill command runs\n", seconds(silenceLimit()));
      command_ = startChild([this] { becomeBeforeKill(options_.beforeKill, service_); });
    }
    if (command_ < 0) {
      return killSilent();
    }
    enter(kTakingEvidence, options_.beforeKillTimeout);
  }

  void endEvidence(int status) {
    tell("guard: before-kill command ended with status %d\n",
         WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
    killSilent();
  }

  void giveUpEvidence() {
    tell("guard: before-kill command not done after %.1f s, killed\n",
         seconds(Clock::now() - condemned_));
    if (kill(-command_, SIGKILL) != 0) {
      kill(command_, SIGKILL);  // it has not come to have a group of its own
    }
    killSilent();
  }

  // The service has fallen silent and is killed anyway: rather with its evidence taken, if that
  // does not hold up the stop.
  void hurryEvidence() { deadline_ = std::min(deadline_, Clock::now() + options_.stopTimeout); }

  void killSilent() {
    command_ = -1;
    if (!hasEnded()) {
      tell("guard: no heartbeat for %.1f s, killed\n", seconds(silenceLimit()));
    }
    killService();
  }

  // Its end, if it has come, is not taken yet.
  [[nodiscard]] bool hasEnded() const {
    siginfo_t end{};
    return waitid(P_PID, static_cast<id_t>(service_), &end, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           end.si_pid == service_;
  }

  [[nodiscard]] milliseconds silenceLimit() const {
    return ready_ ? options_.watchdog : kStartLimit;
  }

  // ---- a request to stop

  void stop() {
    if (phase_ != &kStopping) {
      enter(kStopping, options_.stopTimeout);
    }
    kill(service_, SIGTERM);
    kill(service_, SIGCONT);  // or a stopped service would not notice
  }

  void killUnstopped() {
    tell("guard: not ended %.1f s after SIGTERM, killed\n", seconds(options_.stopTimeout));
    killService();
  }

  void killService() {
    enter(kDying, kNoLimit);
    kill(service_, SIGKILL);
  }

  void goOn() {}

  const Options& options_;
  NotifySocket& notifications_;
  const int signals_;
  const Phase* phase_ = &kPausing;
  Clock::time_point deadline_;
  bool stopAsked_ = false;
  bool finished_ = false;
  int status_ = 0;
  // The restarts, and the delay before the next one.
  std::deque<Clock::time_point> restarts_;
  milliseconds delay_;
  // The present run. Nobody but we takes its end, so its number is its own until then.
  pid_t service_ = -1;
  pid_t command_ = -1;
  Clock::time_point started_;
  Clock::time_point condemned_;
  bool ready_ = false;
  bool silent_ = false;
};

constexpr Guard::Phase Guard::kPausing{&Guard::start, &Guard::finish};
constexpr Guard::Phase Guard::kWatching{&Guard::condemn, &Guard::stop};
constexpr Guard::Phase Guard::kTakingEvidence{&Guard::giveUpEvidence, &Guard::hurryEvidence};
constexpr Guard::Phase Guard::kStopping{&Guard::killUnstopped, &Guard::stop};
constexpr Guard::Phase Guard::kDying{&Guard::goOn, &Guard::goOn};

}  // namespace

int main(int argc, char** argv) {
  const sigset_t ours = blockOurSignals();
  const Options options = parseOptions(argc, argv);
  const int signals = signalfd(-1, &ours, SFD_CLOEXEC | SFD_NONBLOCK);
  NotifySocket notifications;
  if (signals < 0 || !notifications.open()) {
    std::perror("qurn-guard");
    return 1;
  }
  return Guard(options, notifications, signals).guard();
}
