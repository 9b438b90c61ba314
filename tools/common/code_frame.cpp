#include "code_frame.h"

#include <cxxabi.h>
#include <dwarf.h>
#include <elfutils/libdw.h>

#include <cstdlib>
#include <memory>

namespace qurn {
namespace {

std::string placeOf(const char* file, int line) {
  return file == nullptr ? std::string() : std::string(file) + ":" + std::to_string(line);
}

std::string sourceOf(Dwfl_Module* module, uint64_t address) {
  Dwfl_Line* found = dwfl_module_getsrc(module, address);
  int line = 0;
  const char* file =
      found == nullptr ? nullptr : dwfl_lineinfo(found, nullptr, &line, nullptr, nullptr, nullptr);
  return placeOf(file, line);
}

// Where an inlined call stands in the function that it was inlined into.
std::string callPlaceOf(Dwarf_Die* inlined, Dwarf_Die* unit) {
  Dwarf_Attribute attribute;
  Dwarf_Word file = 0;
  Dwarf_Word line = 0;
  Dwarf_Files* files = nullptr;
  if (dwarf_formudata(dwarf_attr(inlined, DW_AT_call_file, &attribute), &file) != 0 ||
      dwarf_formudata(dwarf_attr(inlined, DW_AT_call_line, &attribute), &line) != 0 ||
      dwarf_getsrcfiles(unit, &files, nullptr) != 0) {
    return {};
  }
  return placeOf(dwarf_filesrc(files, file, nullptr, nullptr), static_cast<int>(line));
}

std::string nameOfDie(Dwarf_Die* die) {
  Dwarf_Attribute attribute;
  for (const unsigned name : {unsigned{DW_AT_linkage_name}, unsigned{DW_AT_name}}) {
    if (const char* text = dwarf_formstring(dwarf_attr_integrate(die, name, &attribute))) {
      return demangled(text);
    }
  }
  return {};
}

// Adds the inlined frames and returns where the function itself stands.
std::string addInlined(Dwfl_Module* module, uint64_t inside, const CodeFrame& frame,
                       std::vector<CodeFrame>& frames) {
  Dwarf_Addr bias = 0;
  Dwarf_Die* unit = dwfl_module_addrdie(module, inside, &bias);
  Dwarf_Die* scopes = nullptr;
  const int count = unit == nullptr ? 0 : dwarf_getscopes(unit, inside - bias, &scopes);
  std::string source = frame.source;
  for (int i = 0; i < count; ++i) {
    if (dwarf_tag(&scopes[i]) == DW_TAG_inlined_subroutine) {
      frames.push_back({frame.address, nameOfDie(&scopes[i]), frame.module, 0, source, true});
      source = callPlaceOf(&scopes[i], unit);
    }
  }
  std::free(scopes);
  return source;
}

}  // namespace

std::string demangled(const std::string& symbol) {
  if (!symbol.starts_with("_Z")) {
    return symbol;  // a function called "i" is no int
  }
  const std::unique_ptr<char, decltype(&std::free)> name(
      abi::__cxa_demangle(symbol.c_str(), nullptr, nullptr, nullptr), &std::free);
  return name == nullptr ? symbol : name.get();
}

std::string_view withoutDeletedMark(std::string_view path) {
  constexpr std::string_view kMark = " (deleted)";
  path.remove_suffix(path.ends_with(kMark) ? kMark.size() : 0);
  return path;
}

void explainCode(Dwfl* session, uint64_t address, bool isCaller, std::vector<CodeFrame>& frames) {
  CodeFrame frame;
  frame.address = address;
  const uint64_t inside = address - (isCaller ? 1 : 0);
  Dwfl_Module* module = address == 0 ? nullptr : dwfl_addrmodule(session, inside);
  if (module != nullptr) {
    Dwarf_Addr start = 0;
    const std::string_view path = withoutDeletedMark(
        dwfl_module_info(module, nullptr, &start, nullptr, nullptr, nullptr, nullptr, nullptr));
    frame.module = path.substr(path.rfind('/') + 1);
    frame.offset = address - start;
    frame.source = sourceOf(module, inside);
    frame.source = addInlined(module, inside, frame, frames);
    GElf_Off offset = 0;
    GElf_Sym symbol{};
    const char* name =
        dwfl_module_addrinfo(module, inside, &offset, &symbol, nullptr, nullptr, nullptr);
    if (name != nullptr) {
      frame.function = demangled(name);
      frame.offset = offset + (address - inside);
    }
  }
  frames.push_back(frame);
}

}  // namespace qurn
