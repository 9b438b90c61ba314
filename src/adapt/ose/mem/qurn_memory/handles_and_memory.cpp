// Legacy module handles and tagged memory, on those of the KEM layer. A handle is a small record
// around a KEM id. Callable from any thread.
#include <qurnadapt/legacy_memory.h>

#include <array>
#include <cstddef>

#include "internal/safe_strings.h"
#include "issued_records.h"
#include "memory_unit.h"

using namespace qurn::mem;

static_assert(offsetof(ZotHandleRecord, kemHandle) == 8 && sizeof(ZotHandleRecord) == 16);

constinit uint8_t g_aucZotMemPt[4] = {0, 1, 2, 3};
constinit void* g_pHandleBlock = nullptr;

namespace {

constinit IssuedRecords g_issued;

__attribute__((constructor)) void watchForks() noexcept {
  qurn::holdAcrossFork<[]() -> qurn::ForkMutex& { return g_issued.mutex(); }>();
}

// A zero-filled record that counts as issued, or null.
ZotHandleRecord* newRecord() noexcept {
  auto* record = static_cast<ZotHandleRecord*>(
      ZOT_Malloc_F(reinterpret_cast<uintptr_t>(g_pHandleBlock), g_aucZotMemPt[0],
                   sizeof(ZotHandleRecord), kBaseName, __LINE__));
  if (record == nullptr) {
    return nullptr;
  }
  memset_s(record, sizeof(*record), 0, sizeof(*record));
  if (!g_issued.add(reinterpret_cast<uintptr_t>(record))) {
    ZOT_Free_F(record, kBaseName, __LINE__);
    return nullptr;
  }
  return record;
}

}  // namespace

extern "C" {

uint32_t ZOT_GetRelHandle(uintptr_t handle) {
  if (handle <= ZOT_RAW_HANDLE_LIMIT) {
    return static_cast<uint32_t>(handle);
  }
  if (!g_issued.contains(handle)) {
    return QURN_FAILED;
  }
  const auto* record = reinterpret_cast<const ZotHandleRecord*>(handle);
  return record->self == record ? record->kemHandle : QURN_FAILED;
}

void* ZOT_Malloc_F(uintptr_t handle, uint8_t partition, uintptr_t size, const char* file,
                   uint32_t line) {
  return KEM_MemAlloc_F(ZOT_GetRelHandle(handle), partition, size, file, line);
}

// A record that its component frees itself, instead of finalising it, is no record any more.
uint32_t ZOT_Free_F(void* block, const char* file, uint32_t line) {
  if (const auto address = reinterpret_cast<uintptr_t>(block); g_issued.contains(address)) {
    g_issued.remove(address);
  }
  return KEM_MemFree_F(0, block, file, line);
}

uint32_t ZOT_HandleInitializeByName(const char* name, ZotHandleRecord** out) {
  if (out == nullptr || name == nullptr) {
    MEM_LOG(TOV_LOG_ERROR, "Get ZOT handle by name, input invalid.");
    return QURN_FAILED;
  }
  uint32_t kemHandle = 0;
  if (const uint32_t ret = KEM_HandleInitialize(name, &kemHandle); ret != QURN_OK) {
    MEM_LOG(TOV_LOG_ERROR, "Get ZOT handle by name, kelva handle init unsuccessfully. (ret = %#x)",
            ret);
    return QURN_FAILED;
  }
  ZotHandleRecord* record = newRecord();
  if (record == nullptr) {
    KEM_HandleFinalize(kemHandle);
    return QURN_FAILED;
  }
  record->kemHandle = kemHandle;
  record->self = record;
  *out = record;
  return QURN_OK;
}

uint32_t ZOT_HandleInitialize(const void* /*ignored*/, uint32_t moduleId, ZotHandleRecord** out) {
  if (out == nullptr) {
    MEM_LOG(TOV_LOG_ERROR, "pHandle NULL");
    return QURN_FAILED;
  }
  std::array<char, 32> name{};
  if (snprintf_s(name.data(), name.size(), "%08x", moduleId) < 0) {
    MEM_LOG(TOV_LOG_ERROR, "copy mod id unsuccessfully");
    return QURN_FAILED;
  }
  return ZOT_HandleInitializeByName(name.data(), out);
}

// What is no live record, for example one that has been finalised already, is refused unread.
uint32_t ZOT_HandleFinalize(ZotHandleRecord* handle) {
  if (handle == nullptr) {
    MEM_LOG(TOV_LOG_ERROR, "Para pstHandle is NULL.");
    return QURN_FAILED;
  }
  if (!g_issued.contains(reinterpret_cast<uintptr_t>(handle)) ||
      KEM_HandleFinalize(handle->kemHandle) != QURN_OK) {
    return QURN_FAILED;
  }
  ZOT_Free_F(handle, kBaseName, __LINE__);
  return QURN_OK;
}

uint32_t ZOT_MemCheckSwitch(uint32_t value) { return value <= 1 ? QURN_OK : QURN_INVALID_VALUE; }

}  // extern "C"
