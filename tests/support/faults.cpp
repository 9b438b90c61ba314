// Failures of calls, by their names.
#include "faults.h"

#include <dlfcn.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

struct Fault {
  std::atomic<const char*> call;
  std::atomic<int> after;
  std::atomic<int> times;
  std::atomic<int> error;
  std::atomic<int> calls;
};

constinit std::array<Fault, 64> g_faults{};

// The one of this name, a new one the first time it is asked for. Takes no lock.
Fault& faultOf(const char* call) {
  for (Fault& fault : g_faults) {
    const char* name = nullptr;
    if (fault.call.compare_exchange_strong(name, call) || strcmp(name, call) == 0) {
      return fault;
    }
  }
  abort();
}

constinit std::atomic<int> g_sweepNumber{0};
constinit std::atomic<const char*> g_swept{nullptr};
constinit std::atomic<void (*)()> g_onStrike{nullptr};
void armFromEnvironment() {
  static constinit std::atomic<bool> done{false};
  const char* text = getenv(fault::kAtLoadVariable);
  if (!done.exchange(true) && text != nullptr) {
    fault::arm(strchr(text, ':') + 1, EAGAIN, atoi(text));
  }
}

}  // namespace

bool isLibraryCode(const void* address) {
  Dl_info info{};
  return dladdr(address, &info) != 0 && strstr(info.dli_fname, "libqurnadapt") != nullptr;
}

bool isCodeOf(const void* address, const char* function) {
  Dl_info info{};
  return dladdr(address, &info) != 0 && info.dli_sname != nullptr &&
         strcmp(info.dli_sname, function) == 0;
}

void fault::arm(const char* call, int error, int after, int times) {
  Fault& armed = faultOf(call);
  armed.after = after;
  armed.error = error;
  armed.times = times;
}

bool fault::strikes(const char* call, const void* caller) {
  armFromEnvironment();
  Fault& armed = faultOf(call);
  ++armed.calls;
  if (g_sweepNumber > 0 && isLibraryCode(caller) && --g_sweepNumber == 0) {
    g_swept = call;
    errno = EIO;
    return true;
  }
  if (armed.times <= 0 || armed.after-- > 0) {
    return false;
  }
  --armed.times;
  if (auto* action = g_onStrike.exchange(nullptr); action != nullptr) {
    action();
  }
  errno = armed.error;
  return true;
}

int fault::calls(const char* call) { return faultOf(call).calls; }

const char* fault::sweep(int number) {
  g_sweepNumber = 0;
  const char* before = g_swept.exchange(nullptr);
  g_sweepNumber = number;
  return before;
}

void fault::onStrike(void (*action)()) { g_onStrike = action; }
