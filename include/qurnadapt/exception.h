/* The component's exception configuration: signals that its process ignores. */
#ifndef QURNADAPT_EXCEPTION_H
#define QURNADAPT_EXCEPTION_H

#include <qurnadapt/api.h>
#include <stdint.h>

QURN_BEGIN_DECLS

/* ---- Internal steps of start-up, on the thread that runs it ---- */

/* Applies the "exception" configuration. Returns 0, 2 for an empty entry, 0xFFFFFFFF for one that
 * must not be ignored, a refused registration or an unreadable file; handlers registered for
 * earlier entries stay. */
QURN_API uint32_t FrameExceptionInit(void);
/* The same for the sequence of signal names at a key of a loaded configuration, which stays the
 * caller's. */
QURN_API uint32_t FrameExceptionSignalIgnoreInit(void* yaml, const char* key);
/* 1 if the signal of this name may be ignored, else 0: SIGHUP, SIGTTIN, SIGSYS, SIGTTOU and SIGPIPE
 * may. */
QURN_API uint32_t FrameSignalIsSupportIgnore(const char* sigName);
/* Stores the number of the signal of this name, 0 ("SIG0") to 31. Returns 0, or 0xFFFFFFFF with
 * sigId untouched. */
QURN_API uint32_t FrameGetSigId(const char* sigName, uint32_t* sigId);
/* The handler of an ignored signal: does nothing and returns 1. Async-signal-safe. */
QURN_API uint32_t FrameSignalIgnoreFunc(uint32_t sigId, void* info, void* context);

QURN_END_DECLS

#endif
