// The component's exception configuration: which signals its process ignores. Runs once, on the
// thread that starts the subsystem up; only the handler of an ignored signal runs anywhere.
#include <qurnadapt/exception.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "frame_mnt.h"

namespace {

constexpr char kSignalIgnoreKey[] = "exception.signalIgnore";

// A name's index is its signal's number.
constexpr std::array<const char*, 32> FrameSigIdTable{
    "SIG0",      "SIGHUP",  "SIGINT",    "SIGQUIT", "SIGILL",   "SIGTRAP", "SIGABRT", "SIGBUS",
    "SIGFPE",    "SIGKILL", "SIGUSR1",   "SIGSEGV", "SIGUSR2",  "SIGPIPE", "SIGALRM", "SIGTERM",
    "SIGSTKFLT", "SIGCHLD", "SIGCONT",   "SIGSTOP", "SIGTSTP",  "SIGTTIN", "SIGTTOU", "SIGURG",
    "SIGXCPU",   "SIGXFSZ", "SIGVTALRM", "SIGPROF", "SIGWINCH", "SIGIO",   "SIGPWR",  "SIGSYS"};

constexpr std::array<const char*, 5> FrameSigIgnoreSupportTable{"SIGHUP", "SIGTTIN", "SIGSYS",
                                                                "SIGTTOU", "SIGPIPE"};

uint32_t ignoreSignal(const char* sigName) noexcept {
  if (sigName == nullptr || *sigName == '\0') {
    MNT_LOG(TOV_LOG_ERROR, "Signal ignore operation, signame empty.");
    return QURN_INVALID_ARGUMENT;
  }
  if (FrameSignalIsSupportIgnore(sigName) == 0) {
    MNT_LOG(TOV_LOG_ERROR, "Signal ignore operation, signame not support ignore. (sigName = %s)",
            sigName);
    return QURN_FAILED;
  }
  uint32_t sigId = 0;
  if (FrameGetSigId(sigName, &sigId) != QURN_OK) {
    MNT_LOG(TOV_LOG_ERROR, "Signal ignore operation, sigName invalid. (sigName = %s)", sigName);
    return QURN_INVALID_ARGUMENT;
  }
  qurn::mnt::bindForSignals(FrameSignalIgnoreFunc, 0U, nullptr, nullptr);
  if (const uint32_t ret = KEM_SigcapHandleReg(sigId, FrameSignalIgnoreFunc); ret != QURN_OK) {
    MNT_LOG(TOV_LOG_ERROR, "Signal ignore operation, kem reg unsuccessfully. (ret = %u)", ret);
    return QURN_FAILED;
  }
  return QURN_OK;
}

}  // namespace

extern "C" {

uint32_t FrameExceptionInit(void) {
  const char* path = FrameParamGet(CF_COMP_CFG);
  if (path == nullptr) {
    return QURN_OK;
  }
  void* yaml = TovYamlLoadFile(path);
  if (yaml == nullptr) {
    MNT_LOG(TOV_LOG_ERROR, "Exception operation, cannot get yaml handle. (path = %s)", path);
    return QURN_FAILED;
  }
  uint32_t ret = QURN_OK;
  if (TovYamlIsKeyExist(yaml, "exception")) {
    ret = FrameExceptionSignalIgnoreInit(yaml, kSignalIgnoreKey);
  }
  TovYamFreelHandle(yaml);
  return ret;
}

uint32_t FrameExceptionSignalIgnoreInit(void* yaml, const char* key) {
  const uint32_t count = TovYamlGetArraySize(yaml, "%s", key);
  for (uint32_t i = 0; i < count; ++i) {
    const uint32_t ret = ignoreSignal(TovYamlGetProperty(yaml, "%s[%u]", key, i));
    if (ret != QURN_OK) {
      return ret;
    }
  }
  return QURN_OK;
}

uint32_t FrameSignalIsSupportIgnore(const char* sigName) {
  return std::any_of(FrameSigIgnoreSupportTable.begin(), FrameSigIgnoreSupportTable.end(),
                     [sigName](const char* name) { return strcmp(name, sigName) == 0; })
             ? 1
             : 0;
}

uint32_t FrameGetSigId(const char* sigName, uint32_t* sigId) {
  for (uint32_t i = 0; i < FrameSigIdTable.size(); ++i) {
    if (strcmp(FrameSigIdTable[i], sigName) == 0) {
      *sigId = i;
      return QURN_OK;
    }
  }
  return QURN_FAILED;
}

uint32_t FrameSignalIgnoreFunc(uint32_t /*sigId*/, void* /*info*/, void* /*context*/) { return 1; }

}  // extern "C"
