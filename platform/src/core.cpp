// Stands in for the framework core: parameters from the environment, memory from the heap.
#include <qurnadapt/platform.h>

#include <cstdlib>

extern "C" {

const char* FrameParamGet(uint32_t id) {
  const char* path = id == CF_COMP_CFG ? getenv("TOV_COMP_CFG") : nullptr;
  return path == nullptr || *path == '\0' ? nullptr : path;
}

// The framework decides here whether the process should end; the stand-in never asks it to.
uint32_t FrameTriggerCheckExit(void) { return 0; }

void* TOV_MemAllocF(size_t size, const char* /*file*/, uint32_t /*line*/, uint32_t /*reserved*/) {
  return malloc(size);
}

void TOV_MemFreeF(void* block, const char* /*file*/, uint32_t /*line*/, uint32_t /*reserved*/) {
  free(block);
}

}  // extern "C"
