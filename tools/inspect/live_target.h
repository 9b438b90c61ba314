// A process that runs, or is stopped: looked at through /proc and copied from, never touched.
#pragma once

#include <map>
#include <string>

#include "common/scoped_fd.h"
#include "target.h"

namespace qurn::inspect {

class LiveTarget final : public Target {
 public:
  // Throws Mistake when there is no such process, or it may not be looked into.
  explicit LiveTarget(pid_t pid);

  bool read(uint64_t address, void* to, size_t bytes) const override;
  std::vector<Mapping> mappings() const override;
  std::vector<pid_t> threads() const override;
  std::optional<Call> callOf(pid_t tid) const override;
  std::optional<Detail> detailOf(pid_t tid) const override;
  std::string descriptor(int fd) const override;
  std::string kernelStack(pid_t tid) const override;
  pid_t pid() const override { return pid_; }
  std::string name() const override;
  bool isCore() const override { return false; }
  std::optional<timespec> now() const override;
  int64_t upMs() const override;
  pid_t idSeenFromHere(pid_t tid) const override;
  pid_t livingThread() const override { return living_; }

 private:
  pid_t findLivingThread() const;
  // The file's text, empty where it cannot be read.
  std::string textOf(const std::string& file) const;
  std::string textOf(pid_t tid, const char* file) const;

  // Thread ids that we see, by those that the process sees itself, where these are others.
  mutable std::map<pid_t, pid_t> idsSeenFromHere_;
  pid_t pid_;
  ScopedFd process_;  // its directory in /proc, which stays that process's
  ScopedFd tasks_;
  bool isInNamespace_;    // of process ids
  pid_t living_;          // as seen from here
  int64_t clockAheadNs_;  // of ours, in a time namespace
  ScopedFd home_;         // its directory
  ScopedFd memory_;       // which stays that program's, whoever gets the id
};

}  // namespace qurn::inspect
