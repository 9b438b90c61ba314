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

// A path's setting for a scope.
class Scope {
 public:
  Scope(const Scope&) = delete;
  Scope& operator=(const Scope&) = delete;

 protected:
  explicit Scope(void (*leave)()) : leave_(leave) {}
  ~Scope() {
    if (leave_ != nullptr) {
      leave_();
    }
  }

 private:
  void (*leave_)();
};

struct InProcess : Scope {
  InProcess(const Path& path, uint64_t size) : Scope(path.setting->leaveProcess) {
    if (path.setting->enterProcess != nullptr) {
      path.setting->enterProcess(size);
    }
  }
};

struct InThread : Scope {
  explicit InThread(const Path& path) : Scope(path.setting->leaveThread) {
    if (path.setting->enterThread != nullptr) {
      path.setting->enterThread();
    }
  }
};

}  // namespace bench
