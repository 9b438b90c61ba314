// A registered thread, "silent", that sends no heartbeat; its thresholds are one second. Its stack
// is its own and goes with it, the thread's control block included: what its POSIX identifier names
// is then unmapped.
#pragma once

#include <gtest/gtest.h>
#include <pthread.h>
#include <qurnadapt/monitor.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <semaphore>

#include "recording_platform.h"

class SilentThread {
 public:
  SilentThread() {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstack(&attributes, stack_, kStackBytes);
    const auto main = [](void* self) { return static_cast<SilentThread*>(self)->beSilent(); };
    EXPECT_EQ(pthread_create(&thread_, &attributes, main, this), 0);
    registered_.acquire();
  }
  ~SilentThread() { end(); }
  // Lets it end without stopping its heartbeat. The kernel knows a joined thread for a moment more.
  void end() {
    if (tid_ != 0) {
      mayEnd_ = true;
      pthread_join(thread_, nullptr);
      EXPECT_TRUE(eventually([this] { return tgkill(getpid(), tid_, 0) != 0; }));
      munmap(stack_, kStackBytes);
      tid_ = 0;
    }
  }
  [[nodiscard]] FrameDeadloopHandle* slot() { return &slot_; }
  [[nodiscard]] pid_t tid() const { return tid_; }
  void interrupt() const { pthread_kill(thread_, SIGRTMIN + 2); }

 private:
  static constexpr size_t kStackBytes = 1 << 20;
  void* beSilent() {
    pthread_setname_np(pthread_self(), "silent");
    tid_ = gettid();
    EXPECT_EQ(Frame_SetHeartbeatToMon(&slot_, 1, 1, 1), QURN_OK);
    registered_.release();
    while (!mayEnd_) {
      usleep(1000);  // where the sanitizer for threads runs handlers at once
    }
    return nullptr;
  }

  void* stack_ =
      mmap(nullptr, kStackBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  FrameDeadloopHandle slot_ = 0;
  pid_t tid_ = 0;
  pthread_t thread_{};
  std::binary_semaphore registered_{0};
  std::atomic<bool> mayEnd_{false};
};
