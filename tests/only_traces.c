/* A component that needs nothing of the library but one of the calls that the process may replace.
 */
#include <qurnadapt/legacy_fixed.h>

int main(void) { return TRC_IsTraceCompMsg() == 2 ? 0 : 1; }
