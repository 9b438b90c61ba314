// The legacy message calls: the framework has no message buffers, so nothing is allocated or sent.
#include <qurnadapt/legacy_fixed.h>

#include "internal/tail_jump.h"

// The flow-controlled form has its size one place further on.
QURN_TAIL_JUMP(ZOT_MsgFlowCtrlAlloc_F, ZOT_MsgAlloc, QURN_THIRD_ARGUMENT_AS_SECOND);

extern "C" {

void* ZOT_MsgAlloc(...) { return nullptr; }
uint32_t ZOT_MsgFree(...) { return 0; }
uint32_t ZOT_SEND_MSG(...) { return 0; }
uint32_t ZOT_SEND_URGENT_MSG(...) { return 0; }
uint32_t ZOT_ZotMsgHeaderLenCheck(...) { return 1; }

}  // extern "C"
