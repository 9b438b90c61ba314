/* Legacy system time. */
#ifndef QURNADAPT_LEGACY_TIME_H
#define QURNADAPT_LEGACY_TIME_H

#include <qurnadapt/api.h>
#include <qurnadapt/systime.h>

QURN_BEGIN_DECLS

/* Stores the seconds since 1970 and the microseconds of one consistent clock reading, each cut to
 * 32 bits. Returns 0, or 0xFFFFFFFF for a null pointer or when the clock cannot be read.
 * Thread-safe. */
QURN_API uint32_t ZOT_GetSystemTime(uint32_t* seconds, uint32_t* microseconds);

QURN_END_DECLS

#endif
