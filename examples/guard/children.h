// The processes that the guard starts, from the fork to the exec.
#pragma once

#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "notify_socket.h"
#include "options.h"

// Returns the child's number, or -1. The child goes on in BECOME, which must not return.
template <typename Become>
pid_t startChild(Become become) {
  const pid_t guard = getpid();
  const pid_t child = fork();
  if (child < 0) {
    std::perror("fork");
  }
  if (child != 0) {
    return child;
  }
  prctl(PR_SET_PDEATHSIG, SIGTERM);  // it does not outlive its guard
  if (getppid() != guard) {
    _exit(1);  // the guard ended before that
  }
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  become();
  _exit(127);
}

inline void becomeService(const Options& options, const NotifySocket& notifications) {
  const auto limit =
      std::chrono::duration_cast<std::chrono::microseconds>(options.watchdog).count();
  setenv("NOTIFY_SOCKET", notifications.address().c_str(), 1);
  setenv("WATCHDOG_USEC", std::to_string(limit).c_str(), 1);
  setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
  execvp(options.command[0], options.command);
  std::perror(options.command[0]);
}

// Away from the terminal, which would stop a debugger that runs in the background.
inline void becomeBeforeKill(const char* command, pid_t service) {
  const std::string number = std::to_string(service);
  setsid();
  dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
  setenv("MAINPID", number.c_str(), 1);
  execl("/bin/sh", "sh", "-c", command, "before-kill", number.c_str(), nullptr);
  std::perror("/bin/sh");
}
