#include "session_store.h"

#include <stddef.h>

struct session {
  DllNode order; /* first, as list calls hand out node addresses */
  SllNode turn;
  uint32_t handle;
  uint32_t number;
};

static struct session* of_turn(SllNode* turn) {
  return (struct session*)((char*)turn - offsetof(struct session, turn));
}

bool session_store_init(struct session_store* store, ZotHandleRecord* module) {
  store->module = module;
  store->open = (DllList){.head = {&store->open.head, &store->open.head}};
  store->waiting = (SllList){.head = {&store->waiting.head}, .tail = &store->waiting.head};
  store->served = RPM_CreateStack();
  return store->served != NULL;
}

static uint32_t release(DllNode* node) {
  nbb_destroy_handle(((struct session*)node)->handle);
  return ZOT_Free_F(node, __FILE__, __LINE__);
}

void session_store_fini(struct session_store* store) {
  while (SLL_Get(&store->waiting) != NULL) {
  }
  while (session_undo(store) != 0) { /* its elements are handles, not memory to be freed */
  }
  DLL_FreeAll(&store->open, release);
  RPM_DestroyStack(store->served);
}

uint32_t session_open(struct session_store* store, uint32_t number) {
  struct session* session = ZOT_Malloc_F((uintptr_t)store->module, g_aucZotMemPt[1],
                                         sizeof(struct session), __FILE__, __LINE__);
  if (session == NULL) {
    return 0;
  }
  *session = (struct session){.number = number, .handle = nbb_create_handle(session)};
  if (session->handle == 0) {
    ZOT_Free_F(session, __FILE__, __LINE__);
    return 0;
  }
  DLL_Insert(&store->open, store->open.head.prev, &session->order);
  SLL_Insert(&store->waiting, SLL_Previous(&store->waiting, NULL), &session->turn);
  return session->handle;
}

bool session_close(struct session_store* store, uint32_t handle) {
  struct session* session = nbb_validate_handle(handle);
  if (session == NULL) {
    return false;
  }
  SLL_Delete(&store->waiting, &session->turn);
  DLL_Delete(&store->open, &session->order);
  return release(&session->order) == 0;
}

uint32_t session_number(uint32_t handle) {
  const struct session* session = nbb_validate_handle(handle);
  return session == NULL ? 0 : session->number;
}

static uint32_t compare_number(const void* key, const DllNode* node) {
  return ((const struct session*)node)->number == *(const uint32_t*)key ? 0 : 1;
}

uint32_t session_with_number(const struct session_store* store, uint32_t number) {
  const struct session* found =
      (const struct session*)DLL_Find(&store->open, &number, compare_number);
  return found == NULL ? 0 : found->handle;
}

uint32_t session_serve_next(struct session_store* store) {
  SllNode* turn = SLL_Get(&store->waiting);
  if (turn == NULL) {
    return 0;
  }
  const uint32_t handle = of_turn(turn)->handle;
  return RPM_PushStack(store->served, handle) == 0 ? handle : 0;
}

uint32_t session_undo(struct session_store* store) {
  uintptr_t handle = 0;
  return RPM_PopStack(store->served, &handle) == 0 ? (uint32_t)handle : 0;
}
