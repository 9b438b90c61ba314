// Process-level calls of the legacy platform: high availability, location, overload control and
// pipes, which the framework does not provide, encryption, which it does, and the version.
#include <qurnadapt/legacy_fixed.h>

#include "common/unit_log.h"
#include "internal/tail_jump.h"

namespace {
constexpr char kUnit[] = "build/src/adapt/frame/dbg/CMakeFiles/adaptmnt.dir/src/qurn_process";
}

QURN_TAIL_JUMP(KEM_CRYPT_Encrypt_Sec, TovPluginKmsEncrypt, "");
QURN_TAIL_JUMP(KEM_CRYPT_Decrypt_Sec, TovPluginKmsDecrypt, "");

extern "C" {

constinit const char* const g_pcMorlaadaptMiniVer = "2.2.0";
constinit const char* const g_pcMorlaadaptInterSubVer = "B137";
constinit const char* const g_pcMorlaadaptOuterVer = "TOV V2.2";

uint32_t HAF_GetBackupCompCid(...) { return 0; }
uint32_t HAF_GetHaRole(...) { return 0; }
uint32_t HAF_GetPartnerInfo(...) { return 0; }
uint32_t HAF_SendBackupReady(...) { return 0; }
uint32_t HAF_Subscribe(...) { return 0; }
uint32_t HAF_UnSubscribe(...) { return 0; }
void HAF_SetCommonHeader(...) {}
uint32_t HAF_SUBS_NotifyLocStateMsg(...) { return 0; }
uint32_t HAF_DoObjReportFailure(...) { return 0; }
uint32_t HAF_PartnerStatusAck(...) { return 0; }
uint32_t HAF_SendStartWorkRsp(...) { return 0; }
uint32_t HAF_SendStopWorkRsp(...) { return 0; }
uint32_t HAF_SendPromptPrimaryRsp(...) { return 0; }
uint32_t HAF_SendStopPrimaryRsp(...) { return 0; }
uint32_t SISP_HA_RegCompHaEvent(...) { return 0; }
uint32_t SISP_HA_SetDataTransferOpt(...) { return 0; }
uint32_t SISP_HA_TransmitData(...) { return 0; }

uint32_t LOC_GetMiniMasterCid(...) { return 0; }
uint32_t LOC_SetMiniMasterCid(...) { return 0; }

uint32_t SSP_OverLoadGetType(...) { return 0; }
uint32_t SSP_OverLoadAck(...) { return 0; }

uint32_t KEM_PipePTInit(...) { return 0; }
uint32_t KEM_SetPipeCacheFlag(...) { return 0; }
uint32_t ZOT_PipeOpen(...) { return 0; }
uint32_t ZOT_PipeOpenRsp(...) { return 0; }
uint32_t ZOT_PipeClose(...) { return 0; }
uint32_t ZOT_PipeCloseRsp(...) { return 0; }
uint32_t ZOT_PipeCloseLocal(...) { return 0; }
uint32_t ZOT_PipeTokenSet(...) { return 0; }
uint32_t ZOT_PipeLowPrioSchAreaSchNumUpdate(...) { return 0; }

void TOV_SetProcessSlotId(uint32_t slotId) {
  QURN_LOG_AS(LOG_InnerPrint, kUnit, TOV_LOG_INFO, "tOV process slot id (%u) set success.", slotId);
}

}  // extern "C"
