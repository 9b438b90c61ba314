// Stands in for the framework's key management, which it does not have: nothing is encrypted or
// decrypted, and nobody is left to believe so.
#include <qurnadapt/platform.h>

#include "common/unit_log.h"

namespace {

constexpr char kUnit[] = "key_management_stand_in";

uint32_t refuse(const char* what) {
  QURN_LOG_AS(LOG_InnerPrint, kUnit, TOV_LOG_ERROR,
              "The stand-in platform has no key management: nothing was %s.", what);
  return QURN_FAILED;
}

}  // namespace

extern "C" {

uint32_t TovPluginKmsEncrypt(...) { return refuse("encrypted"); }
uint32_t TovPluginKmsDecrypt(...) { return refuse("decrypted"); }

}  // extern "C"
