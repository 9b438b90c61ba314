// Operations of the handle table against the model.
#include <qurnadapt/platform.h>

#include "../support/handle_table_model.h"
#include "../support/interpose.h"
#include "fuzz_target.h"

static bool g_allocationsFail = false;

INTERPOSE(
    void*, KEM_MemAlloc_F,
    (uint32_t handleId, uint8_t partition, uintptr_t size, const char* file, uint32_t line),
    (handleId, partition, size, file, line), if (g_allocationsFail) { return nullptr; })

// An operation is a byte and the choice of a handle; repeats make pages fill up and run empty.
void tryInput(Bytes bytes) {
  const uint32_t generationBits = 2 + bytes.number(1) % 7;
  const uint32_t pageBits = 3 + bytes.number(1) % 10;
  nbb_handle_initialize();
  TableBesideModel both(generationBits, pageBits, [](bool fail) { g_allocationsFail = fail; });
  for (uint32_t step = 0; !bytes.empty() && step < 2000; ++step) {
    const uint32_t code = bytes.number(1);
    const uint32_t repeats = code < 128 ? 1 : 1U << (code % 11);
    const uint32_t choice = bytes.number(4);
    for (uint32_t i = 0; i < repeats; ++i) {
      assert(both.operate(code % 5, choice + i, code % 13 == 0));
    }
  }
  nbb_handle_table_terminate(&both.table);
}
