// A registered thread that sends no heartbeat.
#pragma once

#include <gtest/gtest.h>
#include <pthread.h>
#include <qurnadapt/monitor.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <semaphore>
#include <string>
#include <thread>

class SilentThread {
 public:
  SilentThread(const std::string& name, uint32_t first, uint32_t second, uint32_t third)
      : thread_([=, this] {
          pthread_setname_np(pthread_self(), name.c_str());
          tid_ = static_cast<int>(syscall(SYS_gettid));
          EXPECT_EQ(Frame_SetHeartbeatToMon(&slot_, first, second, third), QURN_OK);
          registered_.release();
          end_.acquire();
        }) {
    registered_.acquire();
  }
  ~SilentThread() { end(); }
  // Lets it end without stopping its heartbeat.
  void end() {
    if (thread_.joinable()) {
      end_.release();
      thread_.join();
    }
  }
  [[nodiscard]] int tid() const { return tid_; }
  [[nodiscard]] FrameDeadloopHandle* slot() { return &slot_; }

 private:
  FrameDeadloopHandle slot_ = 0;
  std::atomic<int> tid_{0};
  std::binary_semaphore registered_{0};
  std::binary_semaphore end_{0};
  std::thread thread_;
};
