// Legacy logging, exit, assertion and environment, routed onto the framework. Callable from any
// thread; the only lock is the environment's.
#include <pthread.h>
#include <qurnadapt/legacy_fixed.h>
#include <qurnadapt/legacy_process.h>
#include <unistd.h>

#include <array>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "common/unit_log.h"
#include "internal/scoped_lock.h"
#include "internal/tail_jump.h"

QURN_TAIL_JUMP(ZOT_Assert, RuloPluginAssert, "");

// The C library's call under its own name in every build: a fortified build's <syslog.h> would call
// another one, past whoever stands in front of it.
extern "C" void plainVsyslog(int priority, const char* format, va_list args) asm("vsyslog");

namespace {

constexpr char kUnit[] =
    "build/src/adapt/frame/dbgbase/CMakeFiles/adaptdbgbase.dir/src/tov_dbgbase";
#define DBGBASE_LOG(level, ...) QURN_LOG_AS(LOG_InnerPrint, kUnit, level, __VA_ARGS__)

constexpr uint32_t kMistakeBox = 3;
constexpr uint32_t kExceptionBox = 4;

// Read-held around every environment look-up; nothing in here writes the environment.
constinit pthread_rwlock_t g_environmentLock = PTHREAD_RWLOCK_INITIALIZER;

constexpr std::array<const char*, 4> kIdentifierVariables{"ZOT_DB_ID", "ZOT_NODE_ID", "ZOT_LR_ID",
                                                          "ZOT_VR_ID"};

struct FreeText {
  void operator()(char* text) const noexcept { free(text); }
};

uint32_t showBox(uint32_t region) noexcept {
  return KEM_BoxextRecordShow(region, 0, 20, 0xFFFFFFFF);
}

}  // namespace

extern "C" {

void ZotKemLogPrint(const char* format, ...) {
  va_list args;
  va_start(args, format);
  LOG_InnerVprint(0, 1, nullptr, 0, nullptr, 0, 0, TOV_LOG_INFO, format, args);
  va_end(args);
}

uint32_t ZotKemLogPrintHook(const char* text) {
  ZotKemLogPrint("%s", text);
  return 0;
}

uint32_t ZotKemBoxRedirectHook(void* /*ignored*/, const char* text) {
  ZotKemLogPrint("%s", text);
  return 1;
}

uint32_t ZotKemBoxRecordDump(void) {
  KEM_HookPrint(ZotKemLogPrintHook);
  if (const uint32_t ret = showBox(kMistakeBox); ret != QURN_OK) {
    DBGBASE_LOG(TOV_LOG_ERROR, "Get Kelva box record mistake log unsuccessfully. RetCode(%#x).",
                ret);
  }
  KEM_BoxextRegionClean(kMistakeBox);
  if (const uint32_t ret = showBox(kExceptionBox); ret != QURN_OK) {
    DBGBASE_LOG(TOV_LOG_ERROR, "Get Kelva box record except log unsuccessfully. RetCode(%#x).",
                ret);
  }
  return KEM_BoxextRegionClean(kExceptionBox);
}

uint32_t ZotKemRunLogFuncReg(void) {
  if (const uint32_t ret = KEM_BoxextRedirectHookReg(ZotKemBoxRedirectHook); ret != QURN_OK) {
    DBGBASE_LOG(TOV_LOG_ERROR, "Frame Kelva run log func register unsuccessfully, RetCode(%#x).",
                ret);
    return QURN_FAILED;
  }
  return QURN_OK;
}

uint32_t ZotKemLogInit(void) {
  const uint32_t ret = ZotKemRunLogFuncReg();
  if (ret != QURN_OK) {
    DBGBASE_LOG(TOV_LOG_ERROR, "Frame kelva log init unsuccessfully. (ret = %#x)", ret);
  } else {
    DBGBASE_LOG(TOV_LOG_INFO, "Frame kelva log init successful.");
  }
  return ret;
}

void ZOT_Exit(int32_t code) {
  ZotKemBoxRecordDump();
  DBGBASE_LOG(TOV_LOG_ERROR, "ZOT_Exit with code %d. (process id = %u)", code,
              static_cast<uint32_t>(getpid()));
  _exit(code);
}

void ZOT_syslog(int32_t priority, const char* format, ...) {
  va_list args;
  va_start(args, format);
  plainVsyslog(priority, format, args);
  va_end(args);
}

char* ZOT_LocGetEnv(const char* name) {
  if (name == nullptr) {
    return nullptr;
  }
  const qurn::ReadLock lock(g_environmentLock);
  const char* value = getenv(name);
  return value == nullptr ? nullptr : strdup(value);
}

uint32_t ZotGetEnvUINT32(const char* name, uint32_t* out) {
  const std::unique_ptr<char, FreeText> value(ZOT_LocGetEnv(name));
  if (value == nullptr) {
    return QURN_FAILED;
  }
  *out = static_cast<uint32_t>(atoi(value.get()));
  return QURN_OK;
}

uint32_t ZOT_GetEnvValue(uint32_t selector, uint32_t* out) {
  if (out == nullptr || selector >= kIdentifierVariables.size()) {
    return QURN_FAILED;
  }
  uint32_t value = 0;
  if (ZotGetEnvUINT32(kIdentifierVariables[selector], &value) != QURN_OK) {
    return QURN_FAILED;
  }
  *out = value;
  return QURN_OK;
}

void* ZOT_CompLocalCreate(...) { return nullptr; }

}  // extern "C"
