// A pointer stack: a chain of small nodes from the framework's allocator.
#include <qurnadapt/platform.h>
#include <qurnadapt/pointer_stack.h>

namespace {

constexpr char kUnit[] = "build/src/ose/util/u_stack/CMakeFiles/tovstack.dir/src/tov_stack";

void* allocate(size_t size) noexcept { return TOV_MemAllocF(size, kUnit, __LINE__, 0); }
void release(void* block) noexcept { TOV_MemFreeF(block, kUnit, __LINE__, 0); }

}  // namespace

extern "C" {

RpmStack* RPM_CreateStack(void) {
  auto* stack = static_cast<RpmStack*>(allocate(sizeof(RpmStack)));
  if (stack != nullptr) {
    stack->top = nullptr;
  }
  return stack;
}

uint32_t RPM_IsStackEmpty(const RpmStack* stack) { return stack->top == nullptr ? 1 : 0; }

uint32_t RPM_PushStack(RpmStack* stack, uintptr_t element) {
  auto* node = static_cast<RpmStackNode*>(allocate(sizeof(RpmStackNode)));
  if (node == nullptr) {
    return QURN_FAILED;
  }
  *node = {element, stack->top};
  stack->top = node;
  return QURN_OK;
}

uint32_t RPM_PopStack(RpmStack* stack, uintptr_t* out) {
  RpmStackNode* node = stack->top;
  if (node == nullptr) {
    return QURN_FAILED;
  }
  *out = node->element;
  stack->top = node->next;
  release(node);
  return QURN_OK;
}

uint32_t RPM_GetStackTopElement(const RpmStack* stack, uintptr_t* out) {
  if (stack->top == nullptr) {
    return QURN_FAILED;
  }
  *out = stack->top->element;
  return QURN_OK;
}

void RPM_DestroyStack(RpmStack* stack) {
  if (stack == nullptr) {
    return;
  }
  uintptr_t element = 0;
  while (RPM_PopStack(stack, &element) == QURN_OK) {
    release(reinterpret_cast<void*>(element));
  }
  release(stack);
}

}  // extern "C"
