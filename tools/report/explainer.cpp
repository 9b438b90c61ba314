#include "explainer.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace qurn::report {
namespace {

constexpr size_t kMostProcesses = 16;  // as many as the platform keeps maps of

// When it was last written.
std::optional<time_t> timeOfFile(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 ? std::optional(status.st_mtime) : std::nullopt;
}

// Another user's file, which nobody chose, where everybody may leave one.
bool isForeign(const std::string& directory, const std::string& path) {
  struct stat around {};
  struct stat file {};
  return stat(directory.c_str(), &around) == 0 && (around.st_mode & S_IWOTH) != 0 &&
         lstat(path.c_str(), &file) == 0 && file.st_uid != 0 && file.st_uid != geteuid();
}

}  // namespace

std::vector<std::string> mapDirectoriesBeside(const std::vector<std::string>& logs) {
  std::vector<std::string> directories;
  std::error_code mistake;
  for (const std::string& log : logs) {
    if (std::filesystem::is_directory(log, mistake)) {
      directories.push_back(log);
    } else if (log != "-") {
      const std::string directory = std::filesystem::path(log).parent_path();
      directories.push_back(directory.empty() ? "." : directory);
    }
  }
  const char* runtime = std::getenv("RUNTIME_DIRECTORY");
  std::istringstream kept(runtime == nullptr ? "" : runtime);
  for (std::string directory; std::getline(kept, directory, ':');) {
    directories.push_back(directory);
  }
  return directories;
}

Explainer::Explainer(SymbolSources sources, Warn warn)
    : sources_(std::move(sources)), warnings_(std::move(warn)) {
  if (!sources_.program.empty()) {
    program_ = Symbols::ofProgram(sources_.program, sources_.base, warnings_);
    if (program_ == nullptr) {
      throw std::runtime_error("cannot read the program " + sources_.program);
    }
  }
  isForAll_ = !sources_.maps.empty() && !std::filesystem::is_directory(sources_.maps);
  if (isForAll_ && processOf(sources_.maps) == nullptr) {
    throw std::runtime_error("cannot read the memory map " + sources_.maps);
  }
}

void Explainer::explain(DeadLoop& loop) {
  Symbols* symbols = symbolsOf(loop);
  if (symbols == nullptr) {
    return;
  }
  std::vector<Frame> frames;
  for (const Frame& frame : loop.frames) {
    const auto& explained = symbols->explain(frame, &frame != &loop.frames.front());
    frames.insert(frames.end(), explained.begin(), explained.end());
  }
  loop.frames = std::move(frames);
}

Symbols* Explainer::symbolsOf(const DeadLoop& loop) {
  if (isForAll_) {
    const Process* process = processOf(sources_.maps);
    return process != nullptr && isOf(loop, *process) ? process->symbols.get() : program_.get();
  }
  if (loop.processId != 0) {
    for (const std::string& directory : directoriesFor(loop)) {
      if (Symbols* found = symbolsIn(directory, loop)) {
        return found;
      }
    }
  }
  return program_.get();
}

std::vector<std::string> Explainer::directoriesFor(const DeadLoop& loop) const {
  if (!sources_.maps.empty()) {
    return {sources_.maps};
  }
  std::vector<std::string> directories = sources_.mapDirectories;
  if (!loop.process.empty() && loop.process.find('/') == std::string::npos) {
    directories.push_back("/run/" + loop.process);
  }
  return directories;
}

// Another process may have had the same id.
Symbols* Explainer::symbolsIn(const std::string& directory, const DeadLoop& loop) {
  const std::string path = directory + "/" + std::to_string(loop.processId) + ".maps";
  if (sources_.maps.empty() && isForeign(directory, path)) {
    warnings_.add(path + " is another user's; it is not used");
    return nullptr;
  }
  const Process* process = processOf(path);
  if (process == nullptr) {
    return nullptr;
  }
  if (process->map.isOlderThan(loop)) {
    warnings_.add(path + " is older than the report of process " + std::to_string(loop.processId) +
                  "; it is not used");
    return nullptr;
  }
  return isOf(loop, *process) ? process->symbols.get() : nullptr;
}

// Null without a map. While a log is followed, maps come, are replaced and go.
Explainer::Process* Explainer::processOf(const std::string& mapPath) {
  const std::optional<time_t> madeAt = timeOfFile(mapPath);
  if (!madeAt) {
    return nullptr;
  }
  if (processes_.size() >= kMostProcesses && !processes_.contains(mapPath)) {
    processes_.clear();
  }
  const auto [known, isNew] = processes_.try_emplace(mapPath);
  Process& process = known->second;
  if (isNew || *madeAt != process.map.madeAt) {
    const std::optional<MemoryMap> map = readMemoryMap(mapPath);
    process.map = map.value_or(MemoryMap{});
    process.map.madeAt = *madeAt;
    process.symbols = map ? Symbols::ofProcess(*map, sources_.program, warnings_) : nullptr;
  }
  return process.symbols == nullptr ? nullptr : &process;
}

bool Explainer::isOf(const DeadLoop& loop, const Process& process) {
  bool hasAddress = false;
  for (const Frame& frame : loop.frames) {
    if (frame.address != 0 && process.symbols->holds(frame.address)) {
      return true;
    }
    hasAddress = hasAddress || frame.address != 0;
  }
  if (hasAddress) {
    warnings_.add(process.map.path +
                  " is another process's, none of the addresses in the report of " +
                  (loop.processId == 0 ? std::string("a process")
                                       : "process " + std::to_string(loop.processId)) +
                  " lies in it; it is not used");
  }
  return !hasAddress;
}

}  // namespace qurn::report
