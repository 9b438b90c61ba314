// Operations of the monitor, and the time between them, against the model.
#include "../support/monitor_beside_model.h"
#include "fuzz_target.h"

// An operation is a byte, and two numbers choose whom and what it concerns.
void tryInput(Bytes bytes) {
  MonitorBesideModel both;
  for (uint32_t step = 0; !bytes.empty() && step < 3000; ++step) {
    const uint32_t code = bytes.number(1);
    const uint32_t repeats = code < 200 ? 1 : 1 + code % 70;
    const uint32_t who = bytes.number(1);
    const uint32_t what = bytes.number(2);
    for (uint32_t i = 0; i < repeats; ++i) {
      if (!both.operate(code, who + i, what + i)) {
        std::fprintf(stderr, "step %u: %s\n", step, both.difference.c_str());
        std::abort();
      }
    }
  }
}
