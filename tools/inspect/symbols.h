// Names and source lines of addresses in a process, and the unwinding of its threads' stacks.
#pragma once

#include <elfutils/libdwfl.h>

#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "../common/code_frame.h"
#include "snapshot.h"
#include "target.h"

namespace qurn::inspect {

class CoreTarget;

struct SymbolSources {
  std::string program;    // of a core, where it is no longer where it was
  std::string debugPath;  // where debug information is looked for, as libdw takes it
};

class Symbols {
 public:
  // Without debug information a session is quick to set up, and has the names that are exported.
  enum class Depth : uint8_t { kExported, kEverything };

  Symbols(const Target& target, const SymbolSources& sources, Depth depth);

  // Empty for what is no code.
  std::string nameOf(uint64_t address) const;
  void explain(uint64_t address, bool isCaller, std::vector<CodeFrame>& frames) const {
    explainCode(session_.get(), address, isCaller, frames);
  }

  static constexpr size_t kMostFrames = 256;  // of a stack
  using ReadWord = std::function<bool(uint64_t address, uint64_t* word)>;
  // The addresses on a stack, innermost first.
  std::vector<uint64_t> unwind(const Registers& registers, const ReadWord& readWord);

 private:
  std::string root_;  // of the process's files
  std::string debugPath_;
  char* debugPathPointer_;
  Dwfl_Callbacks callbacks_;
  std::unique_ptr<Dwfl, void (*)(Dwfl*)> session_;
  bool isAttached_ = false;
  // Each name takes a walk through a file's symbols, and threads wait in the same few places.
  mutable std::unordered_map<uint64_t, std::string> names_;

  struct Unwinding {
    const Registers* registers;
    const ReadWord* readWord;
    std::vector<uint64_t> addresses;
  };
  Unwinding unwinding_{};

  static bool setRegisters(Dwfl_Thread* thread, void* argument);
  static bool readMemory(Dwfl* session, Dwarf_Addr address, Dwarf_Word* word, void* argument);
  static int noteFrame(Dwfl_Frame* frame, void* argument);
};

}  // namespace qurn::inspect
