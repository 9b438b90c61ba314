// The component's exception configuration: which signals its process ignores. Runs once, on the
// thread that starts the subsystem up.
#include <qurnadapt/keep_alive.h>

extern "C" {

// No signal can be configured as ignored yet, so there is nothing to apply.
uint32_t FrameExceptionInit(void) { return QURN_OK; }

}  // extern "C"
