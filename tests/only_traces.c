/* A component that needs nothing of the library but one of the calls that the process may replace.
 * It compiles only if the public headers are C11 with the POSIX types. */
#undef _GNU_SOURCE
#define _POSIX_C_SOURCE 200809L
#pragma GCC diagnostic error "-Wpedantic"

#include <qurnadapt/platform.h>
#include <qurnadapt/qurnadapt.h>
#include <tovplatform/stand_in.h>

int main(void) { return TRC_IsTraceCompMsg() == 2 ? 0 : 1; }
