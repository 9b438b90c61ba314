// The legacy list module's start and end: it needs neither.
#include <qurnadapt/legacy_fixed.h>

extern "C" {

uint32_t ZOT_DllInit() { return 0; }
uint32_t ZOT_DllFini() { return 0; }

}  // extern "C"
