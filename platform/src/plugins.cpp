// Stands in for the plug-in platform: a failed assertion is logged and the process goes on.
#include <qurnadapt/platform.h>

#include <cstring>

extern "C" {

uint32_t RuloPluginAssert(const char* file, uint32_t line, uint32_t third) {
  const char* name = file == nullptr ? "-" : file;
  LOG_InnerPrint(0, name, static_cast<uint32_t>(strlen(name)), "<unknown>", 9, line, TOV_LOG_ERROR,
                 "Assertion failed. (%u)", third);
  return QURN_OK;
}

}  // extern "C"
