// What a process left when it died: a core of the kernel's, or a debugger's.
#pragma once

#include <elf.h>

#include <map>
#include <string>

#include "common/scoped_fd.h"
#include "registers.h"
#include "target.h"

struct Elf;

namespace qurn::inspect {

class CoreTarget final : public Target {
 public:
  // Throws Mistake when it is no core of this machine's kind.
  explicit CoreTarget(const std::string& path);
  ~CoreTarget() override;
  CoreTarget(const CoreTarget&) = delete;
  CoreTarget& operator=(const CoreTarget&) = delete;

  bool read(uint64_t address, void* to, size_t bytes) const override;
  std::vector<Mapping> mappings() const override { return mappings_; }
  std::vector<pid_t> threads() const override;
  std::optional<Call> callOf(pid_t tid) const override;
  std::optional<Detail> detailOf(pid_t tid) const override;
  std::string descriptor(int /*fd*/) const override { return {}; }
  std::string kernelStack(pid_t /*tid*/) const override { return {}; }
  pid_t pid() const override { return pid_; }
  std::string name() const override { return name_; }
  bool isCore() const override { return true; }
  std::optional<timespec> now() const override { return std::nullopt; }
  int64_t upMs() const override { return -1; }

  std::optional<Registers> registersOf(pid_t tid) const;
  Elf* elf() const { return elf_; }

 private:
  struct Segment {
    uint64_t start;
    uint64_t fileBytes;
    uint64_t fileOffset;
  };

  // What lies within the file, before `end`, only.
  bool copy(uint64_t offset, uint64_t end, void* to, size_t bytes) const;
  template <typename Value>
  bool copy(uint64_t offset, uint64_t end, Value& value) const {
    return copy(offset, end, &value, sizeof(value));
  }
  void readParts(const Elf64_Ehdr& header);
  void readNotes(uint64_t at, uint64_t end);
  void readFileNote(const std::string& note);
  void nameMappings();

  std::map<uint64_t, Segment> segments_;  // by their start
  std::vector<Mapping> mappings_;
  std::map<uint64_t, std::pair<uint64_t, std::string>> files_;  // end and name, by their start
  std::map<pid_t, KernelRegisters> threads_;
  pid_t pid_ = 0;
  std::string name_;
  // Never mapped: the file may be cut off while it is read.
  ScopedFd file_;
  uint64_t size_ = 0;
  Elf* elf_ = nullptr;
};

}  // namespace qurn::inspect
