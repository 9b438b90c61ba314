/* Legacy system time and uptime. GMT is UTC; local mean time is UTC shifted by the zone's standard
 * offset, never by daylight saving; local time is the zone's civil time. The zone is the process's.
 * Calls are thread-safe and reentrant. Unless said otherwise 22 is an invalid argument: a null
 * pointer, or an input record with a field out of the range that systime.h gives, which is logged;
 * outputs are then untouched, and in general a record that receives a result must not be null. */
#ifndef QURNADAPT_LEGACY_TIME_H
#define QURNADAPT_LEGACY_TIME_H

#include <qurnadapt/api.h>
#include <qurnadapt/systime.h>
#include <stdint.h>

QURN_BEGIN_DECLS

/* ---- Clock ---- */

/* Stores the seconds since 1970 and the microseconds of one consistent clock reading, each cut to
 * 32 bits. Returns 0, or 0xFFFFFFFF for a null pointer or when the clock cannot be read. */
QURN_API uint32_t ZOT_GetSystemTime(uint32_t* seconds, uint32_t* microseconds);

/* Stores the present time in GMT. Returns 0, 22 for null, 0xFFFFFFFF when the clock cannot be read.
 */
QURN_API uint32_t ZOT_GMT_SystimeGet(ZotSystime* time);

/* The same, for a record that is not null; it becomes all zero when the clock cannot be read. */
QURN_API uint32_t ZOT_SystimeGet(ZotSystime* time);

/* Stores the present local time, and 1 through isDst while daylight saving is in force, else 0.
 * Returns 0, or the bitwise OR of the codes of reading the clock and converting. */
QURN_API uint32_t ZOT_Local_SystimeGet(ZotSystime* local, uint32_t* isDst);

/* Stores when the system was started, in GMT and whole seconds; week is left as it is. Returns 0,
 * or 0xFFFFFFFF when the uptime cannot be read. */
QURN_API uint32_t SSP_GetsystemStartTime(ZotSystime* time);

/* ---- Conversion ---- */

/* Breaks seconds since 1970 down, the day of the week included; fields that the KEM layer does not
 * write, as millSec, keep their values. Returns 22 for null, else the KEM layer's code for the day
 * of the week. */
QURN_API uint32_t ZOT_Second2GMT(uint32_t seconds, ZotSystime* time);
/* The others return 0 or 22 and carry the milliseconds over.
 * GMT to local time; isDst receives 1 while daylight saving is in force at that time, else 0. */
QURN_API uint32_t ZOT_Gmt2LocalTime(const ZotSystime* gmt, ZotSystime* local, uint32_t* isDst);
/* GMT to local mean time: the zone's offset without daylight saving. */
QURN_API uint32_t ZOT_Gmt2Lmt(const ZotSystime* gmt, ZotSystime* lmt);
/* Local mean time to local time. Also 22, isDst then 0, when the same moment in GMT lies outside
 * 1970 to 2038. */
QURN_API uint32_t ZOT_Lmt2LocalTime(const ZotSystime* lmt, ZotSystime* local, uint32_t* isDst);

/* ---- Uptime ---- */

/* What an uptime counts from. */
typedef struct ZotUptimeRecord {
  uint32_t startTickLow;  /* The CPU tick taken as time zero. */
  uint32_t startTickHigh; /* Its upper half. */
  uint32_t baseMsHigh;    /* Milliseconds added to the time since then. */
  uint32_t baseMsLow;     /* Their lower half. */
} ZotUptimeRecord;

/* A 64-bit count of milliseconds in two halves. */
typedef struct ZotUptimeMs {
  uint32_t msHigh; /* Upper half. */
  uint32_t msLow;  /* Lower half. */
} ZotUptimeMs;

/* A zero-filled record, which the caller owns and frees with ZOT_Free_F; null without memory. With
 * it the uptime counts from the start of the CPU tick. */
QURN_API ZotUptimeRecord* ZOT_StartuptimeInit(void);

/* Stores the milliseconds since the record's time zero, its base included. Returns 0, or
 * 0xFFFFFFFF with out untouched for a null pointer or when the KEM layer's arithmetic fails, as it
 * does for a time zero that lies ahead. */
QURN_API uint32_t ZOT_CalUptime(const ZotUptimeRecord* base, ZotUptimeMs* out);

QURN_END_DECLS

#endif
