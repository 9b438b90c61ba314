#include "symbols.h"

#include <cxxabi.h>

#include <cstdio>
#include <cstdlib>

namespace qurn::report {
namespace {

constexpr Dwfl_Callbacks kCallbacks{dwfl_linux_proc_find_elf, dwfl_standard_find_debuginfo,
                                    dwfl_offline_section_address, nullptr};

struct Sought {
  const std::string& symbol;
  uint64_t address;  // 0 until found
};

bool isExported(const GElf_Sym& symbol) {
  const unsigned binding = GELF_ST_BIND(symbol.st_info);
  return symbol.st_shndx != SHN_UNDEF && (binding == STB_GLOBAL || binding == STB_WEAK);
}

// A report's names are those of exported symbols, so a local one of the same name is another.
int lookInModule(Dwfl_Module* module, void** /*ours*/, const char* /*name*/, Dwarf_Addr /*start*/,
                 void* argument) {
  auto& sought = *static_cast<Sought*>(argument);
  const int count = dwfl_module_getsymtab(module);
  for (int i = 0; i < count; ++i) {
    GElf_Sym symbol{};
    GElf_Addr address = 0;
    const char* name =
        dwfl_module_getsym_info(module, i, &symbol, &address, nullptr, nullptr, nullptr);
    if (name != nullptr && sought.symbol == name && isExported(symbol)) {
      sought.address = address;
      return DWARF_CB_ABORT;
    }
  }
  return DWARF_CB_OK;
}

std::string sourceLineOf(Dwfl_Module* module, uint64_t address) {
  Dwfl_Line* found = dwfl_module_getsrc(module, address);
  int line = 0;
  const char* file =
      found == nullptr ? nullptr : dwfl_lineinfo(found, nullptr, &line, nullptr, nullptr, nullptr);
  return file == nullptr ? std::string() : std::string(file) + ":" + std::to_string(line);
}

}  // namespace

Symbols::Symbols() : session_(dwfl_begin(&kCallbacks), &dwfl_end) {}

bool Symbols::addProgram(const std::string& path, uint64_t base) {
  dwfl_report_begin_add(session_.get());
  const Dwfl_Module* module =
      dwfl_report_elf(session_.get(), path.c_str(), path.c_str(), -1, base, true);
  return dwfl_report_end(session_.get(), nullptr, nullptr) == 0 && module != nullptr;
}

bool Symbols::addMemoryMap(const std::string& path) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> map(std::fopen(path.c_str(), "r"),
                                                            &std::fclose);
  if (map == nullptr) {
    return false;
  }
  dwfl_report_begin_add(session_.get());
  const int mistake = dwfl_linux_proc_maps_report(session_.get(), map.get());
  return dwfl_report_end(session_.get(), nullptr, nullptr) == 0 && mistake == 0;
}

uint64_t Symbols::addressOf(const std::string& symbol) const {
  Sought sought{symbol, 0};
  dwfl_getmodules(session_.get(), lookInModule, &sought, 0);
  return sought.address;
}

void Symbols::explain(Frame& frame, bool caller) const {
  const uint64_t start = frame.symbol.empty() ? 0 : addressOf(frame.symbol);
  const uint64_t address = start == 0 ? frame.address : start + frame.offset;
  // A return address may be the first one behind its function.
  const uint64_t inside = address - (caller ? 1 : 0);
  Dwfl_Module* module = address == 0 ? nullptr : dwfl_addrmodule(session_.get(), inside);
  if (module == nullptr) {
    return;
  }
  frame.sourceLine = sourceLineOf(module, inside);
  if (frame.symbol.empty()) {
    GElf_Off offset = 0;
    GElf_Sym symbol{};
    const char* name =
        dwfl_module_addrinfo(module, inside, &offset, &symbol, nullptr, nullptr, nullptr);
    if (name != nullptr) {
      frame.symbol = name;
      frame.offset = offset + (address - inside);
    }
  }
}

std::string demangled(const std::string& symbol) {
  const std::unique_ptr<char, decltype(&std::free)> name(
      abi::__cxa_demangle(symbol.c_str(), nullptr, nullptr, nullptr), &std::free);
  return name == nullptr ? symbol : name.get();
}

}  // namespace qurn::report
