/* The component's sessions: each is known to others by a handle of the handle table only, so a late
 * message for a closed session finds nothing. For one thread. */
#ifndef SESSION_STORE_H
#define SESSION_STORE_H

#include <qurnadapt/qurnadapt.h>

struct session_store {
  ZotHandleRecord* module; /* charged with all memory */
  DllList open;            /* in the order of their opening */
  SllList waiting;         /* for their turn */
  RpmStack* served;        /* handles, the latest on top */
};

/* Needs the handle table. Returns whether there is memory for it. */
bool session_store_init(struct session_store* store, ZotHandleRecord* module);
/* Closes what is open and frees everything. */
void session_store_fini(struct session_store* store);

/* Opens a session and queues it. Returns its handle, 0 without memory. */
uint32_t session_open(struct session_store* store, uint32_t number);
/* Returns whether the handle was that of an open session. */
bool session_close(struct session_store* store, uint32_t handle);

/* The number of the session behind a handle, 0 for one that is closed. */
uint32_t session_number(uint32_t handle);
/* The handle of the session with a number, 0 when none is open. */
uint32_t session_with_number(const struct session_store* store, uint32_t number);

/* Serves the session that has waited longest. Returns its handle, 0 when none is waiting. */
uint32_t session_serve_next(struct session_store* store);
/* Takes the latest service back. Returns the handle, 0 when there is none. */
uint32_t session_undo(struct session_store* store);

#endif
