// Adds to dead loops what the files that their processes ran tell.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "dead_loop.h"
#include "symbols.h"

namespace qurn::report {

// What is empty was not asked for.
struct SymbolSources {
  std::string program;
  uint64_t base = 0;
  std::string maps;                         // a memory map, or a directory of them
  std::vector<std::string> mapDirectories;  // where they may be otherwise
};

// Where a platform whose log is a file, or a service manager, keeps maps.
std::vector<std::string> mapDirectoriesBeside(const std::vector<std::string>& logs);

class Explainer {
 public:
  using Warn = std::function<void(const std::string&)>;

  // Throws std::runtime_error when what was asked for cannot be read.
  Explainer(SymbolSources sources, Warn warn);
  Explainer(const Explainer&) = delete;
  Explainer& operator=(const Explainer&) = delete;
  ~Explainer() = default;

  void explain(DeadLoop& loop);

 private:
  struct Process {
    MemoryMap map;
    std::unique_ptr<Symbols> symbols;
  };

  Symbols* symbolsOf(const DeadLoop& loop);
  [[nodiscard]] std::vector<std::string> directoriesFor(const DeadLoop& loop) const;
  Symbols* symbolsIn(const std::string& directory, const DeadLoop& loop);
  Process* processOf(const std::string& mapPath);
  bool isOf(const DeadLoop& loop, const Process& process);

  SymbolSources sources_;
  bool isForAll_ = false;  // the map that was asked for
  Warnings warnings_;
  std::unique_ptr<Symbols> program_;
  std::unordered_map<std::string, Process> processes_;  // by the map's path
};

}  // namespace qurn::report
