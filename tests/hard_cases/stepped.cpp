// Single-steps through a function and its callee, and walks the stack before each instruction: the
// first and the last ones included, where frames are half built.
#include <dlfcn.h>
#include <link.h>
#include <qurnadapt/platform.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "hard_case.h"
#include "internal/machine_context.h"

#if defined(__x86_64__)

namespace {

struct Range {
  uint64_t start;
  uint64_t end;
  [[nodiscard]] bool holds(uint64_t address) const { return address >= start && address < end; }
};

// Innermost first; looked up before stepping starts.
constinit std::array<Range, 3> g_chain{};
constinit std::array<int, 2> g_steps{};  // in the callee, in the function
constinit int g_wrong = 0;

Range rangeOf(void* function) {
  Dl_info info{};
  void* symbol = nullptr;
  if (dladdr1(function, &info, &symbol, RTLD_DL_SYMENT) == 0 || symbol == nullptr) {
    abort();
  }
  const auto start = reinterpret_cast<uint64_t>(info.dli_saddr);
  return {start, start + static_cast<ElfW(Sym)*>(symbol)->st_size};
}

// The frames must be those of the chain from where the program counter is; a return address lies
// behind its call.
void onStep(int /*sig*/, siginfo_t* /*info*/, void* context) {
  const uint64_t pc = qurn::machineWords(context)[qurn::kProgramCounterWord];
  for (size_t at = 0; at + 1 < g_chain.size(); ++at) {
    if (!g_chain[at].holds(pc)) {
      continue;
    }
    ++g_steps[at];
    std::array<uint64_t, 20> addresses{};
    uint32_t depth = 0;
    KEM_ExceptCallStackGetEx(context, 20, 0, addresses.data(), &depth);
    bool right = addresses[0] == pc;
    for (size_t above = at + 1; above < g_chain.size(); ++above) {
      right = right && g_chain[above].holds(addresses[above - at] - 1);
    }
    g_wrong += right ? 0 : 1;
  }
}

}  // namespace

extern "C" {

__attribute__((noinline, noclone)) int at_stepped_callee(const volatile int* numbers) {
  int sum = 0;
  for (int i = 0; i < 4; ++i) {
    sum += numbers[i];
  }
  return sum;
}

// Saves registers, needs room on the stack, and leaves by two ways.
__attribute__((noinline, noclone)) int at_stepped_function(int one, int two) {
  volatile int numbers[16] = {one, two, one * two, one - two};
  if (one > 1) {
    return at_stepped_callee(numbers) * one + at_stepped_callee(numbers + 1) * two;
  }
  return at_stepped_callee(numbers) + two;
}

// The red zone is stepped over, as the flags go through the stack.
__attribute__((noinline, noclone)) int at_stepping(int one) {
  asm volatile(
      "lea -128(%%rsp), %%rsp\npushfq\norl $0x100, (%%rsp)\npopfq\nlea 128(%%rsp), %%rsp" ::
          : "memory", "cc");
  const int result = at_stepped_function(one, 3);
  asm volatile(
      "lea -128(%%rsp), %%rsp\npushfq\nandl $~0x100, (%%rsp)\npopfq\nlea 128(%%rsp), %%rsp" ::
          : "memory", "cc");
  return result;
}

}  // extern "C"

int stepThroughFunction() {
  g_chain = {rangeOf(reinterpret_cast<void*>(at_stepped_callee)),
             rangeOf(reinterpret_cast<void*>(at_stepped_function)),
             rangeOf(reinterpret_cast<void*>(at_stepping))};
  struct sigaction action {};
  action.sa_sigaction = onStep;
  action.sa_flags = SA_SIGINFO;
  sigaction(SIGTRAP, &action, nullptr);
  const int results = at_stepping(1) + at_stepping(2);
  printf("stepped %d and %d instructions, %d wrong, result %d\n", g_steps[0], g_steps[1], g_wrong,
         results);
  return g_wrong == 0 && g_steps[0] > 10 && g_steps[1] > 10 ? 0 : 1;
}

#else

int stepThroughFunction() {
  printf("not on this machine\n");
  return 77;
}

#endif
