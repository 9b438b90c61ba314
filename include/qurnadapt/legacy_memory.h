/* Legacy module handles, and memory tagged with a handle and the place of the call.
 *
 * A handle value is one pointer-sized number: up to ZOT_RAW_HANDLE_LIMIT it is a raw KEM handle id,
 * above it the address of a ZotHandleRecord that ZOT_HandleInitialize made. Calls are thread-safe;
 * a record must not be in use by another thread while it is finalised. */
#ifndef QURNADAPT_LEGACY_MEMORY_H
#define QURNADAPT_LEGACY_MEMORY_H

#include <qurnadapt/api.h>
#include <stdint.h>

QURN_BEGIN_DECLS

/* The largest raw handle id. */
#define ZOT_RAW_HANDLE_LIMIT 0x04048000U

/* What a module handle points to. The library's: valid until ZOT_HandleFinalize. */
typedef struct ZotHandleRecord {
  struct ZotHandleRecord* self; /* This record's own address, while it is live. */
  uint32_t kemHandle;           /* The KEM layer's id of the module. */
} ZotHandleRecord;

/* Memory partitions of the legacy interface: 0, 1, 2, 3. The library charges what it allocates for
 * itself to the first. Read without a lock: change it before other threads run. */
QURN_API extern uint8_t g_aucZotMemPt[4];

/* The handle value under which handle records are allocated; null, as the library leaves it, stands
 * for raw id 0. Read without a lock: set it before other threads run. */
QURN_API extern void* g_pHandleBlock;

/* Registers a module under the name of its id in eight hexadecimal digits. Otherwise as
 * ZOT_HandleInitializeByName. */
QURN_API uint32_t ZOT_HandleInitialize(const void* ignored, uint32_t moduleId,
                                       ZotHandleRecord** out);

/* Registers a module with the KEM layer and stores its record, which the caller owns until
 * ZOT_HandleFinalize. Returns 0, or 0xFFFFFFFF with out untouched for a null argument, when the KEM
 * layer refuses the name, or without memory. */
QURN_API uint32_t ZOT_HandleInitializeByName(const char* name, ZotHandleRecord** out);

/* Gives the module's id back and frees its record. Returns 0, or 0xFFFFFFFF with nothing freed for
 * null, for what is no live record, or when the KEM layer refuses. */
QURN_API uint32_t ZOT_HandleFinalize(ZotHandleRecord* handle);

/* The KEM id behind a handle value, or 0xFFFFFFFF when it is neither a raw id nor a live record.
 * Any value may be asked for: memory that is no live record is not read. Takes no lock. */
QURN_API uint32_t ZOT_GetRelHandle(uintptr_t handle);

/* A block of size bytes, charged to the handle, the partition and the place of the call; null
 * without memory. The caller frees it with ZOT_Free_F. */
QURN_API void* ZOT_Malloc_F(uintptr_t handle, uint8_t partition, uintptr_t size, const char* file,
                            uint32_t line);

/* Frees a block of ZOT_Malloc_F; file and line say who did. Returns the KEM layer's result. */
QURN_API uint32_t ZOT_Free_F(void* block, const char* file, uint32_t line);

/* Returns 0 for 0 and 1, and 22 for any other value. Switches nothing. */
QURN_API uint32_t ZOT_MemCheckSwitch(uint32_t value);

QURN_END_DECLS

#endif
