/* The dead-loop signal, the captured state of a stuck thread, and its stack's bounds. */
#ifndef QURNADAPT_CAPTURE_H
#define QURNADAPT_CAPTURE_H

#include <pthread.h>
#include <qurnadapt/api.h>
#include <signal.h>
#include <stdint.h>

QURN_BEGIN_DECLS

#define FRAME_DEADLOOP_STATUS_IDLE 0U     /* No capture is under way; passes run. */
#define FRAME_DEADLOOP_STATUS_SIGNALED 1U /* A thread has been sent the dead-loop signal. */
#define FRAME_DEADLOOP_STATUS_CAPTURED 2U /* The record is complete; its report is pending. */

#define FRAME_REGISTER_WORDS 36U     /* 288 bytes of machine context. */
#define FRAME_STACK_DUMP_BYTES 2048U /* Most bytes of stack in a record. */
#define FRAME_CALL_STACK_DEPTH 20U   /* Most frames in a record. */
#define FRAME_CAPTURE_TIME_LEN 32U   /* Capacity of the time text, terminator included. */

/* One entry of a captured call stack. */
typedef struct FrameCallStackEntry {
  uint64_t address; /* Code address of one frame. */
} FrameCallStackEntry;

/* The captured state of one stuck thread.
 *
 * The register words are the first 288 bytes from the start of the machine context in the signal's
 * user context. AArch64: the fault address, x0 to x30, sp, pc, pstate, alignment. x86-64, numbered
 * as REG_ in <sys/ucontext.h>: words 0 to 17 and 22 are registers; the others are none: 18 packs
 * the segment selectors, 19 and 20 tell the exception, 21 and 32 are the signal mask, 23 is where
 * the floating-point state was saved, 24 to 31 are reserved, 33 to 35 are the start of the signal's
 * information. */
typedef struct FrameDeadloopDumpInfo {
  uint64_t registers[FRAME_REGISTER_WORDS]; /* The start of the machine context. */
  uint64_t stackDumpStart; /* Start of the copied range; 0 when the bounds are unknown. */
  uint8_t stackBytes[FRAME_STACK_DUMP_BYTES]; /* The copy, from stackDumpStart upwards. */
  FrameCallStackEntry callStack[FRAME_CALL_STACK_DEPTH]; /* Innermost first, without gaps. */
  char captureTime[FRAME_CAPTURE_TIME_LEN];              /* When the report was written. */
} FrameDeadloopDumpInfo;

/* The bounds of a thread's stack mapping; a start or size of 0 means unknown. */
typedef struct FrameTaskStackInfo {
  uint64_t start; /* Lowest address. */
  uint64_t size;  /* Length in bytes. */
} FrameTaskStackInfo;

/* Installs the dead-loop signal's handler (SIGRTMIN + 2), allocates the capture memory and settles
 * the detection period. Returns 0, at once when already done, or 0xFFFFFFFF. Part of start-up. */
QURN_API uint32_t FrameDeadloopInit(void);

/* 1 once FrameDeadloopInit has succeeded, else 0. Thread-safe. */
QURN_API uint32_t FrameIsDeadloopInited(void);

/* The dead-loop status: one of FRAME_DEADLOOP_STATUS_. Thread-safe; what the handler captured is
 * visible to whoever sees FRAME_DEADLOOP_STATUS_CAPTURED. */
QURN_API uint32_t FrameGetDeadloopStatus(void);

/* Clears the record and sends the dead-loop signal to a thread of this process. Returns 0, or
 * 0xFFFFFFFF for an id of 0 or all ones, before FrameDeadloopInit, or when the signal cannot be
 * sent. The thread must not have been joined. Detection thread only. */
QURN_API uint32_t FrameThreadDeadloopPrint(pthread_t thread);

/* ---- Internal steps ---- */

/* Installs the signal handler. Returns 0 or 0xFFFFFFFF. */
QURN_API uint32_t FrameDeadLoopSignalFuncReg(void);
/* One zero-filled block for the three parts that are handed out, never freed; null without
 * memory.*/
QURN_API void* FrameDeadloopStackMemAlloc(uint64_t** addresses, char** symbolText,
                                          FrameDeadloopDumpInfo** dumpInfo);
/* Sends the signal; the record is cleared by FrameThreadDeadloopPrint. Returns 0, or 0xFFFFFFFF
 * with the status idle again. The thread must not have been joined. Detection thread only. */
QURN_API uint32_t FrameDeadloopSignalSend(pthread_t thread);
/* The signal handler. Async-signal-safe, preserves errno, allocates and logs nothing. */
QURN_API void FrameDeadLoopSignalHandle(int sig, siginfo_t* info, void* context);
/* Copies a bounded slice of the calling thread's stack, around the record's stack pointer. Stores
 * the byte count through length, which stays untouched when the bounds are unknown or the stack
 * pointer is 0. */
QURN_API void FrameStackMemoryGet(FrameDeadloopDumpInfo* dumpInfo, uint32_t* length);
/* Copies the non-zero ones of depth addresses into the record, without gaps. */
QURN_API void FrameStackContentGet(FrameDeadloopDumpInfo* dumpInfo, const uint64_t* addresses,
                                   uint32_t depth);
/* The stack pointer in a register block of FRAME_REGISTER_WORDS words. */
QURN_API uint64_t FrameStackSpGet(const uint64_t* registers);
/* The range to copy: from 512 bytes below sp, at most *length bytes, inside the stack. */
QURN_API void FrameDumpStackInfoGet(uint64_t sp, uint64_t start, uint64_t size, uint64_t* dumpStart,
                                    uint32_t* length);

/* Finds the calling thread's stack in the process memory map; info stays untouched when it is not
 * found. Async-signal-safe: fixed buffers, and only open, read, lseek and close. */
QURN_API void FrameTaskStackInfoGet(FrameTaskStackInfo* info);

/* The steps of the memory-map scan. Lengths and positions are bytes and indexes into a line; the
 * parsers return the position after what they recognised, or 0; yes or no is 1 or 0. All are
 * async-signal-safe. */
QURN_API uint32_t FrameProcMapsFileGet(char* path, uint32_t capacity);
QURN_API uint32_t FrameGetMapStackAddr(const char* line, uint32_t length, uint64_t* start,
                                       uint64_t* end);
QURN_API uint32_t FrameReadMapFileStr(const char* line, uint32_t length, uint32_t* startPos,
                                      uint32_t* endPos);
QURN_API uint64_t FrameGetHexFromMapStr(const char* line, uint32_t position, uint32_t length);
QURN_API uint64_t FrameAddrHexToInt(const char* text, uint32_t count);
QURN_API int32_t FrameGetHexStrValue(char c);
QURN_API uint32_t FrameIsHexNum(char c);
QURN_API uint32_t FrameIsSpace(char c);
QURN_API uint32_t FrameParseMemAddr(const char* line, uint32_t position, uint32_t length);
QURN_API uint32_t FrameParseHyphen(const char* line, uint32_t position, uint32_t length);
QURN_API uint32_t FrameParseSpace(const char* line, uint32_t position, uint32_t length);

QURN_END_DECLS

#endif
