#include "stacks.h"

#include <elf.h>
#include <sys/ptrace.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <thread>

#include "core_target.h"
#include "registers.h"

namespace qurn::inspect {
namespace {

constexpr size_t kMostStackBytes = size_t{1} << 20U;

// What a thread leaves behind for the unwinder.
struct Copy {
  Registers registers;
  std::vector<char> stack;  // from the stack pointer upwards
  std::string note;

  bool readWord(uint64_t address, uint64_t* word) const {
    const uint64_t inside = address - registers.stackPointer;
    if (inside > stack.size() || stack.size() - inside < sizeof(*word)) {
      return false;
    }
    memcpy(word, stack.data() + inside, sizeof(*word));
    return true;
  }
};

// Seizes a thread without a signal, which could stop the process for good if this one died now; the
// kernel lets the thread go with its tracer, whichever way that ends.
class Stopped {
 public:
  explicit Stopped(pid_t tid) : tid_(tid) {
    if (ptrace(PTRACE_SEIZE, tid, nullptr, nullptr) != 0) {
      note_ = strerror(errno);
      return;
    }
    isSeized_ = true;
    ptrace(PTRACE_INTERRUPT, tid, nullptr, nullptr);
    isStopped_ = waitForStop();
    note_ = isStopped_ ? "" : "did not stop";
  }
  ~Stopped() { release(); }
  Stopped(const Stopped&) = delete;
  Stopped& operator=(const Stopped&) = delete;

  [[nodiscard]] bool isStopped() const { return isStopped_; }
  [[nodiscard]] const std::string& note() const { return note_; }

  bool readRegisters(KernelRegisters& registers) const {
    iovec place{&registers, sizeof(registers)};
    return ptrace(PTRACE_GETREGSET, tid_, NT_PRSTATUS, &place) == 0;
  }
  void release() {
    if (isSeized_) {
      ptrace(PTRACE_DETACH, tid_, nullptr, reinterpret_cast<void*>(signal_));
      isSeized_ = false;
    }
  }

 private:
  // A thread in the kernel may never come; one that a signal stops at this moment gets it back.
  bool waitForStop() {
    constexpr auto kPatience = std::chrono::milliseconds(200);
    const auto start = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() - start < kPatience) {
      int status = 0;
      const pid_t stopped = waitpid(tid_, &status, __WALL | WNOHANG);
      if (stopped == tid_) {
        const bool isOurs = WIFSTOPPED(status) && status >> 16 == PTRACE_EVENT_STOP;
        signal_ = WIFSTOPPED(status) && !isOurs ? WSTOPSIG(status) : 0;
        return WIFSTOPPED(status);
      }
      if (stopped < 0) {
        return false;
      }
      usleep(50);
    }
    return false;
  }

  pid_t tid_;
  std::string note_;
  long signal_ = 0;
  bool isSeized_ = false;
  bool isStopped_ = false;
};

size_t stackBytesFrom(uint64_t stackPointer, const std::vector<Mapping>& mappings) {
  for (const Mapping& mapping : mappings) {
    if (stackPointer >= mapping.start && stackPointer < mapping.end) {
      return std::min<uint64_t>(mapping.end - stackPointer, kMostStackBytes);
    }
  }
  return 0;
}

Copy copyOfLive(const Target& target, pid_t tid, const std::vector<Mapping>& mappings) {
  Copy copy;
  const std::optional<Detail> detail = target.detailOf(tid);
  if (!detail) {
    copy.note = "has ended";
    return copy;
  }
  if (detail->state == 'D') {
    copy.note = "in uninterruptible sleep, not stopped; in the kernel: " + target.kernelStack(tid);
    return copy;
  }
  static std::vector<char> stack(kMostStackBytes);  // there before the thread is stopped
  const auto start = std::chrono::steady_clock::now();
  Stopped stopped(target.idSeenFromHere(tid));
  KernelRegisters kernel{};
  if (!stopped.isStopped() || !stopped.readRegisters(kernel)) {
    copy.note = detail->tracer != 0 ? "traced already, by process " + std::to_string(detail->tracer)
                : stopped.note().empty() ? "its registers cannot be read"
                                         : stopped.note();
    return copy;
  }
  copy.registers = registersFrom(kernel);
  const size_t bytes = stackBytesFrom(copy.registers.stackPointer, mappings);
  const bool isCopied = target.read(copy.registers.stackPointer, stack.data(), bytes);
  stopped.release();
  const std::chrono::duration<double, std::micro> taken = std::chrono::steady_clock::now() - start;
  copy.stack.assign(stack.begin(), stack.begin() + static_cast<ssize_t>(isCopied ? bytes : 0));
  copy.note = "stopped for " + std::to_string(std::lround(taken.count())) + " us";
  return copy;
}

Copy copyOfDead(const CoreTarget& core, pid_t tid) {
  Copy copy;
  if (const std::optional<Registers> registers = core.registersOf(tid)) {
    copy.registers = *registers;
  } else {
    copy.note = "not in the core";
  }
  return copy;
}

}  // namespace

std::vector<Stack> stacksOf(const Target& target, const std::vector<pid_t>& threads,
                            const Snapshot& snapshot, Symbols& symbols) {
  const std::vector<Mapping> mappings = target.mappings();
  const auto* core = dynamic_cast<const CoreTarget*>(&target);
  std::vector<Copy> copies;
  // On a thread of its own: one that did not stop in time is let go with its tracer, at the end.
  std::thread([&] {
    for (const pid_t tid : threads) {
      copies.push_back(core == nullptr ? copyOfLive(target, tid, mappings)
                                       : copyOfDead(*core, tid));
    }
  }).join();
  std::vector<Stack> stacks;
  for (size_t i = 0; i < threads.size(); ++i) {
    const Copy& copy = copies[i];
    Stack stack{threads[i], snapshot.nameOf(threads[i]), copy.note, {}};
    if (copy.registers.programCounter != 0) {
      const Symbols::ReadWord readWord = [&](uint64_t address, uint64_t* word) {
        return copy.readWord(address, word) || target.read(address, word, sizeof(*word));
      };
      const std::vector<uint64_t> addresses = symbols.unwind(copy.registers, readWord);
      for (size_t frame = 0; frame < addresses.size(); ++frame) {
        symbols.explain(addresses[frame], frame > 0, stack.frames);
      }
      if (addresses.size() == Symbols::kMostFrames) {
        stack.note += stack.note.empty() ? "" : "; ";
        stack.note += "the innermost " + std::to_string(addresses.size()) + " frames";
      }
    }
    stacks.push_back(std::move(stack));
  }
  return stacks;
}

}  // namespace qurn::inspect
