/* The legacy broken-down time record. */
#ifndef QURNADAPT_SYSTIME_H
#define QURNADAPT_SYSTIME_H

#include <stdint.h>

/* A moment in calendar fields; the zone is that of the call that fills or takes it. */
typedef struct ZotSystime {
  uint16_t year;    /* 1970 to 2038 */
  uint8_t month;    /* 1 to 12 */
  uint8_t date;     /* 1 to the length of the month */
  uint8_t hour;     /* 0 to 23 */
  uint8_t minute;   /* 0 to 59 */
  uint8_t second;   /* 0 to 59 */
  uint8_t week;     /* 0 to 6, 0 is Sunday */
  uint32_t millSec; /* 0 to 999 */
} ZotSystime;

#endif
