// Stands in for the KEM call stack. It runs in a signal handler, on the interrupted thread, which
// may hold any lock of the process: it allocates nothing and locks nothing.
//
// The walk is the compiler's own unwinder, started in the handler; it finds unwind tables without
// the loader's lock. Where the tables end, frame pointers may add callers.
#include <qurnadapt/platform.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <unwind.h>

#include <cerrno>

#include "common/machine_context.h"
#include "fault_guard.h"
#include "readable.h"
#include "stack_bounds.h"

namespace {

// ---- at load

_Unwind_Reason_Code ignoreFrame(_Unwind_Context* /*frame*/, void* /*unused*/) {
  return _URC_NO_REASON;
}

// The first walk of a process binds the unwinder's own calls and sets up its tables; that happens
// here, never in a handler.
__attribute__((constructor)) void prepareAtLoad() { _Unwind_Backtrace(ignoreFrame, nullptr); }

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

// Follows saved frame pointers upwards from the last known frame, inside the stack only. Each link
// must be aligned, above the one before, and readable.
void walkFramePointers(Walk& walk) {
  FrameTaskStackInfo stack{0, 0};
  tov::findMapping(walk.last.stackPointer, stack);
  const uint64_t end = stack.start + stack.size;
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

}  // extern "C"
