/* An older component: written in C, against the legacy calls alone. */
#ifndef LEGACY_COMPONENT_H
#define LEGACY_COMPONENT_H

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Does the component's work from start to end, for two seconds: opens a module handle, keeps
 * sessions in lists and in the handle table, tells the time, and finalises. The calling thread is
 * watched meanwhile and not any more afterwards. Returns whether all went as it should. */
bool run_legacy_component(void);

/* Has the calling thread watched, enters a loop that its own hook breaks, and is watched anew.
 * Returns whether every call succeeded. */
bool loop_in_legacy_component(void);

#ifdef __cplusplus
}
#endif

#endif
