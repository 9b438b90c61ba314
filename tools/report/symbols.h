// Names and source lines from the files that a process had mapped, if they are still those.
#pragma once

#include <elfutils/libdwfl.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "../common/code_frame.h"
#include "dead_loop.h"
#include "memory_map.h"

namespace qurn::report {

// Told once each.
class Warnings {
 public:
  explicit Warnings(std::function<void(const std::string&)> tell) : tell_(std::move(tell)) {}
  void add(const std::string& warning) {
    if (told_.insert(warning).second) {
      tell_(warning);
    }
  }

 private:
  std::function<void(const std::string&)> tell_;
  std::set<std::string> told_;
};

class Symbols {
 public:
  // Of a program alone, loaded this far above the addresses in its file.
  static std::unique_ptr<Symbols> ofProgram(const std::string& path, uint64_t base,
                                            Warnings& warnings);
  // Of everything in a process's memory map. A program that is given is taken in place of the file
  // in the map. Both are null when they cannot be read.
  static std::unique_ptr<Symbols> ofProcess(const MemoryMap& map, const std::string& program,
                                            Warnings& warnings);

  // Whether there is code that the process may have been in.
  [[nodiscard]] bool holds(uint64_t address) const;

  // The frame with what is known about it, behind those that were inlined into it; `isCaller` when
  // it is not the innermost one.
  const std::vector<Frame>& explain(const Frame& frame, bool isCaller);

 private:
  Symbols(MemoryMap map, std::string program, Warnings& warnings);

  static int findElf(Dwfl_Module* module, void** userData, const char* name, Dwarf_Addr base,
                     char** file, Elf** elf);
  void takeBuildIds();
  [[nodiscard]] bool mayTake(const std::string& path, const std::string& mapped);
  [[nodiscard]] bool mayTakeUnknown(const std::string& path, const std::string& mapped,
                                    const std::string& id, time_t changedAt);
  [[nodiscard]] const UnfiledCode* unfiledAt(uint64_t address) const;
  [[nodiscard]] uint64_t addressOf(const Frame& frame);

  MemoryMap map_;
  std::string program_;
  Warnings& warnings_;
  bool isChangeTold_ = false;
  std::unique_ptr<Dwfl, decltype(&dwfl_end)> session_;
  // Dead loops of one process are often stuck in one place, and each name takes a walk through
  // files.
  std::unordered_map<std::string, std::vector<Frame>> explained_;
};

}  // namespace qurn::report
