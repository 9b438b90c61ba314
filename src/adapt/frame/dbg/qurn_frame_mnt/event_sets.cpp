// Event sets and the epoll loop. The loop, the dispatch and the clean-up run on the detection
// thread; sets and descriptors are registered from any thread.
//
// Locks: the life-cycle lock comes before setLock and lets registrations fail cleanly, instead of
// touching a destroyed mutex, when the detection thread gives up. recordLock is a leaf, so that a
// callback, which runs under setLock, may add and remove descriptors.
#include <pthread.h>
#include <qurnadapt/event_sets.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

#include "frame_mnt.h"
#include "internal/safe_strings.h"
#include "internal/scoped_lock.h"

namespace {

constexpr int kEpollSizeHint = 256;
constexpr int kMaxEvents = 256;

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

  // Makes a change in the kernel and its trace in the two lists one step. Live are the records
  // whose address is in the kernel's hands, newest first; retired those that no longer are but may
  // still be in the batch of events that the loop is working on.
  pthread_mutex_t recordLock;
  FrameMntEpollData* liveRecords;
  FrameMntEpollData* retiredRecords;
};

constinit FrameMntEpollEventCtrl g_events{-1,
                                          {nullptr, nullptr},
                                          PTHREAD_MUTEX_INITIALIZER,
                                          PTHREAD_RWLOCK_INITIALIZER,
                                          PTHREAD_MUTEX_INITIALIZER,
                                          nullptr,
                                          nullptr};

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

void pushRecord(FrameMntEpollData*& list, FrameMntEpollData* record) noexcept {
  record->next = list;
  list = record;
}

void releaseRecords(FrameMntEpollData* list) noexcept {
  while (list != nullptr) {
    release(std::exchange(list, list->next));
  }
}

// The kernel has dropped or replaced the newest record of fd. Older ones of the same number belong
// to descriptors that were closed without being deleted; a duplicate may keep those alive in the
// kernel, so they stay until the clean-up.
void retireRecordOf(int32_t fd) noexcept {
  for (FrameMntEpollData** link = &g_events.liveRecords; *link != nullptr; link = &(*link)->next) {
    if ((*link)->fd == fd) {
      FrameMntEpollData* record = *link;
      *link = record->next;
      pushRecord(g_events.retiredRecords, record);
      return;
    }
  }
}

// Applies a change to the epoll instance and follows it in the lists; errno tells why it failed. A
// record that comes with a DEL is never seen by the kernel.
bool changeRegistration(int32_t op, int32_t fd, epoll_event* event) noexcept {
  const qurn::MutexLock lock(g_events.recordLock);
  if (epoll_ctl(g_events.epollFd, op, fd, event) != 0) {
    return false;
  }
  if (op != EPOLL_CTL_ADD) {
    retireRecordOf(fd);
  }
  if (event != nullptr) {
    pushRecord(op == EPOLL_CTL_DEL ? g_events.retiredRecords : g_events.liveRecords,
               static_cast<FrameMntEpollData*>(event->data.ptr));
  }
  return true;
}

// Called by the loop between two batches: what was retired before this point cannot be in a batch
// that is fetched after it.
void releaseRetiredRecords() noexcept {
  FrameMntEpollData* retired = nullptr;
  {
    const qurn::MutexLock lock(g_events.recordLock);
    retired = std::exchange(g_events.retiredRecords, nullptr);
  }
  releaseRecords(retired);
}

FrameMntEpollData* createRecord(const char* setName, int32_t fd) noexcept {
  auto* record = static_cast<FrameMntEpollData*>(allocateZeroed(sizeof(FrameMntEpollData)));
  if (record == nullptr) {
    MNT_LOG(TOV_LOG_ERROR, "Frame mnt epoll control, alloc memory unsuccessfully.");
    return nullptr;
  }
  record->fd = fd;
  if (!copySetName(record->setName, setName)) {
    release(record);
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

// What the lists held stays allocated: giving it back is up to a platform that may not have
// survived the fork.
void qurn::mnt::dropEventLoopAfterFork() noexcept {
  pthread_rwlock_init(&g_events.lifeCycleLock, nullptr);
  pthread_mutex_init(&g_events.setLock, nullptr);
  pthread_mutex_init(&g_events.recordLock, nullptr);
  if (const int32_t epollFd = g_events.epollFd.exchange(-1); epollFd != -1) {
    close(epollFd);
  }
  g_events.setList.next = &g_events.setList;
  g_events.setList.prev = &g_events.setList;
  g_events.liveRecords = nullptr;
  g_events.retiredRecords = nullptr;
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
  if (!changeRegistration(op, fd, event)) {
    MNT_LOG(TOV_LOG_ERROR, "Frame mnt operate epoll event unsuccessfully.(errno = %d)", errno);
    if (event != nullptr) {
      release(event->data.ptr);
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
  epoll_event events[kMaxEvents];
  for (;;) {
    releaseRetiredRecords();
    const int count = epoll_wait(g_events.epollFd, events, kMaxEvents, -1);
    if (count < 0 && errno != EINTR) {
      MNT_LOG(TOV_LOG_ERROR, "Epoll wait unsuccessfully. (errno = %d)", errno);
    }
    for (int i = 0; i < count; ++i) {
      if ((events[i].events & EPOLLIN) != 0) {
        FrameMntEventProcBySet(&events[i]);
      }
    }
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
  // With the epoll instance gone, nothing can hand a record out any more.
  FrameMntEpollData* live = nullptr;
  {
    const qurn::MutexLock lock(g_events.recordLock);
    if (const int32_t epollFd = g_events.epollFd.exchange(-1); epollFd != -1) {
      close(epollFd);
    }
    live = std::exchange(g_events.liveRecords, nullptr);
  }
  pthread_mutex_destroy(&g_events.setLock);
  releaseRecords(live);
  releaseRetiredRecords();
}

}  // extern "C"
