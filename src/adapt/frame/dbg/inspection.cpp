// The record that readers of the process go by. Nothing else refers to it.
#include "common/inspection_record.h"

#include <qurnadapt/keep_alive.h>

#include <cstddef>

#include "qurn_frame_mnt/capture_record.h"
#include "qurn_frame_mnt/frame_mnt.h"
#include "qurn_frame_mnt/keep_alive_record.h"
#include "tov_deadloop_task/monitor_table.h"

namespace qurn {
namespace {

using inspection::Record;
using mnt::FrameDeadloopDumpCtrl;
using mnt::FrameKeepAliveCtrl;
using mnt::FrameProcInfo;
using monitor::FatalEvent;
using monitor::FrameDeadloopMonitorNode;
using monitor::FrameTaskDeadloopCtrl;

// The same for readers built for this version, whichever the library's build.
static_assert(offsetof(Record, monitor) == 40 && offsetof(Record, capture) == 80 &&
              offsetof(Record, keepAlive) == 112 && offsetof(Record, process) == 152 &&
              offsetof(Record, detectionPeriod) == 176 && sizeof(Record) == 184);

constexpr uint32_t at(size_t offset) { return static_cast<uint32_t>(offset); }

// Addresses only.
// NOLINTNEXTLINE(cppcoreguidelines-interfaces-global-init)
[[gnu::used]] constinit Record g_record{
    inspection::kMagic,
    inspection::kVersion,
    sizeof(Record),
    {&monitor::g_ctrl, sizeof(FrameTaskDeadloopCtrl),
     at(offsetof(FrameTaskDeadloopCtrl, ucIsInited)),
     at(offsetof(FrameTaskDeadloopCtrl, ulFatalTaskIndex)),
     at(offsetof(FrameTaskDeadloopCtrl, fatalEvent) + offsetof(FatalEvent, sentAt)),
     at(offsetof(FrameTaskDeadloopCtrl, astNode)), sizeof(FrameDeadloopMonitorNode),
     FRAME_MONITOR_CAPACITY, at(offsetof(FrameDeadloopMonitorNode, stTaskInfo))},
    {&mnt::g_dump, sizeof(FrameDeadloopDumpCtrl), at(offsetof(FrameDeadloopDumpCtrl, status)),
     at(offsetof(FrameDeadloopDumpCtrl, capturedDepth)),
     at(offsetof(FrameDeadloopDumpCtrl, capturedStackLength)),
     at(offsetof(FrameDeadloopDumpCtrl, callStack)), at(offsetof(FrameDeadloopDumpCtrl, dumpInfo))},
    {&mnt::g_keepAlive, sizeof(FrameKeepAliveCtrl),
     at(offsetof(FrameKeepAliveCtrl, keepAlivePeriod)),
     at(offsetof(FrameKeepAliveCtrl, keepAliveHook)), &g_FrameReady, &mnt::lastKeepAliveTime},
    {&mnt::g_procInfo, sizeof(FrameProcInfo), at(offsetof(FrameProcInfo, pid)),
     at(offsetof(FrameProcInfo, procName)), sizeof(FrameProcInfo::procName)},
    &mnt::periodDelay};

}  // namespace
}  // namespace qurn
