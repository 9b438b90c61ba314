/* A component written against the legacy calls. */
#ifndef LEGACY_COMPONENT_H
#define LEGACY_COMPONENT_H

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Has the calling thread watched, enters a loop that its own hook breaks, and is watched anew.
 * Returns whether every call succeeded. */
bool run_legacy_component(void);

#ifdef __cplusplus
}
#endif

#endif
