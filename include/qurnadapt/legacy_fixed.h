/* Legacy calls of services that the framework does not provide, each with a fixed result, so that
 * components which still make them link and run. Except where said they ignore their arguments,
 * have no effect and may be called from any thread, signal handlers included. */
#ifndef QURNADAPT_LEGACY_FIXED_H
#define QURNADAPT_LEGACY_FIXED_H

#include <qurnadapt/api.h>
#include <stdint.h>

QURN_BEGIN_DECLS

/* Message buffers and sending: there are none. Null, and 0 for the others; the header length check
 * passes with 1. ZOT_MsgFlowCtrlAlloc_F calls the process's ZOT_MsgAlloc, with its third argument
 * in second place. */
QURN_API void* ZOT_MsgAlloc(QURN_ANY_ARGUMENTS);
QURN_API void* ZOT_MsgFlowCtrlAlloc_F(QURN_ANY_ARGUMENTS);
QURN_API uint32_t ZOT_MsgFree(QURN_ANY_ARGUMENTS);
QURN_API uint32_t ZOT_SEND_MSG(QURN_ANY_ARGUMENTS);
QURN_API uint32_t ZOT_SEND_URGENT_MSG(QURN_ANY_ARGUMENTS);
QURN_API uint32_t ZOT_ZotMsgHeaderLenCheck(QURN_ANY_ARGUMENTS);

/* A component's local data: there is none, null. */
QURN_API void* ZOT_CompLocalCreate(QURN_ANY_ARGUMENTS);

/* Start and end of the legacy list module: 0. */
QURN_API uint32_t ZOT_DllInit(QURN_ANY_ARGUMENTS);
QURN_API uint32_t ZOT_DllFini(QURN_ANY_ARGUMENTS);

/* Tracing: 0, and 2 for the question whether a message is traced. Weak where the library defines
 * them: a definition that the loader finds first, the program's or an earlier library's, takes
 * their place. */
QURN_API uint32_t TRC_RegisterFunction(QURN_ANY_ARGUMENTS);
QURN_API uint32_t TRC_SetConfigPara(QURN_ANY_ARGUMENTS);
QURN_API uint32_t TRC_InstanceEventPoint(QURN_ANY_ARGUMENTS);
QURN_API uint32_t TRC_IsTraceCompMsg(QURN_ANY_ARGUMENTS);
QURN_API uint32_t TRC_CompMsgProc(QURN_ANY_ARGUMENTS);

/* High availability: 0. */
QURN_API uint32_t HAF_GetBackupCompCid(QURN_ANY_ARGUMENTS);
QURN_API uint32_t HAF_GetHaRole(QURN_ANY_ARGUMENTS);
QURN_API uint32_t HAF_GetPartnerInfo(QURN_ANY_ARGUMENTS);
QURN_API uint32_t HAF_SendBackupReady(QURN_ANY_ARGUMENTS);
QURN_API uint32_t HAF_Subscribe(QURN_ANY_ARGUMENTS);
QURN_API uint32_t HAF_UnSubscribe(QURN_ANY_ARGUMENTS);
QURN_API void HAF_SetCommonHeader(QURN_ANY_ARGUMENTS);
QURN_API uint32_t HAF_SUBS_NotifyLocStateMsg(QURN_ANY_ARGUMENTS);
QURN_API uint32_t HAF_DoObjReportFailure(QURN_ANY_ARGUMENTS);
QURN_API uint32_t HAF_PartnerStatusAck(QURN_ANY_ARGUMENTS);
QURN_API uint32_t HAF_SendStartWorkRsp(QURN_ANY_ARGUMENTS);
QURN_API uint32_t HAF_SendStopWorkRsp(QURN_ANY_ARGUMENTS);
QURN_API uint32_t HAF_SendPromptPrimaryRsp(QURN_ANY_ARGUMENTS);
QURN_API uint32_t HAF_SendStopPrimaryRsp(QURN_ANY_ARGUMENTS);
QURN_API uint32_t SISP_HA_RegCompHaEvent(QURN_ANY_ARGUMENTS);
QURN_API uint32_t SISP_HA_SetDataTransferOpt(QURN_ANY_ARGUMENTS);
QURN_API uint32_t SISP_HA_TransmitData(QURN_ANY_ARGUMENTS);

/* Location service: 0. */
QURN_API uint32_t LOC_GetMiniMasterCid(QURN_ANY_ARGUMENTS);
QURN_API uint32_t LOC_SetMiniMasterCid(QURN_ANY_ARGUMENTS);

/* Overload control: 0. */
QURN_API uint32_t SSP_OverLoadGetType(QURN_ANY_ARGUMENTS);
QURN_API uint32_t SSP_OverLoadAck(QURN_ANY_ARGUMENTS);

/* Pipes: 0. */
QURN_API uint32_t KEM_PipePTInit(QURN_ANY_ARGUMENTS);
QURN_API uint32_t KEM_SetPipeCacheFlag(QURN_ANY_ARGUMENTS);
QURN_API uint32_t ZOT_PipeOpen(QURN_ANY_ARGUMENTS);
QURN_API uint32_t ZOT_PipeOpenRsp(QURN_ANY_ARGUMENTS);
QURN_API uint32_t ZOT_PipeClose(QURN_ANY_ARGUMENTS);
QURN_API uint32_t ZOT_PipeCloseRsp(QURN_ANY_ARGUMENTS);
QURN_API uint32_t ZOT_PipeCloseLocal(QURN_ANY_ARGUMENTS);
QURN_API uint32_t ZOT_PipeTokenSet(QURN_ANY_ARGUMENTS);
QURN_API uint32_t ZOT_PipeLowPrioSchAreaSchNumUpdate(QURN_ANY_ARGUMENTS);

/* Encryption: every argument goes unchanged to TovPluginKmsEncrypt or TovPluginKmsDecrypt of the
 * framework, whose result is returned. Thread-safe if the framework's call is. */
QURN_API uint32_t KEM_CRYPT_Encrypt_Sec(QURN_ANY_ARGUMENTS);
QURN_API uint32_t KEM_CRYPT_Decrypt_Sec(QURN_ANY_ARGUMENTS);

/* Logs the slot id of the process and stores nothing. Thread-safe, not async-signal-safe. */
QURN_API void TOV_SetProcessSlotId(uint32_t slotId);

/* Version of the library: release, internal build, and the framework's name with its release. */
QURN_API extern const char* const g_pcMorlaadaptMiniVer;
QURN_API extern const char* const g_pcMorlaadaptInterSubVer;
QURN_API extern const char* const g_pcMorlaadaptOuterVer;

QURN_END_DECLS

#endif
