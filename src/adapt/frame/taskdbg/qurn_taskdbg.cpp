// The legacy heart function set. It is written while the library is loaded and again, with the same
// values, at start-up; no lock is needed.
#include <qurnadapt/legacy_heart.h>

constinit TovHeartFunSet g_stTovHeartFunSet{};

extern "C" {

uint32_t ZotHeartFunReg(const TovHeartFunSet* funSet) {
  if (funSet == nullptr || funSet->pfnSetHeartMon == nullptr ||
      funSet->pfnSendHeartToMon == nullptr || funSet->pfnStopHeartToMon == nullptr ||
      funSet->pfnRegThreadDeadloopHook == nullptr || funSet->pfnReboot == nullptr) {
    return QURN_FAILED;
  }
  g_stTovHeartFunSet = *funSet;
  return QURN_OK;
}

}  // extern "C"
