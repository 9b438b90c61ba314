// Stands in for the KEM signal-capture facility: one handler for each of the signals 1 to 31,
// really installed. A second registration of a signal replaces the first.
#include <qurnadapt/platform.h>

#include <array>
#include <atomic>
#include <csignal>

namespace {

constexpr uint32_t kSignals = 32;

constinit std::array<std::atomic<KemSigcapHandler>, kSignals> g_handlers{};
static_assert(std::atomic<KemSigcapHandler>::is_always_lock_free);

void dispatch(int sig, siginfo_t* info, void* context) {
  const KemSigcapHandler handler = g_handlers[static_cast<size_t>(sig)];
  if (handler != nullptr) {
    handler(static_cast<uint32_t>(sig), info, context);
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
