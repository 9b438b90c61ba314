// What stands at an address of code: names and source lines, from the debug information of the file
// that is mapped there.
#pragma once

#include <elfutils/libdwfl.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace qurn {

struct CodeFrame {
  uint64_t address = 0;
  std::string function;  // demangled; empty where it has no name
  std::string module;    // the file, without its directories; empty where nothing is mapped
  uint64_t offset = 0;   // behind the function's start, or else the module's
  std::string source;    // FILE:LINE
  bool isInlined = false;
};

// Adds the frame, before it those that were inlined into it, innermost first. A caller's address
// may be the first one behind its function.
void explainCode(Dwfl* session, uint64_t address, bool isCaller, std::vector<CodeFrame>& frames);

// The C++ name as people write it; other names as they are.
std::string demangled(const std::string& symbol);

// A file's name in a memory map, once without what the kernel adds when the file is gone.
std::string_view withoutDeletedMark(std::string_view path);

}  // namespace qurn
