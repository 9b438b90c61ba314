// Writes lines to the stand-in's log, for the tests of what arrives.
#include <qurnadapt/platform.h>
#include <qurnadapt/qurnadapt.h>

#define PRINT(PRINTER, LEVEL, ...) PRINTER(0, "a/b/unit", 8, "<unknown>", 9, 42, LEVEL, __VA_ARGS__)

int main() {
  PRINT(LOG_InnerPrint, 40, "information %d", 1);
  PRINT(LOG_InnerPrint, 80, "warning");
  PRINT(LOG_InnerPrint, 100, "error");
  ZotKemLogPrint("legacy %s", "text");
  const bool refused =
      TovPluginKmsEncrypt("plain", 5) != QURN_OK && TovPluginKmsDecrypt("cipher", 6) != QURN_OK;
  for (int i = 0; i < 1000; ++i) {
    PRINT(LOG_InnerPrint, 40, "again");
    PRINT(LOG_InnerPrintUnsuppress, 80, "report");
  }
  for (int i = 0; i < 300; ++i) {
    PRINT(LOG_InnerPrint, 40, "different %d", i);
  }
  return refused ? 0 : 1;
}
