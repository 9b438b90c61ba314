// Times a capture, from the signal to the finished record, beside a signal whose handler only walks
// twenty frames, with the unwinder or with the C library's own call; and the scan of memory maps
// beside a plain read of the file. Prints what stack a capture needs.
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <pthread.h>
#include <qurnadapt/platform.h>
#include <qurnadapt/qurnadapt.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <unwind.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <thread>
#include <vector>

namespace {

using TellStack = uint32_t (*)(uint32_t selector, FrameTaskStackInfo* info);

// How the platform knows the stack's bounds: at once, by asking the kernel as the stand-in does
// where it can, or not at all, so that the library scans the memory map.
TellStack g_tellStack = nullptr;
std::atomic<bool> g_kernelAnswers{true};

constexpr int kEmptySignal = SIGUSR1;
constexpr unsigned char kPaint = 0xA5;

std::atomic<bool> g_handled{false};
std::atomic<uint64_t> g_spinningFrame{0};
std::atomic<bool> g_leave{false};

void noteOnly(int /*sig*/, siginfo_t* /*info*/, void* /*context*/) { g_handled = true; }

_Unwind_Reason_Code countFrame(_Unwind_Context* /*frame*/, void* depth) {
  return ++*static_cast<int*>(depth) < 20 ? _URC_NO_REASON : _URC_NORMAL_STOP;
}

// The floor of a capture: the round trip of a signal whose handler walks twenty frames.
void walkOnly(int /*sig*/, siginfo_t* /*info*/, void* /*context*/) {
  int depth = 0;
  _Unwind_Backtrace(countFrame, &depth);
  g_handled = true;
}

void backtraceOnly(int /*sig*/, siginfo_t* /*info*/, void* /*context*/) {
  std::array<void*, 20> frames{};
  benchmark::DoNotOptimize(backtrace(frames.data(), static_cast<int>(frames.size())));
  g_handled = true;
}

__attribute__((noinline)) void descend(int levels) {
  if (levels > 0) {
    descend(levels - 1);
  } else {
    g_spinningFrame = reinterpret_cast<uint64_t>(__builtin_frame_address(0));
    while (!g_leave) {
      sched_yield();
    }
  }
  asm volatile("");  // keeps the call above from becoming a jump
}

// A thread that spins at the end of twenty calls, on a painted stack of our own.
class SpinningThread {
 public:
  SpinningThread()
      : stack_(static_cast<unsigned char*>(
            mmap(nullptr, kBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0))) {
    memset(stack_, kPaint, kBytes);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstack(&attributes, stack_, kBytes);
    pthread_create(
        &thread_, &attributes,
        [](void*) -> void* {
          descend(20);
          return nullptr;
        },
        nullptr);
    while (g_spinningFrame == 0) {
      sched_yield();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ~SpinningThread() {
    g_leave = true;
    pthread_join(thread_, nullptr);
  }
  [[nodiscard]] pthread_t id() const { return thread_; }
  // Bytes of stack touched below the spinning function since the paint was fresh.
  [[nodiscard]] size_t touched() const {
    const unsigned char* lowest = stack_;
    while (*lowest == kPaint) {
      ++lowest;
    }
    return g_spinningFrame - reinterpret_cast<uint64_t>(lowest);
  }
  [[nodiscard]] FrameTaskStackInfo bounds() const {
    return {reinterpret_cast<uint64_t>(stack_), kBytes};
  }

 private:
  static constexpr size_t kBytes = size_t{256} * 1024;

  unsigned char* stack_;
  pthread_t thread_{};
};

template <typename Handler>
void installHandler(Handler handler) {
  struct sigaction action {};
  action.sa_sigaction = handler;
  action.sa_flags = SA_SIGINFO | SA_RESTART;
  sigaction(kEmptySignal, &action, nullptr);
}

void signalAndWait(pthread_t thread) {
  g_handled = false;
  pthread_kill(thread, kEmptySignal);
  while (!g_handled) {
  }
}

void captureAndWait(pthread_t thread) {
  FrameThreadDeadloopPrint(thread);
  while (FrameGetDeadloopStatus() != FRAME_DEADLOOP_STATUS_CAPTURED) {
  }
}

// ---- what is timed, by hand: the report in between is not part of it

SpinningThread* g_spinning = nullptr;

template <typename Action>
void timeEach(benchmark::State& state, Action action) {
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    action(g_spinning->id());
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
    state.SetIterationTime(taken.count());
    FrameWriteDeadloopInfo();  // frees the record for the next capture
  }
}

uint32_t tellAtOnce(uint32_t /*selector*/, FrameTaskStackInfo* info) {
  *info = g_spinning->bounds();
  return QURN_OK;
}

uint32_t tellNothing(uint32_t /*selector*/, FrameTaskStackInfo* /*info*/) { return QURN_FAILED; }

TellStack standIn() {
  return reinterpret_cast<TellStack>(dlsym(RTLD_NEXT, "KEM_TaskStackInfoGet"));
}

void timeCapture(benchmark::State& state, TellStack tellStack) {
  g_tellStack = tellStack;
  timeEach(state, captureAndWait);
}

template <auto handler>
void timeHandler(benchmark::State& state) {
  installHandler(handler);
  timeEach(state, signalAndWait);
}

// ---- memory maps

// Single pages of alternating protection, which the kernel cannot merge.
class Mappings {
 public:
  explicit Mappings(size_t count) : bytes_(count * kPage) {
    memory_ =
        static_cast<char*>(mmap(nullptr, bytes_, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    for (size_t page = 0; page < count; page += 2) {
      mprotect(memory_ + page * kPage, kPage, PROT_NONE);
    }
  }
  ~Mappings() { munmap(memory_, bytes_); }
  Mappings(const Mappings&) = delete;
  Mappings& operator=(const Mappings&) = delete;

 private:
  static constexpr size_t kPage = 4096;
  size_t bytes_;
  char* memory_;
};

// As on Linux before 6.11, where the kernel tells of no single mapping.
void timeCaptureAmong(benchmark::State& state) {
  const Mappings mappings(static_cast<size_t>(state.range(0)));
  g_kernelAnswers = false;
  timeCapture(state, standIn());
  g_kernelAnswers = true;
}

// On the main thread, whose identifier lies behind the mappings that are made here.
void timeMapScan(benchmark::State& state) {
  const Mappings mappings(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    FrameTaskStackInfo bounds{0, 0};
    FrameTaskStackInfoGet(&bounds);
    benchmark::DoNotOptimize(bounds);
  }
}

void timeMapRead(benchmark::State& state) {
  const Mappings mappings(static_cast<size_t>(state.range(0)));
  std::vector<char> text(size_t{4} * 1024);
  for (auto _ : state) {
    const int maps = open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
    while (read(maps, text.data(), text.size()) > 0) {
    }
    close(maps);
  }
}

}  // namespace

extern "C" uint32_t KEM_TaskStackInfoGet(uint32_t selector, FrameTaskStackInfo* info) {
  return g_tellStack(selector, info);
}

extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list more;
  va_start(more, request);
  void* const argument = va_arg(more, void*);
  va_end(more);
  errno = ENOTTY;
  return g_kernelAnswers ? static_cast<int>(syscall(SYS_ioctl, fd, request, argument)) : -1;
}

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  FrameDeadloopInit();
  SpinningThread spinning;
  g_spinning = &spinning;
  g_tellStack = tellNothing;
  installHandler(noteOnly);
  signalAndWait(spinning.id());
  const size_t emptyStack = spinning.touched();
  captureAndWait(spinning.id());
  FrameWriteDeadloopInfo();
  std::fprintf(stderr, "stack of a capture: %zu bytes; of an empty handler: %zu\n",
               spinning.touched(), emptyStack);

  const auto byHand = [](benchmark::internal::Benchmark* one) {
    // One at a time, so that the best of many is seen: a signal may have to wait for a processor.
    one->UseManualTime()->Iterations(1)->Repetitions(300)->Unit(benchmark::kMicrosecond);
  };
  byHand(benchmark::RegisterBenchmark("capture", timeCapture, tellAtOnce));
  byHand(benchmark::RegisterBenchmark("capture_asking", timeCapture, standIn()));
  byHand(benchmark::RegisterBenchmark("capture_scanning", timeCapture, tellNothing));
  byHand(benchmark::RegisterBenchmark("capture_floor", timeHandler<walkOnly>));
  byHand(benchmark::RegisterBenchmark("capture_backtrace", timeHandler<backtraceOnly>));
  benchmark::RegisterBenchmark("map_scan", timeMapScan)->Arg(100)->Arg(5000);
  benchmark::RegisterBenchmark("map_read", timeMapRead)->Arg(100)->Arg(5000)->Arg(60000);
  benchmark::RegisterBenchmark("capture_among", timeCaptureAmong)
      ->UseManualTime()
      ->Iterations(5)
      ->Arg(5000)
      ->Arg(60000);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
