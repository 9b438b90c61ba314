// time_registration OUT: how long a thread waits to be registered while 60 others beat without a
// pause. Writes the 99th percentile, and the millisecond that it is held against, as results like
// the others.
#include <qurnadapt/qurnadapt.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <thread>
#include <vector>

namespace {

constexpr int kBeating = 60;
constexpr int kRegistrations = 1000;
constexpr uint32_t kLongSeconds = 1000;

std::atomic<int> g_registered{0};
std::atomic<bool> g_stop{false};

void beat() {
  FrameDeadloopHandle self = 0;
  Frame_SetHeartbeatToMon(&self, kLongSeconds, kLongSeconds, kLongSeconds);
  ++g_registered;
  while (!g_stop) {
    Frame_SendHeartbeatToMon(&self);
  }
  Frame_StopHeartbeatToMon(&self);
}

std::vector<double> registerAgainAndAgain() {
  std::vector<double> nanoseconds;
  for (int i = 0; i < kRegistrations; ++i) {
    FrameDeadloopHandle self = 0;
    const auto start = std::chrono::steady_clock::now();
    Frame_SetHeartbeatToMon(&self, kLongSeconds, kLongSeconds, kLongSeconds);
    const std::chrono::duration<double, std::nano> taken = std::chrono::steady_clock::now() - start;
    Frame_StopHeartbeatToMon(&self);
    nanoseconds.push_back(taken.count());
  }
  std::sort(nanoseconds.begin(), nanoseconds.end());
  return nanoseconds;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    return 2;
  }
  std::vector<std::jthread> threads;
  for (int i = 0; i < kBeating; ++i) {
    threads.emplace_back(beat);
  }
  while (g_registered < kBeating) {
    std::this_thread::yield();
  }
  const std::vector<double> taken = registerAgainAndAgain();
  g_stop = true;
  std::printf("registration beside %d beating threads: median %.1f us, worst %.1f us\n", kBeating,
              taken[taken.size() / 2] / 1e3, taken.back() / 1e3);
  std::ofstream(argv[1]) << R"({"benchmarks": [{"run_name": "registration", "cpu_time": )"
                         << taken[taken.size() * 99 / 100]
                         << R"(, "time_unit": "ns"}, {"run_name": "millisecond", "cpu_time": 1, )"
                         << R"("time_unit": "ms"}]})";
  return 0;
}
