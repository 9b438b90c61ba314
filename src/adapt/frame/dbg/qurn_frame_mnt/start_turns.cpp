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

// A turn's number, odd while a start-up runs, and behind it the kernel thread id of who runs it.
constexpr uint64_t turnOf(uint32_t number, uint32_t runner) noexcept {
  return number | (uint64_t{runner} << 32U);
}
constexpr uint32_t numberOf(uint64_t turn) noexcept { return static_cast<uint32_t>(turn); }
constexpr uint32_t runnerOf(uint64_t turn) noexcept { return static_cast<uint32_t>(turn >> 32U); }

constinit std::atomic<uint64_t> g_turn{0};
constinit std::atomic<uint32_t> g_forks{0};  // that led to this process
// Of the latest turns, so that no waiter takes a later one's for that which it waited for.
constinit std::array<std::atomic<uint32_t>, 16> g_results{};

std::atomic<uint32_t>& resultOf(uint32_t number) noexcept {
  return g_results[number / 2 % g_results.size()];
}

uint32_t callersTid() noexcept { return static_cast<uint32_t>(syscall(SYS_gettid)); }

// Whether the turn has ended with a result. Otherwise the caller starts afresh: its runner is gone,
// as a step may end its thread, or the caller goes on in the child of a fork.
bool waitForEndOf(uint64_t turn) noexcept {
  const timespec millisecond{0, 1'000'000};
  const uint32_t forks = g_forks;
  while (g_turn == turn) {
    nanosleep(&millisecond, nullptr);
    if (tgkill(getpid(), static_cast<pid_t>(runnerOf(turn)), 0) != 0) {
      endStartTurn(numberOf(turn), QURN_FAILED);
      return false;
    }
  }
  return forks == g_forks;
}

}  // namespace

uint32_t takeStartTurn(uint32_t* result) noexcept {
  for (;;) {
    uint64_t turn = g_turn;
    const uint32_t number = numberOf(turn);
    if (number % 2 == 0) {
      if (g_turn.compare_exchange_strong(turn, turnOf(number + 1, callersTid()))) {
        return number + 1;
      }
    } else if (runnerOf(turn) == callersTid()) {
      *result = QURN_FAILED;
      return 0;
    } else if (waitForEndOf(turn)) {
      *result = resultOf(number);
      return 0;
    }
  }
}

// Unless it has been ended for its runner, or dropped.
void endStartTurn(uint32_t number, uint32_t result) noexcept {
  uint64_t turn = g_turn;
  if (numberOf(turn) == number) {
    resultOf(number) = result;
    g_turn.compare_exchange_strong(turn, turnOf(number + 1, 0));
  }
}

void dropStartTurnAfterFork() noexcept {
  ++g_forks;
  g_turn = turnOf((numberOf(g_turn) | 1U) + 1, 0);
}

}  // namespace qurn::mnt
