/* Named event sets on the detection thread's epoll loop. */
#ifndef QURNADAPT_EVENT_SETS_H
#define QURNADAPT_EVENT_SETS_H

#include <qurnadapt/api.h>
#include <stdint.h>
#include <sys/epoll.h>

QURN_BEGIN_DECLS

/* Capacity of an event set's name, terminator included. */
#define FRAME_MNT_SET_NAME_LEN 128U

/* What data.ptr of a dispatched event points to. Owned by the library: valid during the event
 * process function that receives it, and not to be kept or freed. */
typedef struct FrameMntEpollData {
  char setName[FRAME_MNT_SET_NAME_LEN]; /* The set that handles the descriptor. */
  int32_t fd;                           /* The registered descriptor. */
  struct FrameMntEpollData* next;       /* The library's own bookkeeping. */
} FrameMntEpollData;

/* Handles one readable descriptor of a set. Runs on the detection thread with the event-set lock
 * held and all signals held back: it must not call FRAME_MntRegSetAndEventProc (the lock is not
 * recursive), and while it runs no other event is served. FRAME_MntEpollCtl is allowed. Returns 0
 * for success; any other value is logged. */
typedef uint32_t (*FrameMntEventProc)(struct epoll_event* event, void* param);

/* Registers proc and param under setName, or replaces those of an earlier registration of the same
 * name. setName has at most 127 characters and is copied; param is handed to proc as it is and
 * stays the caller's. "tov_timer" is the name of the watch's own set. Returns 0, 2 for a null proc,
 * 0xFFFFFFFF while the loop does not exist, for a name that does not fit, or without memory.
 * Thread-safe; waits for a running callback. Not to be called from a library's load-time
 * constructor: a callback that needs the loader's lock (a tick does, to look symbols up) and the
 * constructor would wait for each other. A thread that registers sets between its heartbeats waits
 * for a tick that runs: better register at start-up. */
QURN_API uint32_t FRAME_MntRegSetAndEventProc(const char* setName, FrameMntEventProc proc,
                                              void* param);

/* Applies the epoll_ctl operation op (EPOLL_CTL_ADD, _MOD or _DEL) to fd on behalf of setName,
 * which need not be registered yet. event may be null for EPOLL_CTL_DEL; otherwise its data.ptr is
 * overwritten with a record of the library's, and a mask of 0 becomes EPOLLIN | EPOLLET, once there
 * is a record; data.ptr is null after epoll_ctl has failed. Take a descriptor out with
 * EPOLL_CTL_DEL before closing it: that also releases its record. (Where a duplicate keeps a closed
 * descriptor alive and its number is registered anew, a record may stay until the clean-up.) An
 * event that the loop has fetched by then is still handed to the set, so its param must outlive
 * that. Returns 0, or 0xFFFFFFFF while the loop does not exist, for a name that does not fit,
 * without memory, or when epoll_ctl fails. Thread-safe. */
QURN_API uint32_t FRAME_MntEpollCtl(const char* setName, int32_t op, int32_t fd,
                                    struct epoll_event* event);

/* ---- Internal steps of the detection thread ---- */

/* Makes the event control valid: no epoll descriptor, no set. Returns the result of initialising
 * its mutex, 0 or an error number. */
QURN_API int32_t FrameInitMntEpollEventCtrl(void);

/* Hands one ready event to the set that its record names. */
QURN_API void FrameMntEventProcBySet(struct epoll_event* event);

/* Waits for events and dispatches them. Returns, after a line in the log, only when there is no
 * epoll descriptor to wait on. */
QURN_API void FRAME_MntDispatch(void);

/* Frees every set and record, closes the epoll descriptor and destroys the lock. Later calls fail
 * as they do before initialisation. */
QURN_API void FrameMntClearEpollEventCtrl(void);

QURN_END_DECLS

#endif
