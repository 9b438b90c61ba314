// What the keep-alive reports go by.
#pragma once

#include <qurnadapt/keep_alive.h>

#include <atomic>
#include <cstdint>
#include <ctime>

namespace qurn::mnt {

struct FrameKeepAliveCtrl {
  std::atomic<bool> taken;  // a registration has been accepted
  std::atomic<uint32_t> keepAlivePeriod;
  std::atomic<FrameKeepAliveHook>
      keepAliveHook;  // published last: param and period are set by then
  std::atomic<void*> keepAliveParam;
};

extern constinit FrameKeepAliveCtrl g_keepAlive;

// When the last report succeeded. Detection thread only.
extern constinit timespec lastKeepAliveTime;

}  // namespace qurn::mnt
