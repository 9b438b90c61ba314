// The records that hang on registered descriptors: the kernel hands their addresses out with each
// event. A change in the kernel and its trace in here are one step, under a lock that is a leaf, so
// that an event set's function may add and remove descriptors.
#pragma once

#include <qurnadapt/event_sets.h>
#include <sys/epoll.h>

#include <cstdint>

namespace qurn::mnt {

inline constexpr int kMaxEvents = 256;

// A zero-filled record, or null; not known to anybody yet.
FrameMntEpollData* allocateRecord() noexcept;
void freeRecord(FrameMntEpollData* record) noexcept;

// Applies a change to the epoll instance; errno tells why it failed, the event's record is then
// still the caller's. Records that the kernel has let go of by it are freed, those that the batch
// in hand names at its end. A record that comes with a DEL is never seen by the kernel.
bool changeRegistration(int32_t epollFd, int32_t op, int32_t fd, epoll_event* event) noexcept;

// Waits until something is ready and fetches it, up to kMaxEvents, as the batch in hand. Returns
// how many, or -1 with errno set. Loop only, as the end of the batch.
int fetchBatch(int32_t epollFd, epoll_event* events) noexcept;
void endBatch(const epoll_event* events, int count) noexcept;

// Closes the epoll instance, whose records nothing can hand out any more then, and frees them.
void closeAndFreeRecords(int32_t epollFd) noexcept;

// In the child of a fork. What there was stays allocated: giving it back is up to a platform that
// may not have survived the fork.
void dropRecordsAfterFork() noexcept;

}  // namespace qurn::mnt
