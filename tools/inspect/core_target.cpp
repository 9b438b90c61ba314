#include "core_target.h"

#include <elf.h>
#include <fcntl.h>
#include <libelf.h>
#include <sys/mman.h>
#include <sys/procfs.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

#include "common/scoped_fd.h"

namespace qurn::inspect {
namespace {

#if defined(__x86_64__)
constexpr Elf64_Half kMachine = EM_X86_64;
#else
constexpr Elf64_Half kMachine = EM_AARCH64;
#endif

// What lies within the file only.
template <typename Value>
bool copyFrom(const char* bytes, size_t size, uint64_t offset, Value& value) {
  if (offset > size || size - offset < sizeof(value)) {
    return false;
  }
  memcpy(&value, bytes + offset, sizeof(value));
  return true;
}

constexpr size_t aligned(size_t bytes) { return (bytes + 3) & ~size_t{3}; }

}  // namespace

CoreTarget::CoreTarget(const std::string& path) {
  const ScopedFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status {};
  if (!file.valid() || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
    throw Mistake("cannot read " + path +
                  (file.valid() ? "" : std::string(": ") + strerror(errno)));
  }
  size_ = static_cast<size_t>(status.st_size);
  void* mapped =
      size_ == 0 ? MAP_FAILED : mmap(nullptr, size_, PROT_READ, MAP_PRIVATE, file.get(), 0);
  Elf64_Ehdr header{};
  bytes_ = mapped == MAP_FAILED ? nullptr : static_cast<char*>(mapped);
  if (bytes_ == nullptr || !copyFrom(bytes_, size_, 0, header) ||
      memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 || header.e_ident[EI_CLASS] != ELFCLASS64 ||
      header.e_ident[EI_DATA] != ELFDATA2LSB || header.e_type != ET_CORE ||
      header.e_machine != kMachine) {
    throw Mistake(path + " is no core of a process of this machine's kind");
  }
  // More than 65,534 segments are counted in the first section instead.
  uint64_t count = header.e_phnum;
  Elf64_Shdr first{};
  if (count == PN_XNUM && copyFrom(bytes_, size_, header.e_shoff, first)) {
    count = first.sh_info;
  }
  uint64_t notesLeft = size_;  // none is told twice
  for (uint64_t i = 0; i < count; ++i) {
    Elf64_Phdr part{};
    if (!copyFrom(bytes_, size_, header.e_phoff + i * sizeof(part), part)) {
      break;
    }
    const uint64_t there =
        part.p_offset >= size_ ? 0 : std::min<uint64_t>(part.p_filesz, size_ - part.p_offset);
    if (part.p_type == PT_LOAD && part.p_vaddr <= UINT64_MAX - part.p_memsz) {
      segments_[part.p_vaddr] = {part.p_vaddr, there, part.p_offset};
      mappings_.push_back(
          {part.p_vaddr, part.p_vaddr + part.p_memsz, (part.p_flags & PF_W) != 0, {}});
    } else if (part.p_type == PT_NOTE && there <= notesLeft) {
      readNotes(bytes_ + (there == 0 ? 0 : part.p_offset), there);
      notesLeft -= there;
    }
  }
  nameMappings();
  elf_version(EV_CURRENT);
  elf_ = elf_memory(bytes_, size_);
}

CoreTarget::~CoreTarget() {
  elf_end(elf_);
  if (bytes_ != nullptr) {
    munmap(bytes_, size_);
  }
}

void CoreTarget::readNotes(const char* notes, size_t bytes) {
  size_t at = 0;
  Elf64_Nhdr header{};
  while (copyFrom(notes, bytes, at, header)) {
    at += sizeof(header) + aligned(header.n_namesz);
    if (at > bytes || bytes - at < header.n_descsz) {
      return;
    }
    elf_prstatus status{};
    elf_prpsinfo info{};
    if (header.n_type == NT_PRSTATUS && copyFrom(notes, bytes, at, status) &&
        header.n_descsz >= sizeof(status)) {
      KernelRegisters& registers = threads_[status.pr_pid];
      memcpy(&registers, &status.pr_reg, sizeof(registers));
    } else if (header.n_type == NT_PRPSINFO && copyFrom(notes, bytes, at, info) &&
               header.n_descsz >= sizeof(info)) {
      pid_ = info.pr_pid;
      name_.assign(info.pr_fname, strnlen(info.pr_fname, sizeof(info.pr_fname)));
    } else if (header.n_type == NT_FILE) {
      readFileNote(notes + at, header.n_descsz);
    }
    at += aligned(header.n_descsz);
  }
}

// Count, page size; per file start, end and offset in pages; then the names.
void CoreTarget::readFileNote(const char* note, size_t bytes) {
  uint64_t count = 0;
  if (!copyFrom(note, bytes, 0, count) || count > bytes / 24) {
    return;
  }
  size_t nameAt = 16 + count * 24;
  for (uint64_t i = 0; i < count && nameAt < bytes; ++i) {
    uint64_t start = 0;
    uint64_t end = 0;
    if (!copyFrom(note, bytes, 16 + i * 24, start) || !copyFrom(note, bytes, 24 + i * 24, end)) {
      return;
    }
    const std::string name(note + nameAt, strnlen(note + nameAt, bytes - nameAt));
    nameAt += name.size() + 1;
    files_[start] = {end, name};
  }
}

void CoreTarget::nameMappings() {
  for (Mapping& mapping : mappings_) {
    const auto behind = files_.upper_bound(mapping.start);
    if (behind != files_.begin() && mapping.start < std::prev(behind)->second.first) {
      mapping.path = std::prev(behind)->second.second;
    }
  }
}

// Piece by piece: what belongs together may lie in two segments.
bool CoreTarget::read(uint64_t address, void* to, size_t bytes) const {
  auto* target = static_cast<char*>(to);
  while (bytes > 0) {
    auto segment = segments_.upper_bound(address);
    if (segment == segments_.begin()) {
      return false;
    }
    --segment;
    const uint64_t inside = address - segment->second.start;
    if (inside >= segment->second.fileBytes) {
      return false;
    }
    const size_t piece = std::min<uint64_t>(bytes, segment->second.fileBytes - inside);
    memcpy(target, bytes_ + segment->second.fileOffset + inside, piece);
    target += piece;
    address += piece;
    bytes -= piece;
  }
  return true;
}

std::vector<pid_t> CoreTarget::threads() const {
  std::vector<pid_t> all;
  for (const auto& [tid, registers] : threads_) {
    all.push_back(tid);
  }
  return all;
}

std::optional<Call> CoreTarget::callOf(pid_t tid) const {
  const auto thread = threads_.find(tid);
  return thread == threads_.end() ? std::nullopt : std::optional(callFrom(thread->second));
}

// Names and states are not in a core.
std::optional<Detail> CoreTarget::detailOf(pid_t /*tid*/) const { return std::nullopt; }

std::optional<Registers> CoreTarget::registersOf(pid_t tid) const {
  const auto thread = threads_.find(tid);
  return thread == threads_.end() ? std::nullopt : std::optional(registersFrom(thread->second));
}

}  // namespace qurn::inspect
