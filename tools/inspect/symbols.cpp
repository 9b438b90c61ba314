#include "symbols.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "common/scoped_fd.h"
#include "core_target.h"

namespace qurn::inspect {
namespace {

constexpr size_t kMostNames = 100'000;

// As the process sees its files, which may be in another mount namespace; what stands there now may
// be no file at all, and must not be waited for.
int findElf(Dwfl_Module* module, void** userData, const char* name, Dwarf_Addr base, char** file,
            Elf** elf) {
  const auto& root = *static_cast<const std::string*>(*userData);
  ScopedFd found(name[0] == '/' ? open((root + name).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)
                                : -1);
  struct stat status {};
  if (found.valid() && fstat(found.get(), &status) == 0 && S_ISREG(status.st_mode)) {
    *file = strdup(name);
    return found.release();
  }
  return dwfl_linux_proc_find_elf(module, userData, name, base, file, elf);
}

int findNoDebugInfo(Dwfl_Module* /*module*/, void** /*userData*/, const char* /*name*/,
                    Dwarf_Addr /*base*/, const char* /*file*/, const char* /*link*/,
                    GElf_Word /*checksum*/, char** /*found*/) {
  return -1;
}

int findBuiltElf(Dwfl_Module* module, void** userData, const char* name, Dwarf_Addr base,
                 char** file, Elf** elf) {
  return dwfl_build_id_find_elf(module, userData, name, base, file, elf);
}

}  // namespace

Symbols::Symbols(const Target& target, const SymbolSources& sources, Depth depth)
    : root_("/proc/" + std::to_string(target.livingThread()) + "/root"),
      debugPath_(sources.debugPath),
      debugPathPointer_(debugPath_.empty() ? nullptr : debugPath_.data()),
      callbacks_{target.isCore() ? findBuiltElf : findElf,
                 depth == Depth::kExported ? findNoDebugInfo : dwfl_standard_find_debuginfo,
                 nullptr, debugPathPointer_ == nullptr ? nullptr : &debugPathPointer_},
      session_(dwfl_begin(&callbacks_), dwfl_end) {
  dwfl_report_begin(session_.get());
  if (const auto* core = dynamic_cast<const CoreTarget*>(&target)) {
    dwfl_core_file_report(session_.get(), core->elf(),
                          sources.program.empty() ? nullptr : sources.program.c_str());
  } else {
    dwfl_linux_proc_report(session_.get(), target.livingThread());
  }
  dwfl_report_end(session_.get(), nullptr, nullptr);
  dwfl_getmodules(
      session_.get(),
      [](Dwfl_Module* /*module*/, void** userData, const char* /*name*/, Dwarf_Addr /*start*/,
         void* root) -> int {
        *userData = root;
        return DWARF_CB_OK;
      },
      &root_, 0);
}

std::string Symbols::nameOf(uint64_t address) const {
  Dwfl_Module* module = address == 0 ? nullptr : dwfl_addrmodule(session_.get(), address);
  if (module == nullptr) {
    return {};
  }
  if (const auto known = names_.find(address); known != names_.end()) {
    return known->second;
  }
  if (names_.size() >= kMostNames) {
    names_.clear();
  }
  const char* name = dwfl_module_addrname(module, address - 1);
  return names_[address] = name == nullptr ? "" : name;
}

// ---- unwinding

bool Symbols::setRegisters(Dwfl_Thread* thread, void* argument) {
  const Registers& registers = *static_cast<Unwinding*>(argument)->registers;
  if (!dwfl_thread_state_registers(thread, 0, static_cast<unsigned>(registers.values.size()),
                                   registers.values.data())) {
    return false;
  }
  dwfl_thread_state_register_pc(thread, registers.programCounter);
  return true;
}

bool Symbols::readMemory(Dwfl* /*session*/, Dwarf_Addr address, Dwarf_Word* word, void* argument) {
  return (*static_cast<Unwinding*>(argument)->readWord)(address, word);
}

int Symbols::noteFrame(Dwfl_Frame* frame, void* argument) {
  auto& addresses = static_cast<Unwinding*>(argument)->addresses;
  Dwarf_Addr address = 0;
  bool isActivation = false;
  if (!dwfl_frame_pc(frame, &address, &isActivation) || addresses.size() >= kMostFrames) {
    return DWARF_CB_ABORT;
  }
  addresses.push_back(address);
  return DWARF_CB_OK;
}

std::vector<uint64_t> Symbols::unwind(const Registers& registers, const ReadWord& readWord) {
  constexpr pid_t kTheThread = 1;  // there is only one at a time
  static const Dwfl_Thread_Callbacks kThreads{
      [](Dwfl* /*session*/, void* argument, void** thread) -> pid_t {
        const bool isFirst = *thread == nullptr;
        *thread = argument;
        return isFirst ? kTheThread : 0;
      },
      [](Dwfl* /*session*/, pid_t /*tid*/, void* argument, void** thread) {
        *thread = argument;
        return true;
      },
      readMemory,
      setRegisters,
      nullptr,
      nullptr};
  unwinding_ = {&registers, &readWord, {}};
  if (!isAttached_) {
    isAttached_ = dwfl_attach_state(session_.get(), nullptr, kTheThread, &kThreads, &unwinding_);
  }
  if (isAttached_) {
    dwfl_getthread_frames(session_.get(), kTheThread, noteFrame, &unwinding_);
  }
  if (unwinding_.addresses.empty()) {
    unwinding_.addresses.push_back(registers.programCounter);
  }
  return std::move(unwinding_.addresses);
}

}  // namespace qurn::inspect
