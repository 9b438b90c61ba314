// The hot paths, each beside its floor: the primitive operations that the interface prescribes for
// it and nothing else. Timed by one program and counted by another.
#pragma once

#include <cstdint>
#include <span>

namespace bench {

// Prepares the process or the thread for a path, and undoes it.
struct Setting {
  void (*enterProcess)(uint64_t size);  // may be null
  void (*leaveProcess)();
  void (*enterThread)();
  void (*leaveThread)();
};

struct Path {
  const char* name;
  void (*run)();
  const Setting* setting;
};

std::span<const Path> paths();
// The path of this name, or null.
const Path* findPath(const char* name);

// Scope of a setting, in the process or in a thread.
class InProcess {
 public:
  InProcess(const Path& path, uint64_t size) : setting_(*path.setting) {
    if (setting_.enterProcess != nullptr) {
      setting_.enterProcess(size);
    }
  }
  ~InProcess() {
    if (setting_.leaveProcess != nullptr) {
      setting_.leaveProcess();
    }
  }
  InProcess(const InProcess&) = delete;
  InProcess& operator=(const InProcess&) = delete;

 private:
  const Setting& setting_;
};

class InThread {
 public:
  explicit InThread(const Path& path) : setting_(*path.setting) {
    if (setting_.enterThread != nullptr) {
      setting_.enterThread();
    }
  }
  ~InThread() {
    if (setting_.leaveThread != nullptr) {
      setting_.leaveThread();
    }
  }
  InThread(const InThread&) = delete;
  InThread& operator=(const InThread&) = delete;

 private:
  const Setting& setting_;
};

}  // namespace bench
