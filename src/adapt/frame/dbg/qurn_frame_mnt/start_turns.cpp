#include "start_turns.h"

#include <qurnadapt/api.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <ctime>

namespace qurn::mnt {
namespace {

constinit std::atomic<uint32_t> g_turn{0};    // odd while a start-up runs
constinit std::atomic<uint32_t> g_runner{0};  // its kernel thread id, else 0
constinit std::atomic<uint32_t> g_forks{0};   // that led to this process
// Of the latest turns, so that no waiter takes a later one's for that which it waited for.
constinit std::array<std::atomic<uint32_t>, 16> g_results{};

std::atomic<uint32_t>& resultOf(uint32_t turn) noexcept {
  return g_results[turn / 2 % g_results.size()];
}

uint32_t callersTid() noexcept { return static_cast<uint32_t>(syscall(SYS_gettid)); }

// A step may end its thread.
bool runnerHasEnded() noexcept {
  const uint32_t runner = g_runner;
  return runner != 0 && tgkill(getpid(), static_cast<pid_t>(runner), 0) != 0;
}

// Whether the turn has ended with a result. Otherwise the caller starts afresh: its runner is gone,
// or the caller goes on in the child of a fork.
bool waitForEndOf(uint32_t turn) noexcept {
  const timespec millisecond{0, 1'000'000};
  const uint32_t forks = g_forks;
  while (g_turn == turn) {
    nanosleep(&millisecond, nullptr);
    if (runnerHasEnded()) {
      endStartTurn(turn, QURN_FAILED);
      return false;
    }
  }
  return forks == g_forks;
}

}  // namespace

uint32_t takeStartTurn(uint32_t* result) noexcept {
  for (;;) {
    uint32_t turn = g_turn;
    if (turn % 2 == 0) {
      if (g_turn.compare_exchange_strong(turn, turn + 1)) {
        g_runner = callersTid();
        return turn + 1;
      }
    } else if (g_runner == callersTid()) {
      *result = QURN_FAILED;
      return 0;
    } else if (waitForEndOf(turn)) {
      *result = resultOf(turn);
      return 0;
    }
  }
}

// Unless it has been ended for its runner, or dropped.
void endStartTurn(uint32_t turn, uint32_t result) noexcept {
  if (g_turn == turn) {
    resultOf(turn) = result;
    g_runner = 0;
    g_turn.compare_exchange_strong(turn, turn + 1);
  }
}

void dropStartTurnAfterFork() noexcept {
  ++g_forks;
  g_runner = 0;
  g_turn = (g_turn | 1U) + 1;
}

}  // namespace qurn::mnt
