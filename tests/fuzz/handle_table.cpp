// Operations of the handle table against the model.
#include <qurnadapt/platform.h>

#include "../support/handle_table_model.h"
#include "fuzz_target.h"

namespace {

bool g_allocationsFail = false;

void* pointer(uint32_t number) {
  return reinterpret_cast<void*>((uint64_t{number} << 4U) + 0x1000);
}

}  // namespace

extern "C" void* KEM_MemAlloc_F(uint32_t /*handleId*/, uint8_t /*partition*/, uintptr_t size,
                                const char* /*file*/, uint32_t /*line*/) {
  return g_allocationsFail ? nullptr : std::malloc(size);
}

extern "C" uint32_t KEM_MemFree_F(uint32_t /*handleId*/, void* block, const char* /*file*/,
                                  uint32_t /*line*/) {
  std::free(block);
  return QURN_OK;
}

// An operation is a byte, and a page, a slot and a generation where it needs a handle. Repeats make
// pages fill up and run empty.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Bytes bytes(data, size);
  const uint32_t generationBits = 2 + bytes.number(1) % 7;
  const uint32_t pageBits = 3 + bytes.number(1) % 10;
  nbb_handle_initialize();
  NbbHndTbl table;
  DEMAND(nbb_handle_table_initialize(&table, 24 - generationBits - pageBits, generationBits, 8,
                                     pageBits) != 0);
  HandleTableModel model(generationBits, pageBits);
  for (uint32_t step = 1; !bytes.empty() && step < 2000; ++step) {
    const uint32_t operation = bytes.number(1);
    const uint32_t repeats = operation < 128 ? 1 : 1U << (operation % 11);
    g_allocationsFail = operation % 13 == 0;
    g_allocationsFail ? model.failNextPage() : model.pagesSucceed();
    const uint32_t page = bytes.number(1) % (1U << pageBits);
    const uint32_t slot = bytes.number(1);
    const uint32_t generation = bytes.number(1) % (1U << generationBits);
    for (uint32_t i = 0; i < repeats; ++i) {
      const uint32_t handle = model.compose(page, (slot + i) % 256, generation);
      switch (operation % 5) {
        case 0:
          DEMAND(nbb_create_handle_in_table(&table, pointer(step)) == model.create(pointer(step)));
          break;
        case 1:
          DEMAND(nbb_assign_handle_in_table(&table, handle, pointer(step)) ==
                 model.assign(handle, pointer(step)));
          break;
        case 2:
          nbb_modify_handle_in_table(&table, handle, pointer(step));
          model.modify(handle, pointer(step));
          break;
        case 3:
          nbb_destroy_handle_in_table(&table, handle);
          model.destroy(handle);
          break;
        default:
          DEMAND(nbb_validate_handle_in_table(&table, handle) == model.validate(handle));
      }
    }
    DEMAND(model.differenceFrom(table, false).empty());
  }
  g_allocationsFail = false;
  DEMAND(model.differenceFrom(table, true).empty());
  nbb_handle_table_terminate(&table);
  return 0;
}
