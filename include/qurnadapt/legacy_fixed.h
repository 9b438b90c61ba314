/* Legacy calls of services that the framework does not provide, each with a fixed result, so that
 * components which still make them link and run. Except where said they ignore their arguments,
 * have no effect and may be called from any thread, signal handlers included. */
#ifndef QURNADAPT_LEGACY_FIXED_H
#define QURNADAPT_LEGACY_FIXED_H

#include <qurnadapt/api.h>

QURN_BEGIN_DECLS

/* Message buffers and sending: there are none. Null, and 0 for the others; the header length check
 * passes with 1. */
QURN_API void* ZOT_MsgAlloc();
QURN_API uint32_t ZOT_MsgFree();
QURN_API uint32_t ZOT_SEND_MSG();
QURN_API uint32_t ZOT_SEND_URGENT_MSG();
QURN_API uint32_t ZOT_ZotMsgHeaderLenCheck();

/* Start and end of the legacy list module: 0. */
QURN_API uint32_t ZOT_DllInit();
QURN_API uint32_t ZOT_DllFini();

/* Logs the slot id of the process and stores nothing. Thread-safe, not async-signal-safe. */
QURN_API void TOV_SetProcessSlotId(uint32_t slotId);

QURN_END_DECLS

#endif
