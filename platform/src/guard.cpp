// The process guard's client, in a library of its own that a host loads if it is guarded. It speaks
// the service manager's notification protocol, so a real one can watch the process.
#include <systemd/sd-daemon.h>

#include <cstdint>

extern "C" {

// Sends "READY=1" for 1 and "WATCHDOG=1" for 0. Returns 0 when it was sent, or when nobody listens;
// otherwise an error number.
__attribute__((visibility("default"))) int32_t bexlin_notify(int32_t what) {
  const int result = sd_notify(0, what == 1 ? "READY=1" : "WATCHDOG=1");
  return result < 0 ? -result : 0;
}

}  // extern "C"
