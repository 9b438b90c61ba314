// Event sets and the epoll loop. The loop, the dispatch and the clean-up run on the detection
// thread; sets and descriptors are registered from any thread.
//
// Locks: the life-cycle lock comes before setLock and lets registrations fail cleanly, instead of
// touching a destroyed mutex, when the detection thread gives up. The records' lock comes last.
#include <pthread.h>
#include <qurnadapt/event_sets.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

#include "common/uncancellable.h"
#include "event_records.h"
#include "frame_mnt.h"
#include "internal/safe_strings.h"
#include "internal/scoped_lock.h"

namespace {

constexpr int kEpollSizeHint = 256;

struct SetLinks {
  SetLinks* next;
  SetLinks* prev;
};

struct FrameMntEventSet : SetLinks {
  char setName[FRAME_MNT_SET_NAME_LEN];
  FrameMntEventProc eventProc;
  void* eventParam;
};

struct FrameMntEpollEventCtrl {
  std::atomic<int32_t> epollFd;
  SetLinks setList;
  pthread_mutex_t setLock;

  // Held for reading by registrations of sets, for writing while the control comes and goes.
  pthread_rwlock_t lifeCycleLock;
};

constinit FrameMntEpollEventCtrl g_events{
    -1, {nullptr, nullptr}, PTHREAD_MUTEX_INITIALIZER, PTHREAD_RWLOCK_INITIALIZER};

void* allocateZeroed(size_t size) noexcept {
  void* block = TOV_MemAllocF(size, qurn::mnt::kUnit, __LINE__, 0);
  if (block != nullptr) {
    memset_s(block, size, 0, size);
  }
  return block;
}

void release(void* block) noexcept { TOV_MemFreeF(block, qurn::mnt::kUnit, __LINE__, 0); }

struct Release {
  void operator()(void* block) const noexcept { release(block); }
};
using OwnedSet = std::unique_ptr<FrameMntEventSet, Release>;

bool copySetName(char (&dest)[FRAME_MNT_SET_NAME_LEN], const char* setName) noexcept {
  if (strcpy_s(dest, sizeof(dest), setName) == 0) {
    return true;
  }
  MNT_LOG(TOV_LOG_ERROR, "Use secure function to copy setName unsuccessfully.");
  return false;
}

bool loopExists() noexcept {
  if (g_events.epollFd >= 0) {
    return true;
  }
  MNT_LOG(TOV_LOG_ERROR, "Epoll fd has not been created.");
  return false;
}

// ---- sets; setLock is held

FrameMntEventSet* findSet(const char* setName) noexcept {
  if (setName == nullptr) {
    return nullptr;
  }
  for (SetLinks* link = g_events.setList.next; link != &g_events.setList; link = link->next) {
    auto* set = static_cast<FrameMntEventSet*>(link);
    if (strcmp(set->setName, setName) == 0) {
      return set;
    }
  }
  return nullptr;
}

void appendSet(FrameMntEventSet* set) noexcept {
  SetLinks& list = g_events.setList;
  set->next = &list;
  set->prev = list.prev;
  list.prev->next = set;
  list.prev = set;
}

OwnedSet createSet() noexcept {
  OwnedSet set(static_cast<FrameMntEventSet*>(allocateZeroed(sizeof(FrameMntEventSet))));
  if (set == nullptr) {
    MNT_LOG(TOV_LOG_ERROR, "Frame mnt create event proc, memory malloc unsuccessfully.");
  }
  return set;
}

// ---- records

FrameMntEpollData* createRecord(const char* setName, int32_t fd) noexcept {
  FrameMntEpollData* record = qurn::mnt::allocateRecord();
  if (record == nullptr) {
    MNT_LOG(TOV_LOG_ERROR, "Frame mnt epoll control, alloc memory unsuccessfully.");
    return nullptr;
  }
  record->fd = fd;
  if (!copySetName(record->setName, setName)) {
    qurn::mnt::freeRecord(record);
    return nullptr;
  }
  return record;
}

}  // namespace

bool qurn::mnt::createEpollInstance() noexcept {
  const qurn::WriteLock lifeCycle(g_events.lifeCycleLock);
  g_events.epollFd = epoll_create(kEpollSizeHint);
  return g_events.epollFd >= 0;
}

// The sets stay allocated, as the records do.
void qurn::mnt::dropEventLoopAfterFork() noexcept {
  pthread_rwlock_init(&g_events.lifeCycleLock, nullptr);
  pthread_mutex_init(&g_events.setLock, nullptr);
  dropRecordsAfterFork();
  if (const int32_t epollFd = g_events.epollFd.exchange(-1); epollFd != -1) {
    close(epollFd);
  }
  g_events.setList.next = &g_events.setList;
  g_events.setList.prev = &g_events.setList;
}

extern "C" {

int32_t FrameInitMntEpollEventCtrl(void) {
  const qurn::WriteLock lifeCycle(g_events.lifeCycleLock);
  g_events.epollFd = -1;
  g_events.setList.next = &g_events.setList;
  g_events.setList.prev = &g_events.setList;
  return pthread_mutex_init(&g_events.setLock, nullptr);
}

uint32_t FRAME_MntRegSetAndEventProc(const char* setName, FrameMntEventProc proc, void* param) {
  const qurn::Uncancellable uncancellable;
  const qurn::ReadLock lifeCycle(g_events.lifeCycleLock);
  if (!loopExists()) {
    return QURN_FAILED;
  }
  if (proc == nullptr) {
    MNT_LOG(TOV_LOG_ERROR, "Event process function is NULL.");
    return QURN_INVALID_ARGUMENT;
  }
  OwnedSet created;  // one that does not get into the list is freed after the unlock
  const qurn::MutexLock lock(g_events.setLock);
  FrameMntEventSet* set = findSet(setName);
  if (set == nullptr) {
    created = createSet();
    set = created.get();
    if (set == nullptr || !copySetName(set->setName, setName)) {
      return QURN_FAILED;
    }
  }
  set->eventProc = proc;
  set->eventParam = param;
  if (created != nullptr) {
    appendSet(created.release());
  }
  return QURN_OK;
}

uint32_t FRAME_MntEpollCtl(const char* setName, int32_t op, int32_t fd, struct epoll_event* event) {
  const qurn::Uncancellable uncancellable;
  if (!loopExists()) {
    return QURN_FAILED;
  }
  if (event != nullptr) {
    FrameMntEpollData* record = createRecord(setName, fd);
    if (record == nullptr) {
      return QURN_FAILED;
    }
    event->data.ptr = record;
    if (event->events == 0) {
      event->events = EPOLLIN | EPOLLET;
    }
  }
  if (!qurn::mnt::changeRegistration(g_events.epollFd, op, fd, event)) {
    MNT_LOG(TOV_LOG_ERROR, "Frame mnt operate epoll event unsuccessfully.(errno = %d)", errno);
    if (event != nullptr) {
      qurn::mnt::freeRecord(static_cast<FrameMntEpollData*>(event->data.ptr));
      event->data.ptr = nullptr;
    }
    return QURN_FAILED;
  }
  return QURN_OK;
}

void FrameMntEventProcBySet(struct epoll_event* event) {
  const auto* record = static_cast<const FrameMntEpollData*>(event->data.ptr);
  if (record == nullptr) {
    return;
  }
  const qurn::MutexLock lock(g_events.setLock);
  SetLinks* const sentinel = &g_events.setList;
  for (SetLinks* link = sentinel->next; link != sentinel; link = link->next) {
    if (link == nullptr) {
      MNT_LOG(TOV_LOG_ERROR, "Mnt epoll list node null .(setName = %s)", record->setName);
      return;
    }
    const auto* set = static_cast<const FrameMntEventSet*>(link);
    if (strncmp(set->setName, record->setName, FRAME_MNT_SET_NAME_LEN) == 0) {
      if (set->eventProc(event, set->eventParam) != QURN_OK) {
        MNT_LOG(TOV_LOG_ERROR, "Epoll event process unsuccessfully.(setName = %s)",
                record->setName);
      }
      return;
    }
  }
  MNT_LOG(TOV_LOG_INFO, "There is no set which name is %s.", record->setName);
}

void FRAME_MntDispatch(void) {
  if (!loopExists()) {
    return;
  }
  epoll_event events[qurn::mnt::kMaxEvents];
  for (;;) {
    const int count = qurn::mnt::fetchBatch(g_events.epollFd, events);
    if (count < 0 && errno != EINTR) {
      MNT_LOG(TOV_LOG_ERROR, "Epoll wait unsuccessfully. (errno = %d)", errno);
    }
    for (int i = 0; i < count; ++i) {
      // A copy: the function may write to it, and the batch's end needs what was fetched.
      if (epoll_event event = events[i]; (event.events & EPOLLIN) != 0) {
        FrameMntEventProcBySet(&event);
      }
    }
    qurn::mnt::endBatch(events, count);
  }
}

void FrameMntClearEpollEventCtrl(void) {
  const qurn::WriteLock lifeCycle(g_events.lifeCycleLock);
  while (g_events.setList.next != &g_events.setList && g_events.setList.next != nullptr) {
    auto* set = static_cast<FrameMntEventSet*>(g_events.setList.next);
    g_events.setList.next = set->next;
    set->next->prev = &g_events.setList;
    release(set);
  }
  qurn::mnt::closeAndFreeRecords(g_events.epollFd.exchange(-1));
  pthread_mutex_destroy(&g_events.setLock);
}

}  // extern "C"
