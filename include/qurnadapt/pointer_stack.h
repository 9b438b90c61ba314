/* A last-in, first-out stack of pointer-sized elements. No locks: its owner serialises access. */
#ifndef QURNADAPT_POINTER_STACK_H
#define QURNADAPT_POINTER_STACK_H

#include <qurnadapt/api.h>
#include <stdint.h>

QURN_BEGIN_DECLS

/* One element of a stack; the library's own. */
typedef struct RpmStackNode {
  uintptr_t element;         /* The caller's pointer or number. */
  struct RpmStackNode* next; /* The node below, null at the bottom. */
} RpmStackNode;

/* A stack, made by RPM_CreateStack. */
typedef struct RpmStack {
  RpmStackNode* top; /* Null when the stack is empty. */
} RpmStack;

/* A new empty stack, ended by RPM_DestroyStack; null without memory. */
QURN_API RpmStack* RPM_CreateStack(void);
/* 1 when the stack is empty, else 0. */
QURN_API uint32_t RPM_IsStackEmpty(const RpmStack* stack);
/* Puts element on top. Returns 0, or 0xFFFFFFFF without memory, the stack then unchanged. */
QURN_API uint32_t RPM_PushStack(RpmStack* stack, uintptr_t element);
/* Takes the top element off, which is the caller's again, and stores it through out. Returns 0, or
 * 0xFFFFFFFF with out untouched when the stack is empty. */
QURN_API uint32_t RPM_PopStack(RpmStack* stack, uintptr_t* out);
/* Stores the top element through out and leaves it there. Returns as RPM_PopStack. */
QURN_API uint32_t RPM_GetStackTopElement(const RpmStack* stack, uintptr_t* out);
/* Frees the stack and every element left on it, each of which must be null or a block of
 * TOV_MemAllocF. stack may be null. */
QURN_API void RPM_DestroyStack(RpmStack* stack);

QURN_END_DECLS

#endif
