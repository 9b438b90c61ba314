// Stands in for the KEM signal-capture facility: one handler for each of the signals 1 to 31,
// really installed. A second registration of a signal replaces the first.
#include <qurnadapt/platform.h>

#include <ucontext.h>

#include <array>
#include <atomic>
#include <csignal>

namespace {

constexpr uint32_t kSignals = 32;

constinit std::array<std::atomic<KemSigcapHandler>, kSignals> g_handlers{};
static_assert(std::atomic<KemSigcapHandler>::is_always_lock_free);

constexpr uint32_t kDealtWith = 1;

// A use of the terminal from the background is answered by a signal and begun anew after it, again
// and again while nothing has changed. Where the signal is blocked the kernel answers at once.
bool comesBackFromTheTerminal(int sig) { return sig == SIGTTIN || sig == SIGTTOU; }

void dispatch(int sig, siginfo_t* info, void* context) {
  const KemSigcapHandler handler = g_handlers[static_cast<size_t>(sig)];
  if (handler != nullptr && handler(static_cast<uint32_t>(sig), info, context) == kDealtWith &&
      comesBackFromTheTerminal(sig)) {
    sigaddset(&static_cast<ucontext_t*>(context)->uc_sigmask, sig);
  }
}

}  // namespace

extern "C" {

uint32_t KEM_SigcapHandleReg(uint32_t sigId, KemSigcapHandler handler) {
  if (sigId == 0 || sigId >= kSignals || handler == nullptr) {
    return QURN_INVALID_ARGUMENT;
  }
  g_handlers[sigId] = handler;
  struct sigaction action {};
  action.sa_sigaction = dispatch;
  action.sa_flags = SA_SIGINFO | SA_RESTART;
  return sigaction(static_cast<int>(sigId), &action, nullptr) == 0 ? QURN_OK : QURN_FAILED;
}

}  // extern "C"
