#include "registers.h"

#include "common/machine_context.h"

namespace qurn::inspect {

#if defined(__x86_64__)

Registers registersFrom(const KernelRegisters& k) {
  return {{k.rax, k.rdx, k.rcx, k.rbx, k.rsi, k.rdi, k.rbp, k.rsp, k.r8, k.r9, k.r10, k.r11, k.r12,
           k.r13, k.r14, k.r15, k.rip},
          k.rsp,
          k.rip};
}

Call callFrom(const KernelRegisters& k) {
  return {
      false, static_cast<long>(k.orig_rax), {k.rdi, k.rsi, k.rdx, k.r10, k.r8, k.r9}, k.rsp, k.rip};
}

std::vector<Register> namedRegisters(const uint64_t* words) {
  constexpr const char* kNames[] = {"r8",  "r9",  "r10", "r11", "r12", "r13",
                                    "r14", "r15", "rdi", "rsi", "rbp", "rbx",
                                    "rdx", "rax", "rcx", "rsp", "rip", "eflags"};
  std::vector<Register> all;
  for (const char* name : kNames) {
    all.push_back({name, words[all.size()]});
  }
  return all;
}

#elif defined(__aarch64__)

Registers registersFrom(const KernelRegisters& k) {
  Registers all{{std::begin(k.regs), std::end(k.regs)}, k.sp, k.pc};
  all.values.push_back(k.sp);
  return all;
}

// The number lies in x8; whether the thread is in a call at all, the kernel does not say.
Call callFrom(const KernelRegisters& k) {
  return {false,
          static_cast<long>(k.regs[8]),
          {k.regs[0], k.regs[1], k.regs[2], k.regs[3], k.regs[4], k.regs[5]},
          k.sp,
          k.pc};
}

std::vector<Register> namedRegisters(const uint64_t* words) {
  std::vector<Register> all;
  for (unsigned i = 0; i <= 30; ++i) {
    all.push_back({"x" + std::to_string(i), words[i + 1]});
  }
  all.push_back({"sp", words[kStackPointerWord]});
  all.push_back({"pc", words[kProgramCounterWord]});
  all.push_back({"pstate", words[34]});
  return all;
}

#endif

}  // namespace qurn::inspect
