// Everything that differs between the supported architectures: where a signal's user context keeps
// the registers that a stack walk starts from.
#pragma once

#include <ucontext.h>

#include <cstddef>
#include <cstdint>

namespace qurn {

#if defined(__x86_64__)
inline constexpr std::size_t kStackPointerWord = REG_RSP;
inline constexpr std::size_t kProgramCounterWord = REG_RIP;
inline constexpr std::size_t kFramePointerWord = REG_RBP;
inline constexpr int kFramePointerDwarfRegister = 6;
// Behind these 32 words lie the signal mask and, in a signal's frame, the signal's information.
static_assert(sizeof(mcontext_t) == 256);
static_assert(offsetof(ucontext_t, uc_sigmask) ==
              offsetof(ucontext_t, uc_mcontext) + sizeof(mcontext_t));
static_assert(offsetof(mcontext_t, gregs) == 0 && sizeof(greg_t) == sizeof(uint64_t));
#elif defined(__aarch64__)
// fault address, x0 to x30, sp, pc, pstate
inline constexpr std::size_t kStackPointerWord = 32;
inline constexpr std::size_t kProgramCounterWord = 33;
inline constexpr std::size_t kFramePointerWord = 30;
inline constexpr int kFramePointerDwarfRegister = 29;
// Where a called function that has saved nothing yet finds its return address, which lies after the
// calling instruction.
#define QURN_HAS_LINK_REGISTER
inline constexpr std::size_t kLinkRegisterWord = 31;
inline constexpr uint64_t kCallBytes = 4;
static_assert(offsetof(mcontext_t, sp) == kStackPointerWord * sizeof(uint64_t));
static_assert(offsetof(mcontext_t, pc) == kProgramCounterWord * sizeof(uint64_t));
#else
#error "unsupported architecture"
#endif

// The machine context as the 64-bit words that the constants above index.
inline uint64_t* machineWords(void* userContext) noexcept {
  return reinterpret_cast<uint64_t*>(&static_cast<ucontext_t*>(userContext)->uc_mcontext);
}

}  // namespace qurn
