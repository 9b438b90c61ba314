#include "memory_accounts.h"

#include <pthread.h>
#include <qurnadapt/legacy_memory.h>
#include <tovplatform/stand_in.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <map>
#include <mutex>
#include <new>
#include <set>
#include <string_view>
#include <tuple>
#include <utility>

#include "common/fork_mutex.h"
#include "live_blocks.h"

namespace tov {

struct Module;

// Who is charged. Texts of places are kept once and for good, so that their addresses tell them.
struct Charge {
  uint64_t payer;  // handle and partition
  const char* file;
  uint32_t line;

  bool operator==(const Charge&) const = default;
};

struct Account {
  Charge charge;
  const Module& module;
  Share* shares;
};

struct Module {
  std::string name = "-";
  bool isGiven = false;  // components have fixed ids of their own, too
  std::atomic<bool> isLive{true};
  std::map<std::tuple<uint8_t, std::string_view, uint32_t>, Account> accounts;
};

namespace {

// The texts that a thread has used of late, by where it found them.
class KnownTexts {
 public:
  // Null when it is not among them: what is found at an address may change.
  [[nodiscard]] const char* find(const char* text) const noexcept {
    const Known& known = known_[placeOf(text)];
    return known.found == text && std::strcmp(known.kept, text) == 0 ? known.kept : nullptr;
  }
  void add(const char* text, const char* kept) noexcept { known_[placeOf(text)] = {text, kept}; }

 private:
  struct Known {
    const char* found;
    const char* kept;
  };
  static size_t placeOf(const char* text) noexcept;

  std::array<Known, 256> known_{};
};

// A thread's shares by what is charged, in a table with open addresses.
class Shares {
 public:
  // Where the share is, or null.
  Share*& operator[](const Charge& charge) noexcept;
  void makeRoom();  // for one more

 private:
  std::vector<Share*> table_ = std::vector<Share*>(64);
  size_t used_ = 0;
};

}  // namespace

struct ThreadRecords {
  FreerId number = kNobody;
  KnownTexts texts;
  Shares shares;
  FreedBlocks freed;
};

namespace {

struct Books {
  Books() noexcept;

  qurn::ForkMutex mutex;
  std::set<std::string, std::less<>> texts;
  std::map<uint32_t, Module> modules;
  uint32_t lastHandle = 0;
  std::vector<ThreadRecords*> threads;
  std::vector<ThreadRecords*> left;  // by threads that have ended
  pthread_key_t threadEnd{};
  bool seesThreadsEnd;  // otherwise each thread's records stay its own
};

// Never destroyed: components may free memory while the process ends.
Books& books() {
  static auto* const instance = new Books;
  return *instance;
}

// Null until its first call.
[[gnu::tls_model("initial-exec")]] constinit thread_local ThreadRecords* t_own = nullptr;

// What ends after this may begin anew; the thread's end then comes here once more.
void leaveRecords(void* own) noexcept {
  const std::lock_guard lock(books().mutex);
  books().left.push_back(static_cast<ThreadRecords*>(own));  // room was made for all
  t_own = nullptr;
}

Books::Books() noexcept : seesThreadsEnd(pthread_key_create(&threadEnd, leaveRecords) == 0) {}

__attribute__((constructor)) void watchForks() noexcept {
  qurn::holdAcrossFork<[]() -> qurn::ForkMutex& { return books().mutex; }>();
}

// Threads that outlive the library do not come back to it.
__attribute__((destructor)) void unwatchThreads() noexcept {
  if (std::exchange(books().seesThreadsEnd, false)) {
    pthread_key_delete(books().threadEnd);
  }
}

constexpr size_t hashOf(uint64_t key) noexcept {
  constexpr uint64_t kGoldenRatio = 0x9E3779B97F4A7C15U;
  constexpr int kHashBits = 32;
  return (key * kGoldenRatio) >> kHashBits;
}

// ---- what only the thread writes

size_t KnownTexts::placeOf(const char* text) noexcept {
  return hashOf(reinterpret_cast<uintptr_t>(text)) % std::tuple_size_v<decltype(known_)>;
}

inline Share*& Shares::operator[](const Charge& charge) noexcept {
  const size_t mask = table_.size() - 1;
  for (size_t i = hashOf(charge.payer ^ uint64_t{charge.line} << 16U);; ++i) {
    Share*& share = table_[i & mask];
    if (share == nullptr || share->account->charge == charge) {
      return share;
    }
  }
}

void Shares::makeRoom() {
  if (2 * ++used_ <= table_.size()) {
    return;
  }
  std::vector<Share*> before(2 * table_.size());
  before.swap(table_);
  for (Share* share : before) {
    if (share != nullptr) {
      (*this)[share->account->charge] = share;
    }
  }
}

// ---- with the lock held

// What others have freed is read first: what they freed is then seen to have been allocated.
Held heldBy(const Account& account) noexcept {
  Held held;
  for (const Share* share = account.shares; share != nullptr; share = share->nextOfAccount) {
    held.blocks -= share->freedBlocks.load(std::memory_order_acquire);
    held.bytes -= share->freedBytes.load(std::memory_order_acquire);
  }
  for (const Share* share = account.shares; share != nullptr; share = share->nextOfAccount) {
    held.blocks += share->blocks.load(std::memory_order_relaxed);
    held.bytes += share->bytes.load(std::memory_order_relaxed);
  }
  return held;
}

Held heldBy(const Module& module) noexcept {
  Held sum;
  for (const auto& [place, account] : module.accounts) {
    const Held held = heldBy(account);
    sum.blocks += held.blocks;
    sum.bytes += held.bytes;
  }
  return sum;
}

std::string nameOf(const Module& module) {
  return module.name + (module.isLive ? "" : ", finalised");
}

void makeRecords(Books& all) {
  all.threads.reserve(all.threads.size() + 1);
  all.left.reserve(all.threads.size() + 1);
  auto* made = new ThreadRecords;
  made->number = static_cast<FreerId>(all.threads.size() % kMostFreers + 1);
  all.threads.push_back(made);
  all.left.push_back(made);
}

ThreadRecords& takeRecords(Books& all) {
  if (all.left.empty()) {
    makeRecords(all);
  }
  t_own = all.left.back();
  all.left.pop_back();
  if (all.seesThreadsEnd) {
    pthread_setspecific(all.threadEnd, t_own);
  }
  return *t_own;
}

Account& accountOf(Module& module, const Charge& charge) {
  const auto partition = static_cast<uint8_t>(charge.payer);
  return module.accounts
      .try_emplace({partition, charge.file, charge.line}, Account{charge, module, nullptr})
      .first->second;
}

Share* addShare(ThreadRecords& own, Account& account) {
  auto* share = new Share{&account, &own, account.shares, 0, 0, 0, 0};
  account.shares = share;
  own.shares[account.charge] = share;
  return share;
}

// ---- of the calls

[[gnu::cold, gnu::noinline]] ThreadRecords& beginRecords() {
  const std::lock_guard lock(books().mutex);
  return takeRecords(books());
}

inline ThreadRecords& ownRecords() { return t_own != nullptr ? *t_own : beginRecords(); }

[[gnu::cold, gnu::noinline]] const char* keep(KnownTexts& texts, const char* text) {
  Books& all = books();
  const std::lock_guard lock(all.mutex);
  const auto found = all.texts.find(std::string_view(text));
  const char* kept = (found != all.texts.end() ? found : all.texts.emplace(text).first)->c_str();
  texts.add(text, kept);
  return kept;
}

inline const char* keptText(ThreadRecords& own, const char* text) {
  const char* known = own.texts.find(text);
  return known != nullptr ? known : keep(own.texts, text);
}

[[gnu::cold, gnu::noinline]] Share* openShare(ThreadRecords& own, uint32_t handleId,
                                              const Charge& charge) {
  Books& all = books();
  const std::lock_guard lock(all.mutex);
  if (handleId > ZOT_RAW_HANDLE_LIMIT) {
    return nullptr;
  }
  Module& module = all.modules.try_emplace(handleId).first->second;
  if (!module.isLive) {
    return nullptr;
  }
  Account& account = accountOf(module, charge);
  own.shares.makeRoom();
  return addShare(own, account);
}

}  // namespace

Share* shareOf(uint32_t handleId, uint8_t partition, const char* file, uint32_t line) {
  ThreadRecords& own = ownRecords();
  const Charge charge{uint64_t{handleId} << 8U | partition, keptText(own, file), line};
  Share* share = own.shares[charge];
  if (share == nullptr) {
    return openShare(own, handleId, charge);
  }
  return share->account->module.isLive.load(std::memory_order_acquire) ? share : nullptr;
}

void Share::strike(size_t size) noexcept {
  if (owner == t_own) {
    add(blocks, -uint64_t{1});
    add(bytes, -uint64_t{size});
  } else {
    freedBlocks.fetch_add(1, std::memory_order_release);
    freedBytes.fetch_add(size, std::memory_order_release);
  }
}

// The place is written first, as others may ask as soon as the block counts as freed.
bool markFreedAt(uintptr_t block, const char* file, uint32_t line) noexcept {
  try {
    ThreadRecords& own = ownRecords();
    own.freed.add(block, {keptText(own, file), line});
    const bool wasLive = markFreed(block, own.number);
    if (!wasLive) {
      own.freed.takeBack();
    }
    return wasLive;
  } catch (const std::bad_alloc&) {
    return markFreed(block, kNobody);
  }
}

bool findFreed(uintptr_t block, FreedPlace& place) noexcept {
  const FreerId freer = freerOf(block);
  const std::lock_guard lock(books().mutex);
  const auto& threads = books().threads;
  return std::any_of(threads.begin(), threads.end(), [&](const ThreadRecords* thread) {
    return thread->number == freer && thread->freed.find(block, place);
  });
}

bool giveHandle(const char* name, uint32_t& handleId) noexcept {
  Books& all = books();
  const std::lock_guard lock(all.mutex);
  if (name == nullptr || all.lastHandle == ZOT_RAW_HANDLE_LIMIT) {
    return false;
  }
  try {
    std::string own = name;
    Module& module = all.modules[all.lastHandle + 1];
    module.name = std::move(own);
    module.isGiven = true;
  } catch (const std::bad_alloc&) {
    return false;
  }
  handleId = ++all.lastHandle;
  return true;
}

Finalisation finaliseHandle(uint32_t handleId) {
  Books& all = books();
  const std::lock_guard lock(all.mutex);
  const auto found = all.modules.find(handleId);
  if (found == all.modules.end()) {
    return {false, "-", {}};
  }
  Module& module = found->second;
  if (!module.isGiven || !module.isLive) {
    return {false, nameOf(module), {}};
  }
  module.isLive = false;
  return {true, module.name, heldBy(module)};
}

Held heldBy(uint32_t handleId) {
  Books& all = books();
  const std::lock_guard lock(all.mutex);
  Held sum;
  for (const auto& [id, module] : all.modules) {
    if (handleId == TOV_STAND_IN_ALL_HANDLES || id == handleId) {
      const Held held = heldBy(module);
      sum.blocks += held.blocks;
      sum.bytes += held.bytes;
    }
  }
  return sum;
}

std::vector<std::string> accountLines() {
  Books& all = books();
  const std::lock_guard lock(all.mutex);
  std::vector<std::string> lines;
  for (const auto& [id, module] : all.modules) {
    for (const auto& [place, account] : module.accounts) {
      if (const Held held = heldBy(account); held.blocks != 0) {
        const auto& [partition, file, line] = place;
        lines.push_back("handle " + std::to_string(id) + " (" + nameOf(module) + "), partition " +
                        std::to_string(partition) + ", " + std::string(file) + ":" +
                        std::to_string(line) + ": " + std::to_string(held.blocks) + " blocks, " +
                        std::to_string(held.bytes) + " bytes");
      }
    }
  }
  return lines;
}

}  // namespace tov
