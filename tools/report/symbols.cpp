#include "symbols.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <utility>

#include "common/scoped_fd.h"

namespace qurn::report {
namespace {

constexpr size_t kMostExplained = 1000;

std::string fileNameOf(const std::string& path) { return path.substr(path.rfind('/') + 1); }

struct Sought {
  const Frame& frame;
  std::set<uint64_t> addresses;
};

// The section that a report's names come from.
Elf_Scn* exportsOf(Elf* elf, GElf_Shdr& header) {
  Elf_Scn* section = nullptr;
  while ((section = elf_nextscn(elf, section)) != nullptr) {
    if (gelf_getshdr(section, &header) != nullptr && header.sh_type == SHT_DYNSYM) {
      return section;
    }
  }
  return nullptr;
}

int lookInModule(Dwfl_Module* module, void** /*ours*/, const char* /*name*/, Dwarf_Addr /*start*/,
                 void* argument) {
  auto& [frame, addresses] = *static_cast<Sought*>(argument);
  GElf_Addr bias = 0;
  GElf_Shdr header{};
  Elf* elf = dwfl_module_getelf(module, &bias);
  Elf_Scn* section = elf == nullptr ? nullptr : exportsOf(elf, header);
  Elf_Data* data = section == nullptr ? nullptr : elf_getdata(section, nullptr);
  const size_t count =
      data == nullptr || header.sh_entsize == 0 ? 0 : data->d_size / header.sh_entsize;
  for (size_t i = 0; i < count; ++i) {
    GElf_Sym symbol{};
    if (gelf_getsym(data, static_cast<int>(i), &symbol) == nullptr ||
        symbol.st_shndx == SHN_UNDEF || (symbol.st_size != 0 && symbol.st_size < frame.offset)) {
      continue;
    }
    const char* name = elf_strptr(elf, header.sh_link, symbol.st_name);
    if (name != nullptr && frame.symbol == name) {
      addresses.insert(symbol.st_value + bias);
    }
  }
  return DWARF_CB_OK;
}

}  // namespace

Symbols::Symbols(MemoryMap map, std::string program, Warnings& warnings)
    : map_(std::move(map)),
      program_(std::move(program)),
      warnings_(warnings),
      session_(
          [] {
            static const Dwfl_Callbacks kCallbacks{findElf, dwfl_standard_find_debuginfo,
                                                   dwfl_offline_section_address, nullptr};
            return dwfl_begin(&kCallbacks);
          }(),
          &dwfl_end) {}

std::unique_ptr<Symbols> Symbols::ofProgram(const std::string& path, uint64_t base,
                                            Warnings& warnings) {
  std::unique_ptr<Symbols> symbols(new Symbols({}, path, warnings));
  Dwfl* session = symbols->session_.get();
  const Dwfl_Module* module = dwfl_report_elf(session, path.c_str(), path.c_str(), -1, base, true);
  const bool isRead = dwfl_report_end(session, nullptr, nullptr) == 0 && module != nullptr;
  return isRead ? std::move(symbols) : nullptr;
}

std::unique_ptr<Symbols> Symbols::ofProcess(const MemoryMap& map, const std::string& program,
                                            Warnings& warnings) {
  std::unique_ptr<Symbols> symbols(new Symbols(map, program, warnings));
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(map.path.c_str(), "r"),
                                                             &std::fclose);
  Dwfl* session = symbols->session_.get();
  const int mistake = file == nullptr ? -1 : dwfl_linux_proc_maps_report(session, file.get());
  if (dwfl_report_end(session, nullptr, nullptr) != 0 || mistake != 0) {
    return nullptr;
  }
  symbols->takeBuildIds();
  return symbols;
}

// ---- the right files

void Symbols::takeBuildIds() {
  const auto take = [](Dwfl_Module* module, void** userData, const char* name, Dwarf_Addr /*start*/,
                       void* argument) -> int {
    auto& symbols = *static_cast<Symbols*>(argument);
    *userData = &symbols;
    const auto known = symbols.map_.buildIds.find(name);
    if (known != symbols.map_.buildIds.end()) {
      const std::string& digits = known->second;
      std::vector<unsigned char> id(digits.size() / 2);
      for (size_t i = 0; i < id.size(); ++i) {
        std::from_chars(&digits[2 * i], &digits[2 * i] + 2, id[i], 16);
      }
      dwfl_module_report_build_id(module, id.data(), id.size(), 0);
    }
    return DWARF_CB_OK;
  };
  dwfl_getmodules(session_.get(), take, this, 0);
  const auto& ids = map_.buildIds;
  const std::string id = program_.empty() || ids.empty() ? std::string() : buildIdOf(program_);
  if (!id.empty() && std::none_of(ids.begin(), ids.end(),
                                  [&id](const auto& mapped) { return mapped.second == id; })) {
    warnings_.add(program_ + " is not what the process of " + map_.path + " ran; it is not used");
  }
}

// Names from another build would be wrong ones.
bool Symbols::mayTake(const std::string& path, const std::string& mapped) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
    return false;
  }
  const std::string id = buildIdOf(path);
  const auto ran = map_.buildIds.find(mapped);
  if (ran == map_.buildIds.end()) {
    return mayTakeUnknown(path, mapped, id, status.st_ctime);
  }
  if (id != ran->second && path != program_) {
    warnings_.add(path + " is not what the process of " + map_.path + " ran (build id " +
                  (id.empty() ? "none" : id) + ", it had " + ran->second +
                  "); no names are taken from it");
  }
  return id == ran->second;
}

// Where ids were kept this is a file without one, or no code.
bool Symbols::mayTakeUnknown(const std::string& path, const std::string& mapped,
                             const std::string& id, time_t changedAt) {
  if (path == program_) {
    return fileNameOf(path) == fileNameOf(mapped);
  }
  const bool isChanged = changedAt > map_.madeAt;
  if (!map_.buildIds.empty()) {
    return id.empty() && !isChanged;
  }
  if (isChanged && !id.empty() && !std::exchange(isChangeTold_, true)) {
    warnings_.add(path + " has changed since " + map_.path +
                  " was made, perhaps others too, and their build ids were not kept; no names are "
                  "taken from such files");
  }
  return !isChanged;
}

int Symbols::findElf(Dwfl_Module* module, void** userData, const char* name, Dwarf_Addr base,
                     char** file, Elf** elf) {
  auto* symbols = static_cast<Symbols*>(*userData);
  if (symbols == nullptr || name[0] != '/') {
    return -1;
  }
  const std::string mapped(withoutDeletedMark(name));
  for (const std::string& path : {symbols->program_, mapped}) {
    if (!path.empty() && symbols->mayTake(path, name)) {
      const int found = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
      if (found >= 0) {
        *file = strdup(path.c_str());
        return found;
      }
    }
  }
  return dwfl_build_id_find_elf(module, userData, name, base, file, elf);
}

// ---- frames

const UnfiledCode* Symbols::unfiledAt(uint64_t address) const {
  const auto found = std::find_if(
      map_.unfiled.begin(), map_.unfiled.end(),
      [address](const UnfiledCode& code) { return address >= code.start && address < code.end; });
  return found == map_.unfiled.end() ? nullptr : &*found;
}

bool Symbols::holds(uint64_t address) const {
  return dwfl_addrmodule(session_.get(), address) != nullptr || unfiledAt(address) != nullptr;
}

// 0 when no file exports the name, or several do and nobody knows whose it is.
uint64_t Symbols::addressOf(const Frame& frame) {
  Sought sought{frame, {}};
  dwfl_getmodules(session_.get(), lookInModule, &sought, 0);
  return sought.addresses.size() == 1 ? *sought.addresses.begin() : 0;
}

const std::vector<Frame>& Symbols::explain(const Frame& frame, bool isCaller) {
  if (explained_.size() >= kMostExplained) {
    explained_.clear();
  }
  auto [known, isNew] = explained_.try_emplace((isCaller ? "caller " : "") + frame.text);
  std::vector<Frame>& frames = known->second;
  if (!isNew) {
    return frames;
  }
  const uint64_t start = frame.symbol.empty() ? 0 : addressOf(frame);
  const uint64_t address = start == 0 ? frame.address : start + frame.offset;
  std::vector<CodeFrame> found;
  if (address != 0) {
    explainCode(session_.get(), address, isCaller, found);
  }
  if (const UnfiledCode* code = unfiledAt(address); code != nullptr && found.size() == 1) {
    found.front().module = code->name;
    found.front().offset = address - code->start;
  }
  for (const CodeFrame& code : found) {
    Frame explained = frame;
    explained.module = code.module;
    explained.sourceLine = code.source;
    explained.isInlined = code.isInlined;
    if (code.isInlined || frame.symbol.empty()) {
      explained.symbol = code.function;
      explained.offset = code.offset;
    }
    frames.push_back(explained);
  }
  if (frames.empty()) {
    frames.push_back(frame);
  }
  return frames;
}

}  // namespace qurn::report
