#include "live_target.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <memory>
#include <sstream>

namespace qurn::inspect {
namespace {

std::string readAll(int fd) {
  std::string text;
  std::array<char, 8192> piece;  // NOLINT: filled by read
  ssize_t length = 0;
  while ((length = ::read(fd, piece.data(), piece.size())) > 0) {
    text.append(piece.data(), static_cast<size_t>(length));
  }
  return text;
}

// Of a file that the kernel writes in one piece: a second read would only tell its end.
std::string readPiece(int fd) {
  std::array<char, 512> piece;  // NOLINT: filled by read
  const ssize_t length = ::read(fd, piece.data(), piece.size());
  return {piece.data(), static_cast<size_t>(std::max<ssize_t>(length, 0))};
}

std::string readAt(int directory, const char* path) {
  const ScopedFd file(openat(directory, path, O_RDONLY | O_CLOEXEC));
  return file.valid() ? readAll(file.get()) : std::string();
}

std::string trimmed(std::string text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) {
    text.pop_back();
  }
  return text;
}

// "Key:\tVALUE" in a file of such lines.
std::string valueIn(const std::string& text, const std::string& key) {
  const size_t at = ("\n" + text).find("\n" + key + ":");
  if (at == std::string::npos) {
    return {};
  }
  const size_t from = text.find_first_not_of(" \t", at + key.size() + 1);
  return from == std::string::npos ? std::string()
                                   : text.substr(from, text.find('\n', from) - from);
}

std::string inProc(pid_t id) { return "/proc/" + std::to_string(id); }

// Which a thread's id leads to as well.
pid_t processOf(pid_t id) {
  const std::string of = valueIn(readAt(AT_FDCWD, (inProc(id) + "/status").c_str()), "Tgid");
  return of.empty() ? id : static_cast<pid_t>(std::atol(of.c_str()));
}

// Of the monotonic clock in the namespace of a process or thread.
int64_t clockOffset(const std::string& directory) {
  const std::string offsets = readAt(AT_FDCWD, (directory + "/timens_offsets").c_str());
  int64_t seconds = 0;
  int64_t nanoseconds = 0;
  std::sscanf(offsets.c_str(), "monotonic %" SCNd64 " %" SCNd64, &seconds, &nanoseconds);
  return seconds * 1'000'000'000 + nanoseconds;
}

void expectAllowed(bool isOpen, pid_t pid) {
  if (!isOpen && (errno == EACCES || errno == EPERM)) {
    throw Mistake("process " + std::to_string(pid) + " may not be looked into: " + strerror(errno) +
                  " (its user, or CAP_SYS_PTRACE, is needed)");
  }
}

}  // namespace

LiveTarget::LiveTarget(pid_t pid)
    : pid_(processOf(pid)),
      process_(open(inProc(pid_).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)),
      tasks_(openat(process_.get(), "task", O_RDONLY | O_DIRECTORY | O_CLOEXEC)),
      isInNamespace_(valueIn(textOf("status"), "NSpid").find('\t') != std::string::npos),
      living_(findLivingThread()),
      clockAheadNs_(clockOffset(inProc(living_)) - clockOffset("/proc/self")),
      home_(openat(tasks_.get(), std::to_string(living_).c_str(),
                   O_RDONLY | O_DIRECTORY | O_CLOEXEC)),
      memory_(openat(home_.get(), "mem", O_RDONLY | O_CLOEXEC)) {
  expectAllowed(memory_.valid(), pid_);
}

pid_t LiveTarget::findLivingThread() const {
  if (!tasks_.valid()) {
    throw Mistake("no process " + std::to_string(pid_));
  }
  const auto hasMemory = [this](pid_t tid) {
    const std::string path = std::to_string(tid) + "/maps";
    const ScopedFd maps(openat(tasks_.get(), path.c_str(), O_RDONLY | O_CLOEXEC));
    expectAllowed(maps.valid(), pid_);
    return maps.valid() && !readPiece(maps.get()).empty();
  };
  if (hasMemory(pid_)) {
    return pid_;  // it takes a while to find the others
  }
  for (const pid_t tid : threads()) {
    if (hasMemory(idSeenFromHere(tid))) {
      return idSeenFromHere(tid);
    }
  }
  throw Mistake("process " + std::to_string(pid_) + " has ended, or is the kernel's");
}

std::string LiveTarget::textOf(const std::string& file) const {
  return readAt(process_.get(), file.c_str());
}

std::string LiveTarget::textOf(pid_t tid, const char* file) const {
  std::array<char, 64> path{};
  std::snprintf(path.data(), path.size(), "%d/%s", idSeenFromHere(tid), file);
  return readAt(tasks_.get(), path.data());
}

bool LiveTarget::read(uint64_t address, void* to, size_t bytes) const {
  return pread(memory_.get(), to, bytes, static_cast<off_t>(address)) ==
         static_cast<ssize_t>(bytes);
}

std::vector<Mapping> LiveTarget::mappings() const {
  std::vector<Mapping> all;
  std::istringstream lines(readAt(home_.get(), "maps"));
  for (std::string line; std::getline(lines, line);) {
    Mapping mapping;
    char mayWrite = '-';
    char sharing = '-';
    int path = 0;
    if (std::sscanf(line.c_str(), "%" SCNx64 "-%" SCNx64 " %*c%c%*c%c %*s %*s %*s %n",
                    &mapping.start, &mapping.end, &mayWrite, &sharing, &path) == 4) {
      // To look into what is shared would take memory for it, where it has not been used yet.
      mapping.isWritable = mayWrite == 'w' && sharing == 'p';
      mapping.path = path > 0 ? line.substr(static_cast<size_t>(path)) : std::string();
      all.push_back(std::move(mapping));
    }
  }
  return all;
}

std::vector<pid_t> LiveTarget::threads() const {
  std::vector<pid_t> all;
  const int copy = openat(tasks_.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const std::unique_ptr<DIR, int (*)(DIR*)> entries(copy < 0 ? nullptr : fdopendir(copy), closedir);
  while (const dirent* entry = entries == nullptr ? nullptr : readdir(entries.get())) {
    auto tid = static_cast<pid_t>(std::strtol(entry->d_name, nullptr, 10));
    if (tid > 0 && isInNamespace_) {
      const std::string seen =
          readAt(tasks_.get(), (entry->d_name + std::string("/status")).c_str());
      const std::string ids = valueIn(seen, "NSpid");
      const pid_t own = static_cast<pid_t>(std::atol(ids.c_str() + ids.rfind('\t') + 1));
      idsSeenFromHere_[own] = tid;
      tid = own;
    }
    if (tid > 0) {
      all.push_back(tid);
    }
  }
  return all;
}

pid_t LiveTarget::idSeenFromHere(pid_t tid) const {
  const auto known = idsSeenFromHere_.find(tid);
  return known != idsSeenFromHere_.end() ? known->second : isInNamespace_ ? 0 : tid;
}

std::optional<Call> LiveTarget::callOf(pid_t tid) const {
  std::array<char, 64> path{};
  std::snprintf(path.data(), path.size(), "%d/syscall", idSeenFromHere(tid));
  const ScopedFd file(openat(tasks_.get(), path.data(), O_RDONLY | O_CLOEXEC));
  const std::string text = readPiece(file.get());
  Call call;
  auto& [a, b, c, d, e, f] = call.arguments;
  const int found =
      std::sscanf(text.c_str(),
                  "%ld 0x%" SCNx64 " 0x%" SCNx64 " 0x%" SCNx64 " 0x%" SCNx64 " 0x%" SCNx64
                  " 0x%" SCNx64 " 0x%" SCNx64 " 0x%" SCNx64,
                  &call.number, &a, &b, &c, &d, &e, &f, &call.stackPointer, &call.programCounter);
  if (found == 9) {
    return call;
  }
  if (found >= 1) {  // blocked outside a system call: "-1 SP PC"
    call = {};
    std::sscanf(text.c_str(), "%*d 0x%" SCNx64 " 0x%" SCNx64, &call.stackPointer,
                &call.programCounter);
    return call;
  }
  if (text.starts_with("running")) {
    call.isRunning = true;
    return call;
  }
  return std::nullopt;
}

std::optional<Detail> LiveTarget::detailOf(pid_t tid) const {
  Detail detail;
  const std::string status = textOf(tid, "status");
  if (status.empty()) {
    return std::nullopt;
  }
  detail.name = trimmed(textOf(tid, "comm"));
  detail.state = valueIn(status, "State").substr(0, 1).c_str()[0];
  detail.tracer = static_cast<pid_t>(std::atol(valueIn(status, "TracerPid").c_str()));
  detail.blocked = std::strtoull(valueIn(status, "SigBlk").c_str(), nullptr, 16);
  detail.sleeps = std::strtoull(valueIn(status, "voluntary_ctxt_switches").c_str(), nullptr, 10);
  std::sscanf(textOf(tid, "schedstat").c_str(), "%" SCNu64 " %" SCNu64, &detail.runNs,
              &detail.delayNs);
  if (detail.state == 'D' || detail.state == 'S') {
    detail.kernelPlace = trimmed(textOf(tid, "wchan"));
  }
  return detail;
}

std::string LiveTarget::descriptor(int fd) const {
  std::array<char, 4096> target{};
  const std::string link = "fd/" + std::to_string(fd);
  const ssize_t length = readlinkat(home_.get(), link.c_str(), target.data(), target.size() - 1);
  return length <= 0 ? "closed" : std::string(target.data(), static_cast<size_t>(length));
}

std::string LiveTarget::kernelStack(pid_t tid) const { return textOf(tid, "stack"); }

std::string LiveTarget::name() const { return trimmed(textOf("comm")); }

std::optional<timespec> LiveTarget::now() const {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  const int64_t ns = now.tv_sec * 1'000'000'000 + now.tv_nsec + clockAheadNs_;
  return timespec{ns / 1'000'000'000, ns % 1'000'000'000};
}

// The start is told in ticks since the machine's.
int64_t LiveTarget::upMs() const {
  const std::string stat = textOf("stat");
  const size_t behindName = stat.rfind(')');
  uint64_t startTicks = 0;
  timespec now{};
  if (behindName == std::string::npos ||
      std::sscanf(stat.c_str() + behindName + 1,
                  " %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %*u %*u %*d %*d %*d %*d %*d %*d "
                  "%" SCNu64,
                  &startTicks) != 1 ||
      clock_gettime(CLOCK_BOOTTIME, &now) != 0) {
    return -1;
  }
  const auto startedMs = static_cast<int64_t>(startTicks) * 1000 / sysconf(_SC_CLK_TCK);
  return now.tv_sec * 1000 + now.tv_nsec / 1'000'000 - startedMs;
}

}  // namespace qurn::inspect
