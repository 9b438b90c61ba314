/* The dead-loop report and its text functions. */
#ifndef QURNADAPT_REPORT_H
#define QURNADAPT_REPORT_H

#include <qurnadapt/api.h>
#include <qurnadapt/systime.h>
#include <stdint.h>

QURN_BEGIN_DECLS

/* Capacity that every destination of one symbol name must have, terminator included. */
#define FRAME_SYMBOL_NAME_LEN 300U

/* Appends a line "Reg:  NAME   0xVALUE" to the text in dest, whose capacity is in bytes and may be
 * any that dest has. name has at most 7 characters. Thread-safe. */
QURN_API void FrameRegStrGet(char* dest, uint32_t capacity, const char* name, uint64_t value);

/* Writes the names of depth code addresses to dest, one a line; names for which no 302 bytes are
 * left are dropped. Returns 0, or 0xFFFFFFFF for a null or empty argument or without memory.
 * Thread-safe; allocates and takes the loader's lock. */
QURN_API uint32_t FrameFuncNameGetByAddr(void* const* addresses, uint32_t depth, char* dest,
                                         uint32_t capacity);

/* Writes the name of signal 1 to 31, or "UNKNOWN", to dest. Returns the result of strncpy_s: 0, or
 * its code when dest is null or capacity too small. Thread-safe. */
QURN_API int32_t FrameGetSigName(int32_t sig, char* dest, uint32_t capacity);

/* ---- Internal steps ---- */

/* Writes the report of a pending capture, runs the fatal action and sets the status back to idle.
 * Detection thread only. */
QURN_API void FrameWriteDeadloopInfo(void);
/* Writes the record's signal, process and frames, 20 at most whatever depth the platform reported,
 * to the log; nothing without a record. */
QURN_API void FrameWriteDeadloopInfoToLog(void);
/* The current time, eight hours east of UTC, as "YYYY-MM-DD HH:MM:SS."; dest holds at least 21
 * bytes. */
QURN_API void FrameExcepTimeStrGet(char* dest, uint32_t capacity);
/* The same text of the given time. */
QURN_API void FrameTimeToStr(const ZotSystime* time, char* dest, uint32_t capacity);
/* Writes value in radix 2 to 16, right-aligned in width - 1 characters and padded with fill, and a
 * terminator; writes nothing when the digits do not fit or the radix is out of range. */
QURN_API void FrameUintToStr(uint64_t value, uint32_t radix, char* dest, uint32_t width, char fill);

QURN_END_DECLS

#endif
