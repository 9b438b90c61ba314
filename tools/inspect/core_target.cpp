#include "core_target.h"

#include <elf.h>
#include <fcntl.h>
#include <libelf.h>
#include <sys/procfs.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

namespace qurn::inspect {
namespace {

#if defined(__x86_64__)
constexpr Elf64_Half kMachine = EM_X86_64;
#else
constexpr Elf64_Half kMachine = EM_AARCH64;
#endif

// More than the kernel writes of names of files.
constexpr size_t kMostFileNoteBytes = size_t{64} << 20U;

constexpr uint64_t aligned(uint64_t bytes) { return (bytes + 3) & ~uint64_t{3}; }

// A value in a note's bytes.
bool copyFrom(const std::string& note, size_t offset, uint64_t& value) {
  if (offset > note.size() || note.size() - offset < sizeof(value)) {
    return false;
  }
  memcpy(&value, note.data() + offset, sizeof(value));
  return true;
}

}  // namespace

CoreTarget::CoreTarget(const std::string& path)
    : file_(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {
  struct stat status {};
  if (!file_.valid() || fstat(file_.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
    throw Mistake("cannot read " + path +
                  (file_.valid() ? "" : std::string(": ") + strerror(errno)));
  }
  size_ = static_cast<uint64_t>(status.st_size);
  Elf64_Ehdr header{};
  if (!copy(0, size_, header) || memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 ||
      header.e_ident[EI_CLASS] != ELFCLASS64 || header.e_ident[EI_DATA] != ELFDATA2LSB ||
      header.e_type != ET_CORE || header.e_machine != kMachine) {
    throw Mistake(path + " is no core of a process of this machine's kind");
  }
  readParts(header);
  nameMappings();
  elf_version(EV_CURRENT);
  elf_ = elf_begin(file_.get(), ELF_C_READ, nullptr);
}

CoreTarget::~CoreTarget() { elf_end(elf_); }

bool CoreTarget::copy(uint64_t offset, uint64_t end, void* to, size_t bytes) const {
  return offset <= end && end - offset >= bytes &&
         pread(file_.get(), to, bytes, static_cast<off_t>(offset)) == static_cast<ssize_t>(bytes);
}

void CoreTarget::readParts(const Elf64_Ehdr& header) {
  // More than 65,534 segments are counted in the first section instead.
  uint64_t count = header.e_phnum;
  Elf64_Shdr first{};
  if (count == PN_XNUM && copy(header.e_shoff, size_, first)) {
    count = first.sh_info;
  }
  uint64_t notesLeft = size_;  // none is told twice
  for (uint64_t i = 0; i < count; ++i) {
    Elf64_Phdr part{};
    if (!copy(header.e_phoff + i * sizeof(part), size_, part)) {
      break;
    }
    const uint64_t there =
        part.p_offset >= size_ ? 0 : std::min<uint64_t>(part.p_filesz, size_ - part.p_offset);
    if (part.p_type == PT_LOAD && part.p_vaddr <= UINT64_MAX - part.p_memsz) {
      segments_[part.p_vaddr] = {part.p_vaddr, there, part.p_offset};
      mappings_.push_back(
          {part.p_vaddr, part.p_vaddr + part.p_memsz, (part.p_flags & PF_W) != 0, {}});
    } else if (part.p_type == PT_NOTE && there <= notesLeft) {
      readNotes(part.p_offset, part.p_offset + there);
      notesLeft -= there;
    }
  }
}

void CoreTarget::readNotes(uint64_t at, uint64_t end) {
  Elf64_Nhdr header{};
  while (copy(at, end, header)) {
    at += sizeof(header) + aligned(header.n_namesz);
    if (at > end || end - at < header.n_descsz) {
      return;
    }
    elf_prstatus status{};
    elf_prpsinfo info{};
    if (header.n_type == NT_PRSTATUS && header.n_descsz >= sizeof(status) &&
        copy(at, end, status)) {
      KernelRegisters& registers = threads_[status.pr_pid];
      memcpy(&registers, &status.pr_reg, sizeof(registers));
    } else if (header.n_type == NT_PRPSINFO && header.n_descsz >= sizeof(info) &&
               copy(at, end, info)) {
      pid_ = info.pr_pid;
      name_.assign(info.pr_fname, strnlen(info.pr_fname, sizeof(info.pr_fname)));
    } else if (header.n_type == NT_FILE && header.n_descsz <= kMostFileNoteBytes) {
      std::string note(header.n_descsz, '\0');
      if (copy(at, end, note.data(), note.size())) {
        readFileNote(note);
      }
    }
    at += aligned(header.n_descsz);
  }
}

// Count, page size; per file start, end and offset in pages; then the names.
void CoreTarget::readFileNote(const std::string& note) {
  uint64_t count = 0;
  if (!copyFrom(note, 0, count) || count > note.size() / 24) {
    return;
  }
  size_t nameAt = 16 + count * 24;
  for (uint64_t i = 0; i < count && nameAt < note.size(); ++i) {
    uint64_t start = 0;
    uint64_t end = 0;
    if (!copyFrom(note, 16 + i * 24, start) || !copyFrom(note, 24 + i * 24, end)) {
      return;
    }
    const std::string name = note.substr(nameAt, note.find('\0', nameAt) - nameAt);
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
    if (!copy(segment->second.fileOffset + inside, size_, target, piece)) {
      return false;
    }
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
