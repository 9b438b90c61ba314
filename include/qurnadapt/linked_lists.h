/* Intrusive circular lists of the legacy interface, doubly and singly linked. A node stands at the
 * start of the owner's record; the header is the sentinel between the last node and the first.
 *
 * The owner empties a header before first use: both links (or next and tail) point to the header's
 * own node, the count is 0. It also nulls a node's links before first use; a delete nulls them
 * again. Nothing is allocated or locked: the owner serialises access and owns all memory. Null is
 * tolerated only where a call says so. */
#ifndef QURNADAPT_LINKED_LISTS_H
#define QURNADAPT_LINKED_LISTS_H

#include <qurnadapt/api.h>
#include <stdint.h>

QURN_BEGIN_DECLS

/* The links of a node, embedded in the caller's element. */
typedef struct DllNode {
  struct DllNode* next; /* The header after the last node, null when not linked. */
  struct DllNode* prev; /* The header before the first node, null when not linked. */
} DllNode;

/* The header of a doubly linked list. */
typedef struct DllList {
  DllNode head;       /* next is the first node, prev the last. */
  uintptr_t reserved; /* Never read nor written. */
  uint32_t count;     /* Linked nodes. */
} DllList;

/* The link of a node, embedded in the caller's element. */
typedef struct SllNode {
  struct SllNode* next; /* The header after the last node, null when not linked. */
} SllNode;

/* The header of a singly linked list. */
typedef struct SllList {
  SllNode head;       /* next is the first node. */
  uintptr_t reserved; /* Never read nor written. */
  SllNode* tail;      /* The last node, the header's own node when the list is empty. */
  uint32_t count;     /* Linked nodes. */
} SllList;

/* Compares a node with the key of a find; 0 means that it matches. */
typedef uint32_t (*DllCompare)(const void* key, const DllNode* node);
typedef uint32_t (*SllCompare)(const void* key, const SllNode* node);
/* Visits or frees a node; the result is not read. A visit must not unlink or free the node. */
typedef uint32_t (*DllVisit)(DllNode* node);
typedef uint32_t (*SllVisit)(SllNode* node);

/* ---- Doubly linked ---- */

/* The first node, in list order, that matches; null when none does. */
QURN_API DllNode* DLL_Find(const DllList* list, const void* key, DllCompare compare);
/* Links node between the neighbours prev and next, either of which may be the header; does nothing
 * for a null node. */
QURN_API void DLL_Insert_In_Middle(DllList* list, DllNode* prev, DllNode* node, DllNode* next);
/* Unlinks node from between its neighbours. */
QURN_API void DLL_Delete_In_Middle(DllList* list, DllNode* prev, DllNode* node, DllNode* next);
/* Links node after prev, or at the front when prev is null; does nothing for a null list or node.
 */
QURN_API void DLL_Insert(DllList* list, DllNode* prev, DllNode* node);
/* Unlinks node; does nothing when its links are not those of a linked node, so deleting twice is
 * harmless. */
QURN_API void DLL_Delete(DllList* list, DllNode* node);
/* Unlinks the first node and returns it, null when the list is empty. */
QURN_API DllNode* DLL_Get(DllList* list);
/* Hands every node, in list order, to release and empties the header; does nothing for a null list.
 */
QURN_API void DLL_FreeAll(DllList* list, DllVisit release);
/* Visits every node in list order and returns how many there were. */
QURN_API uint32_t DLL_Walk(const DllList* list, DllVisit visit);

/* ---- Singly linked: as above except where said ---- */

/* The first node, in list order, that matches; null when none does. */
QURN_API SllNode* SLL_Find(const SllList* list, const void* key, SllCompare compare);
/* Links node between the neighbours prev and next, either of which may be the header; node must not
 * be null. */
QURN_API void SLL_Insert_In_Middle(SllList* list, SllNode* prev, SllNode* node, SllNode* next);
/* Unlinks node from between its neighbours. */
QURN_API void SLL_Delete_In_Middle(SllList* list, SllNode* prev, SllNode* node, SllNode* next);
/* Links node after prev, or at the front when prev is null; neither list nor node may be null. */
QURN_API void SLL_Insert(SllList* list, SllNode* prev, SllNode* node);
/* Unlinks a node of this list, looking for the one before it; does nothing when it is not linked.
 */
QURN_API void SLL_Delete(SllList* list, SllNode* node);
/* Unlinks the first node and returns it, null when the list is empty. */
QURN_API SllNode* SLL_Get(SllList* list);
/* The node before node, null for the first one or one that is not in the list; for a null node the
 * last one, null when the list is empty. */
QURN_API SllNode* SLL_Previous(const SllList* list, const SllNode* node);
/* Hands every node, in list order, to release and empties the header, which must not be null. */
QURN_API void SLL_FreeAll(SllList* list, SllVisit release);
/* Visits every node in list order and returns how many there were. */
QURN_API uint32_t SLL_Walk(const SllList* list, SllVisit visit);

QURN_END_DECLS

#endif
