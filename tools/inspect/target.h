// What is inspected: a live process, or the core that one left. Everything that it says is taken
// for hostile: memory changes while it is read, and a core may have been made to mislead.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

namespace qurn::inspect {

// Ends the inspection with one line for the user.
struct Mistake : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct Mapping {
  uint64_t start = 0;
  uint64_t end = 0;
  bool isWritable = false;  // and no other's too
  std::string path;         // empty where it is no file
};

// The system call that a thread is in.
struct Call {
  bool isRunning = false;  // on a processor, or waiting for one: the rest says nothing
  long number = -1;
  std::array<uint64_t, 6> arguments{};
  uint64_t stackPointer = 0;
  uint64_t programCounter = 0;

  bool operator==(const Call&) const = default;
};

// What the kernel says of a thread beyond that.
struct Detail {
  std::string name;
  char state = '?';      // as in `stat`
  uint64_t runNs = 0;    // on a processor so far
  uint64_t delayNs = 0;  // waiting for one
  uint64_t sleeps = 0;   // how often it gave it up of its own accord
  uint64_t blocked = 0;  // signals
  pid_t tracer = 0;
  std::string kernelPlace;  // where it sleeps in the kernel
};

// By their DWARF numbers; the program counter may be one of them.
struct Registers {
  std::vector<uint64_t> values;
  uint64_t stackPointer = 0;
  uint64_t programCounter = 0;
};

class Target {
 public:
  Target() = default;
  Target(const Target&) = delete;
  Target& operator=(const Target&) = delete;
  virtual ~Target() = default;

  // All or nothing.
  virtual bool read(uint64_t address, void* to, size_t bytes) const = 0;
  virtual std::vector<Mapping> mappings() const = 0;
  // By the ids that the process itself knows, as its locks and its watch do.
  virtual std::vector<pid_t> threads() const = 0;
  // Nothing when there is no such thread, or any more.
  virtual std::optional<Call> callOf(pid_t tid) const = 0;
  virtual std::optional<Detail> detailOf(pid_t tid) const = 0;
  virtual std::string descriptor(int fd) const = 0;
  virtual std::string kernelStack(pid_t tid) const = 0;

  virtual pid_t pid() const = 0;
  virtual std::string name() const = 0;
  virtual bool isCore() const = 0;
  // CLOCK_MONOTONIC_COARSE; a core has no "now".
  virtual std::optional<timespec> now() const = 0;
  virtual int64_t upMs() const = 0;
  // The id under which a thread may be traced.
  virtual pid_t idSeenFromHere(pid_t tid) const { return tid; }
  // Under whose id /proc shows memory and files: those of the main thread go when it ends.
  virtual pid_t livingThread() const { return pid(); }

  template <typename Value>
  std::optional<Value> get(uint64_t address) const {
    static_assert(std::is_trivially_copyable_v<Value>);
    Value value{};
    return read(address, &value, sizeof(value)) ? std::optional(value) : std::nullopt;
  }
};

}  // namespace qurn::inspect
