// The legacy interface's intrusive lists, circular through their headers. No locks: a list's owner
// serialises access.
#include <qurnadapt/legacy_fixed.h>
#include <qurnadapt/linked_lists.h>

#include <cstddef>

static_assert(sizeof(DllNode) == 16 && offsetof(DllList, reserved) == 16 &&
              offsetof(DllList, count) == 24);
static_assert(sizeof(SllNode) == 8 && offsetof(SllList, reserved) == 8 &&
              offsetof(SllList, tail) == 16 && offsetof(SllList, count) == 24);

namespace {

// The node to insert after: the header's own for null.
template <typename List, typename Node>
Node* orHeader(List* list, Node* prev) noexcept {
  return prev == nullptr ? &list->head : prev;
}

template <typename List, typename Node>
bool isEnd(const List* list, const Node* node) noexcept {
  return node == nullptr || node == &list->head;
}

template <typename Node, typename List, typename Compare>
Node* find(const List* list, const void* key, Compare compare) noexcept {
  if (list->count == 0) {
    return nullptr;
  }
  for (Node* node = list->head.next; !isEnd(list, node); node = node->next) {
    if (compare(key, node) == 0) {
      return node;
    }
  }
  return nullptr;
}

template <typename Node, typename List, typename Visit>
uint32_t walk(const List* list, Visit visit) noexcept {
  if (list->count == 0) {
    return 0;
  }
  uint32_t visited = 0;
  for (Node* node = list->head.next; !isEnd(list, node); node = node->next) {
    visit(node);
    ++visited;
  }
  return visited;
}

// The node may be gone once it is released, so its link is read before.
template <typename Node, typename List, typename Release>
void releaseNodes(List* list, Release release) noexcept {
  for (Node* node = list->head.next; !isEnd(list, node);) {
    Node* next = node->next;
    release(node);
    node = next;
  }
}

// Links that agree with those of the neighbours; a deleted node has none.
bool isLinked(const DllNode* node) noexcept {
  return node->next != nullptr && node->prev != nullptr && node->next->prev == node &&
         node->prev->next == node;
}

}  // namespace

extern "C" {

uint32_t ZOT_DllInit(...) { return 0; }
uint32_t ZOT_DllFini(...) { return 0; }

// ---- doubly linked

DllNode* DLL_Find(const DllList* list, const void* key, DllCompare compare) {
  return find<DllNode>(list, key, compare);
}

void DLL_Insert_In_Middle(DllList* list, DllNode* prev, DllNode* node, DllNode* next) {
  if (node == nullptr) {
    return;
  }
  ++list->count;
  node->next = next;
  node->prev = prev;
  prev->next = node;
  next->prev = node;
}

void DLL_Delete_In_Middle(DllList* list, DllNode* prev, DllNode* node, DllNode* next) {
  prev->next = next;
  next->prev = prev;
  node->next = nullptr;
  node->prev = nullptr;
  --list->count;
}

void DLL_Insert(DllList* list, DllNode* prev, DllNode* node) {
  if (list == nullptr || node == nullptr) {
    return;
  }
  DllNode* before = orHeader(list, prev);
  DLL_Insert_In_Middle(list, before, node, before->next);
}

void DLL_Delete(DllList* list, DllNode* node) {
  if (isLinked(node)) {
    DLL_Delete_In_Middle(list, node->prev, node, node->next);
  }
}

DllNode* DLL_Get(DllList* list) {
  if (list->count == 0) {
    return nullptr;
  }
  DllNode* first = list->head.next;
  DLL_Delete_In_Middle(list, &list->head, first, first->next);
  return first;
}

void DLL_FreeAll(DllList* list, DllVisit release) {
  if (list == nullptr) {
    return;
  }
  releaseNodes<DllNode>(list, release);
  list->head = {&list->head, &list->head};
  list->count = 0;
}

uint32_t DLL_Walk(const DllList* list, DllVisit visit) { return walk<DllNode>(list, visit); }

// ---- singly linked

SllNode* SLL_Find(const SllList* list, const void* key, SllCompare compare) {
  return find<SllNode>(list, key, compare);
}

void SLL_Insert_In_Middle(SllList* list, SllNode* prev, SllNode* node, SllNode* next) {
  ++list->count;
  node->next = next;
  prev->next = node;
  if (next == &list->head) {
    list->tail = node;
  }
}

void SLL_Delete_In_Middle(SllList* list, SllNode* prev, SllNode* node, SllNode* next) {
  if (next == &list->head) {
    list->tail = prev;
  }
  prev->next = next;
  node->next = nullptr;
  --list->count;
}

void SLL_Insert(SllList* list, SllNode* prev, SllNode* node) {
  SllNode* before = orHeader(list, prev);
  SLL_Insert_In_Middle(list, before, node, before->next);
}

SllNode* SLL_Previous(const SllList* list, const SllNode* node) {
  if (list->count == 0) {
    return nullptr;
  }
  if (node == nullptr) {
    return list->tail;
  }
  if (list->head.next == node) {
    return nullptr;
  }
  for (SllNode* before = list->head.next; before != list->tail; before = before->next) {
    if (before->next == node) {
      return before;
    }
  }
  return nullptr;
}

void SLL_Delete(SllList* list, SllNode* node) {
  if (node->next != nullptr) {
    SLL_Delete_In_Middle(list, orHeader(list, SLL_Previous(list, node)), node, node->next);
  }
}

SllNode* SLL_Get(SllList* list) {
  if (list->count == 0) {
    return nullptr;
  }
  SllNode* first = list->head.next;
  SLL_Delete_In_Middle(list, &list->head, first, first->next);
  return first;
}

void SLL_FreeAll(SllList* list, SllVisit release) {
  releaseNodes<SllNode>(list, release);
  list->head.next = &list->head;
  list->tail = &list->head;
  list->count = 0;
}

uint32_t SLL_Walk(const SllList* list, SllVisit visit) { return walk<SllNode>(list, visit); }

}  // extern "C"
