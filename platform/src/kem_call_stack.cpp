// Stands in for the KEM call stack and stack bounds. Both run in a signal handler, on the
// interrupted thread, which may hold any lock of the process: they allocate nothing and lock
// nothing.
//
// The walk is the compiler's own unwinder, started in the handler; it finds unwind tables without
// the loader's lock. Where the tables end, frame pointers may add callers.
#include <fcntl.h>
#include <linux/ioctl.h>
#include <pthread.h>
#include <qurnadapt/platform.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <unwind.h>

#include <cerrno>

#include "common/machine_context.h"
#include "common/scoped_fd.h"
#include "fault_guard.h"
#include "readable.h"

namespace {

// ---- bounds of the main thread's stack, prepared at load

struct PreparedStack {
  pthread_t thread;
  uint64_t start;
  uint64_t end;
};

constinit PreparedStack g_mainStack{};

_Unwind_Reason_Code ignoreFrame(_Unwind_Context* /*frame*/, void* /*unused*/) {
  return _URC_NO_REASON;
}

void prepareMainStack() {
  pthread_attr_t attributes;
  void* start = nullptr;
  size_t size = 0;
  if (getpid() != syscall(SYS_gettid) || pthread_getattr_np(pthread_self(), &attributes) != 0) {
    return;
  }
  if (pthread_attr_getstack(&attributes, &start, &size) == 0) {
    const auto lowest = reinterpret_cast<uint64_t>(start);
    g_mainStack = {pthread_self(), lowest, lowest + size};
  }
  pthread_attr_destroy(&attributes);
}

// ---- bounds of another thread's stack, asked for on the spot

// What Linux answers from 6.11 on (PROCMAP_QUERY): the mapping that holds an address, without a
// walk through the whole map. Newer than the C library's headers.
struct MappingQuery {
  uint64_t size = sizeof(MappingQuery);
  uint64_t flags = 0;  // the mapping must hold the address
  uint64_t address = 0;
  uint64_t start = 0;
  uint64_t end = 0;
  uint64_t details[4] = {};  // protection, page size, file offset and number
  uint32_t device[2] = {};
  uint32_t nameBytes = 0;  // of two texts that nobody asks for
  uint32_t buildIdBytes = 0;
  uint64_t name = 0;
  uint64_t buildId = 0;
};
static_assert(sizeof(MappingQuery) == 104);
constexpr unsigned long kQueryMapping = _IOWR('f', 17, MappingQuery);

// The threads library keeps a thread's control block, whose address is its identifier, inside the
// thread's stack mapping. All three calls are plain system calls, as a signal handler needs them.
bool askForStack(FrameTaskStackInfo& info) {
  const qurn::ScopedFd maps(open("/proc/self/maps", O_RDONLY | O_CLOEXEC));
  MappingQuery query;
  query.address = pthread_self();
  if (!maps.valid() || ioctl(maps.get(), kQueryMapping, &query) != 0) {
    return false;
  }
  info = {query.start, query.end - query.start};
  return true;
}

// ---- at load

// The first walk of a process binds the unwinder's own calls and sets up its tables; that happens
// here, never in a handler.
__attribute__((constructor)) void prepareAtLoad() {
  prepareMainStack();
  _Unwind_Backtrace(ignoreFrame, nullptr);
}

// ---- the walk

struct Position {
  uint64_t stackPointer;
  uint64_t framePointer;
};

struct Walk {
  uint64_t interruptedPc;
  uint64_t* addresses;
  uint32_t capacity;
  uint32_t depth;
  uint32_t framesSkipped;
  bool reachedInterrupted;
  bool reachedBottom;
  Position last;  // of the last frame in the result

  [[nodiscard]] bool full() const { return depth >= capacity; }
  void add(uint64_t address) { addresses[depth++] = address; }
};

// More frames than a handler and its callees can have between the walk and the interrupted code.
constexpr uint32_t kMostHandlerFrames = 32;

_Unwind_Reason_Code visitFrame(_Unwind_Context* frame, void* argument) {
  Walk& walk = *static_cast<Walk*>(argument);
  const uint64_t address = _Unwind_GetIP(frame);
  if (!walk.reachedInterrupted) {
    if (address != walk.interruptedPc) {
      return ++walk.framesSkipped < kMostHandlerFrames ? _URC_NO_REASON : _URC_NORMAL_STOP;
    }
    walk.reachedInterrupted = true;
  } else if (address == 0) {
    walk.reachedBottom = true;
    return _URC_NORMAL_STOP;
  } else {
    walk.add(address);
  }
  walk.last = {_Unwind_GetCFA(frame), _Unwind_GetGR(frame, qurn::kFramePointerDwarfRegister)};
  return walk.full() ? _URC_NORMAL_STOP : _URC_NO_REASON;
}

#if defined(QURN_HAS_LINK_REGISTER)
// Code without tables that calls nothing has its caller in the link register: so have the linker's
// call stubs. The handler's own context takes the caller's place for a second walk.
void walkFromLinkRegister(Walk& walk, uint64_t* registers) {
  const uint64_t caller = registers[qurn::kLinkRegisterWord];
  const uint64_t interrupted = walk.interruptedPc;
  walk.interruptedPc = caller - qurn::kCallBytes;
  walk.reachedInterrupted = false;
  walk.framesSkipped = 0;
  walk.add(caller);
  registers[qurn::kProgramCounterWord] = walk.interruptedPc;
  _Unwind_Backtrace(visitFrame, &walk);
  registers[qurn::kProgramCounterWord] = interrupted;
  if (walk.depth == 2 && !walk.reachedBottom) {
    walk.depth = 1;  // no code that tables tell of either
  }
}
#endif

// The end of the stack that the calling thread runs on, 0 when it cannot be told. Other than on the
// main thread, the threads library keeps a thread's control block at the top of its stack.
uint64_t stackEndFor(uint64_t stackPointer) {
  const uint64_t self = pthread_self();
  if (self == g_mainStack.thread) {
    return stackPointer >= g_mainStack.start && stackPointer < g_mainStack.end ? g_mainStack.end
                                                                               : 0;
  }
  return stackPointer < self ? self : 0;
}

// Follows saved frame pointers upwards from the last known frame, inside the stack only. Each link
// must be aligned, above the one before, and readable.
void walkFramePointers(Walk& walk) {
  const uint64_t end = stackEndFor(walk.last.stackPointer);
  uint64_t lowest = walk.last.stackPointer;
  uint64_t frame = walk.last.framePointer;
  constexpr uint64_t kFrameBytes = 2 * sizeof(uint64_t);
  while (!walk.full() && end > kFrameBytes && frame >= lowest && frame <= end - kFrameBytes &&
         frame % sizeof(uint64_t) == 0 && tov::isReadable(frame) &&
         tov::isReadable(frame + sizeof(uint64_t))) {
    const auto* link = reinterpret_cast<const uint64_t*>(frame);
    if (link[1] == 0) {
      return;
    }
    walk.add(link[1]);
    lowest = frame + kFrameBytes;
    frame = link[0];
  }
}

// The walk with all its means. A smashed stack may end it anywhere; the frames so far stay.
struct WholeWalk {
  Walk walk;
  uint64_t* registers;
};

void walkEverything(void* argument) {
  auto& [walk, registers] = *static_cast<WholeWalk*>(argument);
  _Unwind_Backtrace(visitFrame, &walk);
#if defined(QURN_HAS_LINK_REGISTER)
  if (walk.depth == 1 && !walk.full() && !walk.reachedBottom) {
    walkFromLinkRegister(walk, registers);
  }
#endif
  if (!walk.reachedBottom) {
    walkFramePointers(walk);
  }
}

}  // namespace

extern "C" {

uint32_t KEM_ExceptCallStackGetEx(void* context, uint32_t maxDepth, uint32_t /*option*/,
                                  uint64_t* addresses, uint32_t* depth) {
  if (context == nullptr || addresses == nullptr || depth == nullptr || maxDepth == 0) {
    return QURN_INVALID_ARGUMENT;
  }
  uint64_t* registers = qurn::machineWords(context);
  WholeWalk whole{{}, registers};
  Walk& walk = whole.walk;
  walk.interruptedPc = registers[qurn::kProgramCounterWord];
  walk.addresses = addresses;
  walk.capacity = maxDepth;
  walk.last = {registers[qurn::kStackPointerWord], registers[qurn::kFramePointerWord]};
  walk.add(walk.interruptedPc);  // whatever the unwinder says
  tov::surviveFaults(walkEverything, &whole);
  registers[qurn::kProgramCounterWord] = addresses[0];  // a walk that was ended may have changed it
  *depth = walk.depth;
  return QURN_OK;
}

uint32_t KEM_TaskStackInfoGet(uint32_t selector, FrameTaskStackInfo* info) {
  if (selector != 0 || info == nullptr) {
    return QURN_FAILED;
  }
  if (pthread_self() != g_mainStack.thread) {
    return askForStack(*info) ? QURN_OK : QURN_FAILED;
  }
  const auto here = reinterpret_cast<uint64_t>(__builtin_frame_address(0));
  if (here < g_mainStack.start || here >= g_mainStack.end) {
    return QURN_FAILED;
  }
  *info = {g_mainStack.start, g_mainStack.end - g_mainStack.start};
  return QURN_OK;
}

}  // extern "C"
