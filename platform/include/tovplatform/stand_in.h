/* What the stand-in platform offers beyond the platform interface, for hosts, examples and tests.
 * The environment variables that it goes by are in docs/configuration.md. */
#ifndef TOVPLATFORM_STAND_IN_H
#define TOVPLATFORM_STAND_IN_H

#include <qurnadapt/platform.h>
#include <stdint.h>

QURN_BEGIN_DECLS

/* Sets the dead-loop hook that the framework keeps for a thread until it ends, null to drop it.
 * Returns 0, or 0xFFFFFFFF when there is no such thread or 64 have one already. Thread-safe. */
uint32_t TovStandInDeadloopHookSet(uint64_t threadId, TovDeadloopHook hook);

/* Dead-loop sections of the calling thread, through the capability that the process registered. A
 * thread registers once with its thresholds in seconds, opens and closes sections, and unregisters
 * before it ends. Registering returns 0, or 0xFFFFFFFF without a capability or when it refused; the
 * others do nothing on a thread that is not registered. Thread-safe. */
uint32_t TovStandInSectionRegister(uint32_t firstThreshold, uint32_t secondThreshold,
                                   uint32_t thirdThreshold);
void TovStandInSectionOpen(void);
void TovStandInSectionClose(void);
void TovStandInSectionUnregister(void);

/* Adds a record to a box region, 0 to 7; the oldest of 20 gives way, and longer texts are cut at
 * 127 characters. Returns 0, or 0xFFFFFFFF for another region. Thread-safe. */
uint32_t TovStandInBoxWrite(uint32_t region, const char* text);

/* KEM memory is accounted for by handle, partition and place of allocation. Freeing what is not a
 * live block, finalising a handle that still holds blocks, and charging a finalised handle are
 * reported as errors in the log and as records of the mistake box. Thread-safe. */

/* Stands for every handle id. */
#define TOV_STAND_IN_ALL_HANDLES 0xFFFFFFFFU

/* Stores what a handle id, or all of them, hold at present. */
void TovStandInMemoryHeld(uint32_t handleId, uint64_t* blocks, uint64_t* bytes);
/* Hands a line to print for each place whose blocks are still held. */
void TovStandInMemoryPrint(KemPrintHook print);

QURN_END_DECLS

#endif
