// Stands in for KEM handles and memory: numbered handles, and blocks from the heap with an account
// for each handle, partition and place of allocation. What is freed must be a live block: anything
// else is left alone and said to be wrong, in the log and in the mistake box.
#include <qurnadapt/platform.h>
#include <tovplatform/stand_in.h>

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <new>

#include "common/unit_log.h"
#include "live_blocks.h"
#include "memory_accounts.h"

namespace {

constexpr uint32_t kMistakeBox = 3;

// Stands before a block, which must be known to be live before this is read.
struct alignas(std::max_align_t) Header {
  tov::Share* share;
  size_t bytes;
};

const char* textOr(const char* text, const char* otherwise) {
  return text == nullptr ? otherwise : text;
}

// Called without the books' lock, as a hook of the log or the box may allocate.
__attribute__((format(printf, 1, 2))) void complain(const char* format, ...) {
  std::array<char, 256> text{};
  va_list args;
  va_start(args, format);
  std::vsnprintf(text.data(), text.size(), format, args);
  va_end(args);
  static constexpr char kUnit[] = "kem_memory";
  QURN_LOG_AS(LOG_InnerPrint, kUnit, TOV_LOG_ERROR, "%s", text.data());
  TovStandInBoxWrite(kMistakeBox, text.data());
}

// The block behind a new header, or null.
void* allocate(tov::Share& share, size_t bytes) noexcept {
  if (bytes > std::numeric_limits<size_t>::max() - sizeof(Header)) {
    return nullptr;
  }
  auto* header = static_cast<Header*>(malloc(sizeof(Header) + bytes));
  if (header == nullptr) {
    return nullptr;
  }
  *header = {&share, bytes};
  void* block = header + 1;
  if (!tov::markLive(reinterpret_cast<uintptr_t>(block))) {
    free(header);
    return nullptr;
  }
  share.enter(bytes);
  return block;
}

// Returns false, with nothing changed, when the block is not a live one.
bool release(void* block, const char* file, uint32_t line) noexcept {
  if (!tov::markFreedAt(reinterpret_cast<uintptr_t>(block), file, line)) {
    return false;
  }
  Header* header = static_cast<Header*>(block) - 1;
  header->share->strike(header->bytes);
  free(header);
  return true;
}

[[gnu::cold, gnu::noinline]] void complainOfFree(void* block, const char* file, uint32_t line) {
  tov::FreedPlace before{};
  if (tov::findFreed(reinterpret_cast<uintptr_t>(block), before)) {
    complain("Block %p is freed twice: at %s:%u, and before at %s:%u.", block, file, line,
             before.file, before.line);
  } else {
    complain("Block %p, freed at %s:%u, was never allocated here.", block, file, line);
  }
}

}  // namespace

extern "C" {

uint32_t KEM_HandleInitialize(const char* name, uint32_t* handleId) {
  return handleId != nullptr && tov::giveHandle(name, *handleId) ? QURN_OK : QURN_FAILED;
}

uint32_t KEM_HandleFinalize(uint32_t handleId) {
  const auto [isKnown, name, held] = tov::finaliseHandle(handleId);
  if (!isKnown) {
    complain("Handle %u (%s) is not a live one.", handleId, name.c_str());
    return QURN_FAILED;
  }
  if (held.blocks != 0) {
    complain("Handle %u (%s) is finalised and still holds %llu blocks, %llu bytes.", handleId,
             name.c_str(), static_cast<unsigned long long>(held.blocks),
             static_cast<unsigned long long>(held.bytes));
  }
  return QURN_OK;
}

void* KEM_MemAlloc_F(uint32_t handleId, uint8_t partition, uintptr_t size, const char* file,
                     uint32_t line) {
  const char* place = textOr(file, "-");
  try {
    if (tov::Share* share = tov::shareOf(handleId, partition, place, line); share != nullptr) {
      return allocate(*share, size);
    }
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
  complain("Handle %u cannot be charged with %zu bytes at %s:%u.", handleId, size, place, line);
  return nullptr;
}

uint32_t KEM_MemFree_F(uint32_t /*handleId*/, void* block, const char* file, uint32_t line) {
  const char* place = textOr(file, "-");
  if (block == nullptr || release(block, place, line)) {
    return QURN_OK;
  }
  complainOfFree(block, place, line);
  return QURN_FAILED;
}

void TovStandInMemoryHeld(uint32_t handleId, uint64_t* blocks, uint64_t* bytes) {
  const tov::Held held = tov::heldBy(handleId);
  *blocks = held.blocks;
  *bytes = held.bytes;
}

void TovStandInMemoryPrint(KemPrintHook print) {
  for (const std::string& line : tov::accountLines()) {
    print(line.c_str());
  }
}

}  // extern "C"
