#include "event_records.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <utility>

#include "common/scoped_fd.h"
#include "frame_mnt.h"
#include "internal/safe_strings.h"
#include "internal/scoped_lock.h"

namespace qurn::mnt {
namespace {

struct Record : FrameMntEpollData {
  bool isInBatch;   // of the events that the loop works on
  bool isInKernel;  // as the kernel's own list says, when it is asked
};

Record* nextOf(const Record* record) noexcept { return static_cast<Record*>(record->next); }

Record* recordOf(const epoll_event& event) noexcept {
  return static_cast<Record*>(static_cast<FrameMntEpollData*>(event.data.ptr));
}

// Descriptors are small numbers without gaps, so few share a place.
constexpr uint32_t kPlaces = 4096;

struct Records {
  pthread_mutex_t lock;
  std::array<Record*, kPlaces> live;  // in the kernel's hands, as far as is known; newest first
  Record* retired;                    // no longer, but named by the batch in hand
  uint32_t doubts;                    // changes of which it is not known what they let go
  uint32_t listed;                    // how many records the kernel had when it was asked last
};

constinit Records g_records{PTHREAD_MUTEX_INITIALIZER, {}, nullptr, 0, 0};

// Reading the kernel's list takes as long as it is. So the number of doubts that lead to it grows
// with it; what was let go in the meantime stays until then.
constexpr uint32_t kListedPerDoubt = 16;

constexpr useconds_t kUnaskedWaitUs = 10000;

Record*& placeOf(int32_t fd) noexcept {
  return g_records.live[static_cast<uint32_t>(fd) % kPlaces];
}

void push(Record*& list, Record* record) noexcept {
  record->next = list;
  list = record;
}

void freeList(Record* list) noexcept {
  while (list != nullptr) {
    freeRecord(std::exchange(list, nextOf(list)));
  }
}

// Takes the records that are to go out of a place, into the list of those to be freed or, where the
// batch in hand names them, of the retired.
template <typename Goes>
void takeOut(Record*& place, Record*& toFree, Goes goes) noexcept {
  Record* kept = nullptr;
  for (Record* record = std::exchange(place, nullptr); record != nullptr;) {
    Record* const following = nextOf(record);
    push(!goes(*record) ? kept : (record->isInBatch ? g_records.retired : toFree), record);
    record = following;
  }
  while (kept != nullptr) {  // in their order again
    push(place, std::exchange(kept, nextOf(kept)));
  }
}

template <typename Visit>
void forEachOf(int32_t fd, Visit visit) noexcept {
  for (Record* record = placeOf(fd); record != nullptr; record = nextOf(record)) {
    if (record->fd == fd) {
      visit(*record);
    }
  }
}

// ---- the kernel's own list: lines "tfd: NUMBER events: MASK data: ADDRESS ..."

void noteInKernel(const char* line) noexcept {
  constexpr std::string_view kNumber = "tfd:";
  constexpr std::string_view kAddress = "data:";
  const char* data = strstr(line, kAddress.data());
  if (data == nullptr || !std::string_view(line).starts_with(kNumber)) {
    return;
  }
  const auto fd = static_cast<int32_t>(strtol(line + kNumber.size(), nullptr, 10));
  const uint64_t address = strtoull(data + kAddress.size(), nullptr, 16);
  ++g_records.listed;
  forEachOf(fd, [address](Record& record) {
    record.isInKernel = record.isInKernel || reinterpret_cast<uint64_t>(&record) == address;
  });
}

// Notes which records the kernel still has. False when it cannot be asked.
bool askKernel(int32_t epollFd) noexcept {
  char path[64] = {};
  if (snprintf_s(path, sizeof(path), "/proc/self/fdinfo/%d", epollFd) < 0) {
    return false;
  }
  const ScopedFd list(open(path, O_RDONLY | O_CLOEXEC));
  if (!list.valid()) {
    return false;
  }
  for (Record* record : g_records.live) {
    for (; record != nullptr; record = nextOf(record)) {
      record->isInKernel = false;
    }
  }
  g_records.listed = 0;
  char line[128];
  size_t length = 0;
  char text[4096];
  ssize_t got = 0;
  while ((got = read(list.get(), text, sizeof(text))) > 0) {
    for (ssize_t i = 0; i < got; ++i) {
      if (text[i] == '\n') {
        line[std::exchange(length, 0)] = '\0';
        noteInKernel(line);
      } else if (length < sizeof(line) - 1) {
        line[length++] = text[i];
      }
    }
  }
  return got == 0;
}

// The kernel has dropped or replaced a record of this descriptor. Where there are several, of
// earlier uses of the number that duplicates may keep alive, only the kernel knows which.
void retireReplaced(int32_t epollFd, int32_t fd, Record*& toFree) noexcept {
  uint32_t count = 0;
  forEachOf(fd, [&count](const Record&) { ++count; });
  if (count == 1) {
    takeOut(placeOf(fd), toFree, [fd](const Record& record) { return record.fd == fd; });
  } else if (count > 1 && ++g_records.doubts >= g_records.listed / kListedPerDoubt &&
             askKernel(epollFd)) {
    g_records.doubts = 0;
    for (Record*& place : g_records.live) {
      takeOut(place, toFree, [](const Record& record) { return !record.isInKernel; });
    }
  }
}

}  // namespace

FrameMntEpollData* allocateRecord() noexcept {
  auto* record = static_cast<Record*>(TOV_MemAllocF(sizeof(Record), kUnit, __LINE__, 0));
  if (record != nullptr) {
    memset_s(record, sizeof(*record), 0, sizeof(*record));
  }
  return record;
}

void freeRecord(FrameMntEpollData* record) noexcept { TOV_MemFreeF(record, kUnit, __LINE__, 0); }

bool changeRegistration(int32_t epollFd, int32_t op, int32_t fd, epoll_event* event) noexcept {
  Record* toFree = nullptr;
  {
    const MutexLock lock(g_records.lock);
    if (epoll_ctl(epollFd, op, fd, event) != 0) {
      return false;
    }
    if (op != EPOLL_CTL_ADD) {
      retireReplaced(epollFd, fd, toFree);
    }
    if (event != nullptr) {
      push(op == EPOLL_CTL_DEL ? toFree : placeOf(fd), recordOf(*event));
    }
  }
  freeList(toFree);
  return true;
}

// The wait comes before the fetch, so that the fetch and the marks on what it brings are one step:
// a descriptor that is removed is either not in the batch or known to be.
int fetchBatch(int32_t epollFd, epoll_event* events) noexcept {
  pollfd ready{epollFd, POLLIN, 0};
  if (poll(&ready, 1, -1) < 0) {
    if (errno != EINVAL) {
      return -1;
    }
    usleep(kUnaskedWaitUs);  // nor may a process poll that may not open any descriptor
  }
  const MutexLock lock(g_records.lock);
  const int count = epoll_wait(epollFd, events, kMaxEvents, 0);
  for (int i = 0; i < count; ++i) {
    if (Record* record = recordOf(events[i]); record != nullptr) {
      record->isInBatch = true;
    }
  }
  return count;
}

void endBatch(const epoll_event* events, int count) noexcept {
  Record* retired = nullptr;
  {
    const MutexLock lock(g_records.lock);
    for (int i = 0; i < count; ++i) {
      if (Record* record = recordOf(events[i]); record != nullptr) {
        record->isInBatch = false;
      }
    }
    retired = std::exchange(g_records.retired, nullptr);
  }
  freeList(retired);
}

void closeAndFreeRecords(int32_t epollFd) noexcept {
  Record* toFree = nullptr;
  {
    const MutexLock lock(g_records.lock);
    if (epollFd != -1) {
      close(epollFd);
    }
    toFree = std::exchange(g_records.retired, nullptr);
    for (Record*& place : g_records.live) {
      while (place != nullptr) {
        push(toFree, std::exchange(place, nextOf(place)));
      }
    }
  }
  freeList(toFree);
}

void dropRecordsAfterFork() noexcept {
  pthread_mutex_init(&g_records.lock, nullptr);
  g_records.live.fill(nullptr);
  g_records.retired = nullptr;
}

}  // namespace qurn::mnt
