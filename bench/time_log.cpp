// Times a line of the stand-in's log beside what no log can do without: the name of the thread, and
// a write of the same bytes. Standard error is a file meanwhile.
#include <benchmark/benchmark.h>
#include <qurnadapt/platform.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <string>

namespace {

int g_number = 0;

void logOne() {
  LOG_InnerPrint(
      0, "a/b/unit", 8, "<unknown>", 9, 42, TOV_LOG_INFO,
      "Frame task deadloop detect, task [%s:%d] trigger first threshold timeout.(elapsed "
      "time = %u, first threshold = %u)",
      "worker-1", 12345, g_number++, 1000U);
}

std::string lineAsWritten() {
  logOne();
  std::string line(4096, ' ');
  line.resize(static_cast<size_t>(pread(STDERR_FILENO, line.data(), line.size(), 0)));
  return line;
}

template <typename Action>
void timeEach(benchmark::State& state, Action action) {
  constexpr int kLinesAFile = 10000;
  int written = 0;
  for (auto _ : state) {
    action();
    if (++written % kLinesAFile == 0) {
      static_cast<void>(!ftruncate(STDERR_FILENO, 0) && lseek(STDERR_FILENO, 0, SEEK_SET));
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  dup2(memfd_create("log", 0), STDERR_FILENO);
  const std::string line = lineAsWritten();
  benchmark::Initialize(&argc, argv);
  benchmark::RegisterBenchmark("log_line",
                               [](benchmark::State& state) { timeEach(state, logOne); });
  benchmark::RegisterBenchmark("log_line_floor", [&line](benchmark::State& state) {
    timeEach(state, [&line] {
      std::array<char, 16> name{};
      prctl(PR_GET_NAME, name.data());
      benchmark::DoNotOptimize(write(STDERR_FILENO, line.data(), line.size()));
    });
  });
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
