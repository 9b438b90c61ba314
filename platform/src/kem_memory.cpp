// Stands in for KEM handles and memory: numbered handles, and blocks from the heap with an account
// for each handle, partition and place of allocation. What is freed must be a live block: anything
// else is left alone and said to be wrong, in the log and in the mistake box.
#include <qurnadapt/legacy_memory.h>
#include <qurnadapt/platform.h>
#include <tovplatform/stand_in.h>

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <tuple>
#include <unordered_map>
#include <utility>
#include <vector>

#include "common/fork_mutex.h"

namespace {

constexpr uint32_t kMistakeBox = 3;

struct Module {
  std::string name;
  bool live = true;
};

struct Account {
  uint64_t blocks = 0;
  uint64_t bytes = 0;
};

// Who is charged. Accounts own the file's name, look-ups only see it.
template <typename Text>
struct ChargeOf {
  uint32_t handleId;
  uint8_t partition;
  Text file;
  uint32_t line;
};
using Charge = ChargeOf<std::string>;
using ChargeView = ChargeOf<std::string_view>;

struct InOrder {
  using is_transparent = void;
  template <typename One, typename Other>
  bool operator()(const ChargeOf<One>& one, const ChargeOf<Other>& other) const {
    return key(one) < key(other);
  }

 private:
  template <typename Text>
  static auto key(const ChargeOf<Text>& charge) {
    return std::tuple<uint32_t, uint8_t, std::string_view, uint32_t>(
        charge.handleId, charge.partition, charge.file, charge.line);
  }
};
using Accounts = std::map<Charge, Account, InOrder>;

struct Block {
  size_t bytes;
  Account* account;
};

// Where a block was freed, so that freeing it again can be told from freeing what never was one.
struct Freed {
  const void* block;
  std::array<char, 48> file;
  uint32_t line;
};

struct Books {
  qurn::ForkMutex mutex;
  std::map<uint32_t, Module> modules;
  uint32_t lastHandle = 0;
  Accounts accounts;
  std::unordered_map<const void*, Block> blocks;
  std::array<Freed, 256> freed{};
  size_t nextFreed = 0;
};

// Never destroyed: components may free memory while the process ends.
Books& books() {
  static auto* const instance = new Books;
  return *instance;
}

__attribute__((constructor)) void watchForks() noexcept {
  qurn::holdAcrossFork<[]() -> qurn::ForkMutex& { return books().mutex; }>();
}

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
  LOG_InnerPrint(0, kUnit, sizeof(kUnit) - 1, "<unknown>", 9, __LINE__, TOV_LOG_ERROR, "%s",
                 text.data());
  TovStandInBoxWrite(kMistakeBox, text.data());
}

// ---- with the lock held

// Ids that were never given out may be charged, as components have fixed ones of their own.
bool canBeCharged(const Books& all, uint32_t handleId) {
  const auto module = all.modules.find(handleId);
  return handleId <= ZOT_RAW_HANDLE_LIMIT && (module == all.modules.end() || module->second.live);
}

std::string nameOf(const Books& all, uint32_t handleId) {
  const auto module = all.modules.find(handleId);
  if (module == all.modules.end()) {
    return "-";
  }
  return module->second.name + (module->second.live ? "" : ", finalised");
}

Account& accountOf(Books& all, const ChargeView& charge) {
  auto found = all.accounts.find(charge);
  if (found == all.accounts.end()) {
    const auto& [handleId, partition, file, line] = charge;
    found =
        all.accounts.emplace(Charge{handleId, partition, std::string(file), line}, Account{}).first;
  }
  return found->second;
}

Account heldBy(const Books& all, uint32_t handleId) {
  Account sum;
  for (const auto& [charge, account] : all.accounts) {
    if (handleId == TOV_STAND_IN_ALL_HANDLES || charge.handleId == handleId) {
      sum.blocks += account.blocks;
      sum.bytes += account.bytes;
    }
  }
  return sum;
}

void enter(Books& all, const void* block, size_t bytes, const ChargeView& charge) {
  Account& account = accountOf(all, charge);
  all.blocks.emplace(block, Block{bytes, &account});
  ++account.blocks;
  account.bytes += bytes;
}

// Returns false when the block is not a live one.
bool strike(Books& all, const void* block, const char* file, uint32_t line) {
  const auto found = all.blocks.find(block);
  if (found == all.blocks.end()) {
    return false;
  }
  Account& account = *found->second.account;
  --account.blocks;
  account.bytes -= found->second.bytes;
  all.blocks.erase(found);
  Freed& freed = all.freed[all.nextFreed++ % all.freed.size()];
  freed.block = block;
  freed.line = line;
  std::snprintf(freed.file.data(), freed.file.size(), "%s", file);
  return true;
}

// The latest time that it was freed, with a null block when that is not known.
Freed whereFreed(const Books& all, const void* block) {
  for (size_t i = 1; i <= all.freed.size() && i <= all.nextFreed; ++i) {
    const Freed& freed = all.freed[(all.nextFreed - i) % all.freed.size()];
    if (freed.block == block) {
      return freed;
    }
  }
  return {};
}

// ---- of the calls

struct Finalisation {
  bool known;
  std::string name;
  Account held;
};

Finalisation finalise(uint32_t handleId) {
  Books& all = books();
  const std::lock_guard lock(all.mutex);
  const auto module = all.modules.find(handleId);
  if (module == all.modules.end() || !module->second.live) {
    return {false, nameOf(all, handleId), {}};
  }
  module->second.live = false;
  return {true, module->second.name, heldBy(all, handleId)};
}

std::vector<std::string> accountLines() {
  Books& all = books();
  const std::lock_guard lock(all.mutex);
  std::vector<std::string> lines;
  for (const auto& [charge, account] : all.accounts) {
    if (account.blocks != 0) {
      const auto& [handleId, partition, file, line] = charge;
      lines.push_back("handle " + std::to_string(handleId) + " (" + nameOf(all, handleId) +
                      "), partition " + std::to_string(partition) + ", " + file + ":" +
                      std::to_string(line) + ": " + std::to_string(account.blocks) + " blocks, " +
                      std::to_string(account.bytes) + " bytes");
    }
  }
  return lines;
}

}  // namespace

extern "C" {

uint32_t KEM_HandleInitialize(const char* name, uint32_t* handleId) {
  if (name == nullptr || handleId == nullptr) {
    return QURN_FAILED;
  }
  Books& all = books();
  const std::lock_guard lock(all.mutex);
  if (all.lastHandle == ZOT_RAW_HANDLE_LIMIT) {
    return QURN_FAILED;
  }
  try {
    all.modules.emplace(all.lastHandle + 1, Module{name});
  } catch (const std::bad_alloc&) {
    return QURN_FAILED;
  }
  *handleId = ++all.lastHandle;
  return QURN_OK;
}

uint32_t KEM_HandleFinalize(uint32_t handleId) {
  const auto [known, name, held] = finalise(handleId);
  if (!known) {
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
  Books& all = books();
  {
    const std::lock_guard lock(all.mutex);
    if (canBeCharged(all, handleId)) {
      void* block = malloc(size);
      try {
        if (block != nullptr) {
          enter(all, block, size, {handleId, partition, textOr(file, "-"), line});
        }
        return block;
      } catch (const std::bad_alloc&) {
        free(block);
        return nullptr;
      }
    }
  }
  complain("Handle %u cannot be charged with %zu bytes at %s:%u.", handleId, size,
           textOr(file, "-"), line);
  return nullptr;
}

uint32_t KEM_MemFree_F(uint32_t /*handleId*/, void* block, const char* file, uint32_t line) {
  if (block == nullptr) {
    return QURN_OK;
  }
  const char* place = textOr(file, "-");
  Books& all = books();
  Freed before{};
  {
    const std::lock_guard lock(all.mutex);
    if (strike(all, block, place, line)) {
      free(block);
      return QURN_OK;
    }
    before = whereFreed(all, block);
  }
  if (before.block != nullptr) {
    complain("Block %p is freed twice: at %s:%u, and before at %s:%u.", block, place, line,
             before.file.data(), before.line);
  } else {
    complain("Block %p, freed at %s:%u, was never allocated here.", block, place, line);
  }
  return QURN_FAILED;
}

void TovStandInMemoryHeld(uint32_t handleId, uint64_t* blocks, uint64_t* bytes) {
  Books& all = books();
  const std::lock_guard lock(all.mutex);
  const Account held = heldBy(all, handleId);
  *blocks = held.blocks;
  *bytes = held.bytes;
}

void TovStandInMemoryPrint(KemPrintHook print) {
  for (const std::string& line : accountLines()) {
    print(line.c_str());
  }
}

}  // extern "C"
