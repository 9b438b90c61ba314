// Times the hot paths and their floors with Google Benchmark. Thread counts and numbers of live
// handles that a curve is drawn over come as arguments of the same path.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>

#include "paths.h"

namespace {

std::unique_ptr<bench::InProcess> g_process;

void time(benchmark::State& state, const bench::Path& path, uint64_t size) {
  if (state.thread_index() == 0) {
    g_process = std::make_unique<bench::InProcess>(path, size);
  }
  {
    const bench::InThread thread(path);
    for (auto _ : state) {
      path.run();
    }
  }
  if (state.thread_index() == 0) {
    g_process.reset();
  }
}

benchmark::internal::Benchmark* add(const bench::Path& path, uint64_t size) {
  std::string name = path.name;
  if (size != 0) {
    name += "/" + std::to_string(size);
  }
  return benchmark::RegisterBenchmark(
      name.c_str(), [&path, size](benchmark::State& state) { time(state, path, size); });
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  for (const bench::Path& path : bench::paths()) {
    const std::string name = path.name;
    if (name.rfind("heartbeat", 0) == 0) {
      for (const int threads : {1, 2, 4, 16, 64}) {
        add(path, 0)->Threads(threads);
      }
    } else if (name.rfind("memory", 0) == 0) {
      for (const int threads : {1, 2}) {
        add(path, 0)->Threads(threads);
      }
    } else if (name.rfind("validate", 0) == 0 || name.rfind("create", 0) == 0) {
      for (const uint64_t live : {1'000U, 100'000U, 1'000'000U}) {
        add(path, live);
      }
    } else {
      add(path, 0);
    }
  }
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
