#include "code_frame.h"

#include <cxxabi.h>
#include <dwarf.h>
#include <elfutils/libdw.h>

#include <cstdlib>
#include <filesystem>
#include <memory>

namespace qurn {
namespace {

std::string placeOf(const char* file, int line) {
  return file == nullptr
             ? std::string()
             : std::filesystem::path(file).lexically_normal().string() + ":" + std::to_string(line);
}

// The unit whose code stands there. The table by which it is found at once is not written by every
// compiler.
Dwarf_Die* unitAt(Dwfl_Module* module, uint64_t address, Dwarf_Addr& bias) {
  if (Dwarf_Die* unit = dwfl_module_addrdie(module, address, &bias)) {
    return unit;
  }
  for (Dwarf_Die* unit = nullptr; (unit = dwfl_module_nextcu(module, unit, &bias)) != nullptr;) {
    if (dwarf_haspc(unit, address - bias) == 1) {
      return unit;
    }
  }
  return nullptr;
}

std::string sourceOf(Dwarf_Die* unit, uint64_t address) {
  Dwarf_Line* found = dwarf_getsrc_die(unit, address);
  int line = 0;
  const char* file = found == nullptr ? nullptr : dwarf_linesrc(found, nullptr, nullptr);
  return file != nullptr && dwarf_lineno(found, &line) == 0 ? placeOf(file, line) : std::string();
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

bool mayHoldFunctions(Dwarf_Die* die) {
  switch (dwarf_tag(die)) {
    case DW_TAG_namespace:
    case DW_TAG_class_type:
    case DW_TAG_structure_type:
      return true;
    default:
      return false;
  }
}

bool isCodeAt(Dwarf_Die* die, uint64_t address) {
  switch (dwarf_tag(die)) {
    case DW_TAG_subprogram:
    case DW_TAG_inlined_subroutine:
    case DW_TAG_lexical_block:
    case DW_TAG_try_block:
    case DW_TAG_catch_block:
      return dwarf_haspc(die, address) == 1;
    default:
      return false;
  }
}

// Outermost first. The library's own search does not look into namespaces, where some compilers put
// their functions.
std::vector<Dwarf_Die> scopesAt(Dwarf_Die* unit, uint64_t address) {
  std::vector<Dwarf_Die> scopes;
  std::vector<Dwarf_Die> open{*unit};
  while (!open.empty()) {
    Dwarf_Die die = open.back();
    open.pop_back();
    int end = dwarf_child(&die, &die);
    for (; end == 0 && !isCodeAt(&die, address); end = dwarf_siblingof(&die, &die)) {
      if (mayHoldFunctions(&die)) {
        open.push_back(die);
      }
    }
    if (end == 0) {
      scopes.push_back(die);
      open = {die};
    }
  }
  return scopes;
}

// Adds the inlined frames and returns where the function itself stands.
std::string addInlined(Dwarf_Die* unit, uint64_t address, const CodeFrame& frame,
                       std::vector<CodeFrame>& frames) {
  std::vector<Dwarf_Die> scopes = scopesAt(unit, address);
  std::string source = frame.source;
  for (auto scope = scopes.rbegin(); scope != scopes.rend(); ++scope) {
    if (dwarf_tag(&*scope) == DW_TAG_inlined_subroutine) {
      frames.push_back({frame.address, nameOfDie(&*scope), frame.module, 0, source, true});
      source = callPlaceOf(&*scope, unit);
    }
  }
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
    Dwarf_Addr bias = 0;
    if (Dwarf_Die* unit = unitAt(module, inside, bias)) {
      frame.source = sourceOf(unit, inside - bias);
      frame.source = addInlined(unit, inside - bias, frame, frames);
    }
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
