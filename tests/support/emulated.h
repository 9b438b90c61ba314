// Another architecture's programs run under an emulator, which QURN_EMULATOR names, or is empty. It
// gives the process its own name, traces nothing, and cannot start threads in a forked child.
#pragma once

#include <string>

inline constexpr bool kEmulated = sizeof(QURN_EMULATOR) > 1;

inline std::string processName(const std::string& program) {
  const std::string emulator = QURN_EMULATOR;
  return kEmulated ? emulator.substr(0, emulator.find(' ')) : program;
}
