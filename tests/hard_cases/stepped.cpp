// Single-steps through a function and its callee, and walks the stack before each instruction: the
// first and the last ones included, where frames are half built.
#include <dlfcn.h>
#include <qurnadapt/platform.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "common/machine_context.h"
#include "hard_case.h"

#if defined(__x86_64__)

namespace {

constexpr std::array<const char*, 3> kChain{"at_stepped_callee", "at_stepped_function",
                                            "at_stepping"};
constinit std::array<int, 2> g_steps{};  // in the callee, in the function
constinit int g_wrong = 0;

bool isIn(uint64_t address, const char* function) {
  Dl_info info{};
  return dladdr(reinterpret_cast<void*>(address), &info) != 0 && info.dli_sname != nullptr &&
         strcmp(info.dli_sname, function) == 0;
}

// The frames must be those of the chain from where the program counter is; a return address lies
// behind its call.
void onStep(int /*sig*/, siginfo_t* /*info*/, void* context) {
  const uint64_t pc = qurn::machineWords(context)[qurn::kProgramCounterWord];
  for (size_t at = 0; at < g_steps.size(); ++at) {
    if (!isIn(pc, kChain[at])) {
      continue;
    }
    ++g_steps[at];
    std::array<uint64_t, 20> addresses{};
    uint32_t depth = 0;
    KEM_ExceptCallStackGetEx(context, 20, 0, addresses.data(), &depth);
    bool right = addresses[0] == pc;
    for (size_t above = at + 1; above < kChain.size(); ++above) {
      right = right && isIn(addresses[above - at] - 1, kChain[above]);
    }
    g_wrong += right ? 0 : 1;
  }
}

}  // namespace

extern "C" {

WHOLE int at_stepped_callee(const volatile int* numbers) {
  int sum = 0;
  for (int i = 0; i < 4; ++i) {
    sum += numbers[i];
  }
  return sum;
}

// Saves registers, needs room on the stack, and leaves by two ways.
WHOLE int at_stepped_function(int one, int two) {
  volatile int numbers[16] = {one, two, one * two, one - two};
  if (one > 1) {
    return at_stepped_callee(numbers) * one + at_stepped_callee(numbers + 1) * two;
  }
  return at_stepped_callee(numbers) + two;
}

// The red zone is stepped over, as the flags go through the stack.
#define CHANGE_TRAP_FLAG(OPERATION)                         \
  asm volatile("lea -128(%%rsp), %%rsp\npushfq\n" OPERATION \
               ", (%%rsp)\npopfq\nlea 128(%%rsp), %%rsp" :: \
                   : "memory", "cc")
WHOLE int at_stepping(int one) {
  CHANGE_TRAP_FLAG("orl $0x100");
  const int result = at_stepped_function(one, 3);
  CHANGE_TRAP_FLAG("andl $~0x100");
  return result;
}

}  // extern "C"

int stepThroughFunction() {
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
  return 1;
}

#endif
