// The registers of a stopped or dead thread, as the kernel hands them out.
#pragma once

#include <sys/user.h>

#include "snapshot.h"
#include "target.h"

namespace qurn::inspect {

using KernelRegisters = user_regs_struct;

Registers registersFrom(const KernelRegisters& kernel);
// The system call that the thread is in, if any.
Call callFrom(const KernelRegisters& kernel);

// A signal's machine context, by the names that a debugger has for its registers.
std::vector<Register> namedRegisters(const uint64_t* machineWords);

}  // namespace qurn::inspect
