#include "library.h"

#include <qurnadapt/capture.h>
#include <qurnadapt/monitor.h>

#include <algorithm>
#include <cstring>
#include <limits>

namespace qurn::inspect {
namespace {

using inspection::Record;

// More than the library has, in case it is made from a bigger one; and of all mappings together, of
// which a core may claim any number.
constexpr uint64_t kMostScannedBytes = uint64_t{64} << 20U;
constexpr uint64_t kMostScannedInAll = uint64_t{1} << 30U;
constexpr uint32_t kMostNodes = 4096;

uint64_t addressOf(const void* pointer) { return reinterpret_cast<uint64_t>(pointer); }

bool isLibrary(const std::string& path) {
  return path.find("libqurnadapt.so") != std::string::npos;
}

// A live process's memory that is no file's cannot have it, and may be large.
bool mayHaveRecord(const Target& target, const Mapping& mapping) {
  return mapping.isWritable && (target.isCore() || mapping.path.starts_with('/'));
}

// Looks through a piece of the process's memory, page by page, for the record's first bytes.
std::optional<Record> recordIn(const Target& target, const Mapping& mapping, uint64_t most) {
  constexpr size_t kPage = 4096;
  std::array<char, kPage + sizeof(Record)> page;  // NOLINT: filled by read
  const uint64_t end = mapping.start + most;
  for (uint64_t at = mapping.start; end - at >= kPage; at += kPage) {
    const bool hasNext = end - at >= page.size();
    const size_t bytes = hasNext ? page.size() : kPage;
    if (!target.read(at, page.data(), bytes)) {
      continue;
    }
    for (size_t i = 0; i + sizeof(Record) <= bytes && i < kPage; i += 8) {
      if (memcmp(page.data() + i, inspection::kMagic.data(), inspection::kMagic.size()) == 0) {
        Record record{};
        memcpy(&record, page.data() + i, sizeof(record));
        return record;
      }
    }
  }
  return std::nullopt;
}

void expectKnownLayout(const Record& record) {
  if (record.version != inspection::kVersion) {
    throw Mistake("the process's library has layout " + std::to_string(record.version) +
                  ", known is " + std::to_string(inspection::kVersion));
  }
  const auto& monitor = record.monitor;
  if (record.bytes != sizeof(Record) || monitor.nodeCount > kMostNodes ||
      monitor.info > monitor.nodeBytes ||
      monitor.nodeBytes - monitor.info < sizeof(FrameMonitorTaskInfo) ||
      monitor.nodeBytes > kMostNodes || record.process.nameBytes > kMostNodes) {
    throw Mistake("the library's record is damaged");
  }
}

std::string textIn(const char* bytes, size_t most) { return {bytes, strnlen(bytes, most)}; }

const char* nameOfStatus(uint32_t status) {
  switch (status) {
    case FRAME_DEADLOOP_STATUS_IDLE:
      return "idle";
    case FRAME_DEADLOOP_STATUS_SIGNALED:
      return "signalled";
    case FRAME_DEADLOOP_STATUS_CAPTURED:
      return "captured";
    default:
      return "unknown";
  }
}

bool isLater(const timespec& one, const timespec& other) { return msBetween(other, one) > 0; }

template <typename Visit>
void forEachNode(const Target& target, const Record& record, Visit visit) {
  const uint64_t first = addressOf(record.monitor.address) + record.monitor.nodes;
  for (uint64_t slot = 0; slot < record.monitor.nodeCount; ++slot) {
    const auto info = target.get<FrameMonitorTaskInfo>(first + slot * record.monitor.nodeBytes +
                                                       record.monitor.info);
    if (info && info->ucValid != 0) {
      visit(slot, *info);
    }
  }
}

bool isOwnId(const Target& target, pid_t pid) {
  if (target.isCore()) {
    return pid == target.pid();
  }
  const std::vector<pid_t> threads = target.threads();
  return std::find(threads.begin(), threads.end(), pid) != threads.end();
}

}  // namespace

int64_t msBetween(const timespec& from, const timespec& to) {
  using Wide = __int128;
  const Wide nanoseconds =
      (Wide{to.tv_sec} - from.tv_sec) * 1'000'000'000 + (Wide{to.tv_nsec} - from.tv_nsec);
  return static_cast<int64_t>(std::clamp<Wide>(nanoseconds / 1'000'000,
                                               std::numeric_limits<int64_t>::min(),
                                               std::numeric_limits<int64_t>::max()));
}

Library findLibrary(const Target& target) {
  Library library;
  std::vector<Mapping> mappings = target.mappings();
  for (const Mapping& mapping : mappings) {
    if (mapping.path.find("libtovplatform.so") != std::string::npos) {
      library.platform = mapping.path;
    }
  }
  // Where it most probably is first; it may also be linked into something else.
  std::stable_partition(mappings.begin(), mappings.end(),
                        [](const Mapping& one) { return isLibrary(one.path); });
  uint64_t left = kMostScannedInAll;
  for (const Mapping& mapping : mappings) {
    if (!mayHaveRecord(target, mapping)) {
      continue;
    }
    const uint64_t most = std::min({left, kMostScannedBytes, mapping.end - mapping.start});
    left -= most;
    if (const std::optional<Record> record = recordIn(target, mapping, most)) {
      expectKnownLayout(*record);
      library.record = *record;
      library.path = mapping.path;
      return library;
    }
  }
  throw Mistake("no libqurnadapt in the process");
}

bool isThere(const Target& target, const Library& library) {
  return target.get<char>(addressOf(library.record.monitor.address)).has_value();
}

Process readProcess(const Target& target, const Library& library, const timespec& now) {
  const Record& record = library.record;
  Process process;
  process.pid = target.pid();
  process.name = target.name();
  process.upMs = target.upMs();
  process.isCore = target.isCore();
  const auto ownPid =
      target.get<pid_t>(addressOf(record.process.address) + record.process.pid).value_or(0);
  process.hasOtherIds = ownPid != 0 && !isOwnId(target, ownPid);
  process.library = library.path;
  process.platform = library.platform;
  process.periodMs = target.get<uint32_t>(addressOf(record.detectionPeriod)).value_or(0);
  const uint32_t status =
      target.get<uint32_t>(addressOf(record.capture.address) + record.capture.status)
          .value_or(FRAME_DEADLOOP_STATUS_IDLE);
  process.status = nameOfStatus(status);
  if (status != FRAME_DEADLOOP_STATUS_IDLE) {
    const auto sent =
        target.get<timespec>(addressOf(record.monitor.address) + record.monitor.signalSent);
    process.statusSinceMs = sent ? std::max<int64_t>(msBetween(*sent, now), 0) : -1;
  }
  const uint64_t keepAlive = addressOf(record.keepAlive.address);
  process.isReportedTo = target.get<uint64_t>(keepAlive + record.keepAlive.hook).value_or(0) != 0;
  process.keepAlivePeriodMs = target.get<uint32_t>(keepAlive + record.keepAlive.period).value_or(0);
  process.isReady = target.get<uint32_t>(addressOf(record.keepAlive.isReady)).value_or(0) != 0;
  if (const auto last = target.get<timespec>(addressOf(record.keepAlive.lastReport));
      last && (last->tv_sec != 0 || last->tv_nsec != 0)) {
    process.lastReportMs = std::max<int64_t>(msBetween(*last, now), 0);
  }
  return process;
}

std::vector<Beat> readWatch(const Target& target, const Library& library, const timespec& now) {
  std::vector<Beat> watch;
  forEachNode(target, library.record, [&](uint64_t slot, const FrameMonitorTaskInfo& info) {
    Beat beat;
    beat.at = info.stDetectTime;
    WatchedThread& thread = beat.thread;
    thread.slot = slot;
    thread.tid = static_cast<pid_t>(info.uiTid);
    thread.name = textIn(info.acTaskName, sizeof(info.acTaskName));
    thread.silenceMs = std::max<int64_t>(msBetween(info.stDetectTime, now), 0);
    thread.level = info.ucTimeoutLevel;
    thread.thresholdsMs = {info.uiFirstThreshold, info.uiSecondThreshold, info.uiThirdThreshold};
    thread.isMeasured = info.ucDetectSwitch != 0;
    thread.hasHook = info.pfnDeadloopInfoHook != nullptr;
    watch.push_back(std::move(beat));
  });
  return watch;
}

timespec freshestTime(const Target& target, const Library& library) {
  timespec freshest =
      target.get<timespec>(addressOf(library.record.keepAlive.lastReport)).value_or(timespec{});
  forEachNode(target, library.record, [&](uint64_t /*slot*/, const FrameMonitorTaskInfo& info) {
    if (isLater(info.stDetectTime, freshest)) {
      freshest = info.stDetectTime;
    }
  });
  return freshest;
}

}  // namespace qurn::inspect
