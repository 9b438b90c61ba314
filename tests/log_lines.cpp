// Writes lines to the stand-in's log, for the tests of what arrives: log_lines levels|repeats
#include <qurnadapt/platform.h>
#include <qurnadapt/qurnadapt.h>

#include <cstring>

#define PRINT(PRINTER, LEVEL, ...) PRINTER(0, "a/b/unit", 8, "<unknown>", 9, 42, LEVEL, __VA_ARGS__)

namespace {

void printLevels() {
  PRINT(LOG_InnerPrint, 40, "information %d", 1);
  PRINT(LOG_InnerPrint, 80, "warning");
  PRINT(LOG_InnerPrint, 100, "error");
  ZotKemLogPrint("legacy %s", "text");
}

void printRepeats() {
  for (int i = 0; i < 1000; ++i) {
    PRINT(LOG_InnerPrint, 40, "again");
    PRINT(LOG_InnerPrintUnsuppress, 80, "report");
  }
  for (int i = 0; i < 300; ++i) {
    PRINT(LOG_InnerPrint, 40, "different %d", i);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    return 2;
  }
  std::strcmp(argv[1], "levels") == 0 ? printLevels() : printRepeats();
  return 0;
}
