// Stands in for KEM handles and memory: numbered handles, blocks from the heap.
#include <qurnadapt/platform.h>

#include <atomic>
#include <cstdlib>

namespace {
constinit std::atomic<uint32_t> g_lastHandle{0};
}

extern "C" {

uint32_t KEM_HandleInitialize(const char* name, uint32_t* handleId) {
  if (name == nullptr || handleId == nullptr) {
    return QURN_FAILED;
  }
  *handleId = ++g_lastHandle;
  return QURN_OK;
}

uint32_t KEM_HandleFinalize(uint32_t handleId) {
  return handleId == 0 || handleId > g_lastHandle ? QURN_FAILED : QURN_OK;
}

void* KEM_MemAlloc_F(uint32_t /*handleId*/, uint8_t /*partition*/, uintptr_t size,
                     const char* /*file*/, uint32_t /*line*/) {
  return malloc(size);
}

uint32_t KEM_MemFree_F(uint32_t /*handleId*/, void* block, const char* /*file*/,
                       uint32_t /*line*/) {
  free(block);
  return QURN_OK;
}

}  // extern "C"
