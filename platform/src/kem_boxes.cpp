// Stands in for KEM box regions and output hooks: a few numbered regions of short text records,
// kept in fixed memory. Hooks are called without the lock, so they may log or write records
// themselves.
#include <qurnadapt/platform.h>
#include <tovplatform/stand_in.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <mutex>

#include "common/fork_mutex.h"

namespace {

constexpr uint32_t kRegions = 8;
constexpr uint32_t kRecordsPerRegion = 20;

using Record = std::array<char, 128>;

struct Region {
  std::array<Record, kRecordsPerRegion> records;
  uint32_t written;  // ever; the newest kRecordsPerRegion are kept
};

constinit qurn::ForkMutex g_regionsMutex;
constinit std::array<Region, kRegions> g_regions{};
constinit std::atomic<KemPrintHook> g_printHook{nullptr};
constinit std::atomic<KemBoxRedirectHook> g_redirectHook{nullptr};

void print(const char* text) {
  const KemPrintHook hook = g_printHook;
  if (hook != nullptr) {
    hook(text);
  } else {
    std::fprintf(stderr, "%s\n", text);
  }
}

__attribute__((constructor)) void watchForks() noexcept {
  qurn::holdAcrossFork<[]() -> qurn::ForkMutex& { return g_regionsMutex; }>();
}

}  // namespace

extern "C" {

uint32_t KEM_HookPrint(KemPrintHook hook) {
  g_printHook = hook;
  return QURN_OK;
}

uint32_t KEM_BoxextRedirectHookReg(KemBoxRedirectHook hook) {
  g_redirectHook = hook;
  return QURN_OK;
}

uint32_t KEM_BoxextRecordShow(uint32_t region, uint32_t first, uint32_t count, uint32_t /*mask*/) {
  if (region >= kRegions) {
    return QURN_FAILED;
  }
  Region copy{};
  {
    const std::lock_guard lock(g_regionsMutex);
    copy = g_regions[region];
  }
  const uint32_t kept = std::min(copy.written, kRecordsPerRegion);
  const uint32_t end = first < kept ? first + std::min(count, kept - first) : first;
  for (uint32_t i = first; i < end; ++i) {
    print(copy.records[(copy.written - kept + i) % kRecordsPerRegion].data());
  }
  return QURN_OK;
}

uint32_t KEM_BoxextRegionClean(uint32_t region) {
  if (region >= kRegions) {
    return QURN_FAILED;
  }
  const std::lock_guard lock(g_regionsMutex);
  g_regions[region] = {};
  return QURN_OK;
}

uint32_t TovStandInBoxWrite(uint32_t region, const char* text) {
  if (region >= kRegions || text == nullptr) {
    return QURN_FAILED;
  }
  if (const KemBoxRedirectHook hook = g_redirectHook; hook != nullptr) {
    hook(nullptr, text);
  }
  const std::lock_guard lock(g_regionsMutex);
  Record& record = g_regions[region].records[g_regions[region].written % kRecordsPerRegion];
  std::snprintf(record.data(), record.size(), "%s", text);
  ++g_regions[region].written;
  return QURN_OK;
}

}  // extern "C"
