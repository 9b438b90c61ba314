#include "memory_map.h"

#include <dirent.h>
#include <elf.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <utility>

#include "common/scoped_fd.h"
#include "text_builder.h"

namespace tov::log {
namespace {

constexpr int kMostKept = 16;
constexpr std::string_view kMapEnding = ".maps";
constexpr std::string_view kIdsEnding = ".build-ids";

// A file's name in the directory.
class Name {
 public:
  Name(std::string_view process, std::string_view ending) noexcept {
    TextBuilder(bytes_.data(), bytes_.size() - 1).add(process).add(ending);
  }
  [[nodiscard]] const char* get() const noexcept { return bytes_.data(); }

 private:
  std::array<char, 64> bytes_{};
};

// A file that takes the place of an older one only when it is whole. Several processes may keep
// theirs in one directory.
class NewFile {
 public:
  NewFile(int directory, std::string_view process, std::string_view ending) noexcept
      : directory_(directory),
        name_(process, ending),
        temporary_(process, ".new"),
        fd_((unlinkat(directory, temporary_.get(), 0),
             openat(directory, temporary_.get(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600))) {}
  ~NewFile() {
    if (fd_ < 0) {
      return;
    }
    close(fd_);
    if (!isWhole_ || renameat(directory_, temporary_.get(), directory_, name_.get()) != 0) {
      unlinkat(directory_, temporary_.get(), 0);
    }
  }
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;

  void write(std::string_view text) noexcept {
    isWhole_ = isWhole_ && ::write(fd_, text.data(), text.size()) == std::ssize(text);
  }

  [[nodiscard]] bool isWhole() const noexcept { return isWhole_; }

 private:
  int directory_;
  Name name_;
  Name temporary_;
  int fd_;
  bool isWhole_ = true;
};

// Lines beyond what a path may be long are cut.
template <typename Visit>
void forEachLine(int fd, Visit visit) noexcept {
  std::array<char, 4096> text;  // NOLINT: filled by read
  std::array<char, 4352> line;  // NOLINT: as far as its length says
  size_t length = 0;
  ssize_t got = 0;
  while ((got = read(fd, text.data(), text.size())) > 0) {
    for (const char c : std::string_view(text.data(), static_cast<size_t>(got))) {
      if (c == '\n') {
        line[std::exchange(length, 0)] = '\0';
        visit(line.data());
      } else if (length < line.size() - 1) {
        line[length++] = c;
      }
    }
  }
}

// ---- build ids, from memory: the file may have been replaced since

// Unlike a plain read this fails where there is nothing to be read.
bool readMemory(uint64_t address, void* to, size_t bytes) noexcept {
  const iovec here{to, bytes};
  const iovec there{reinterpret_cast<void*>(address), bytes};
  return process_vm_readv(getpid(), &here, 1, &there, 1, 0) == static_cast<ssize_t>(bytes);
}

void addIdIn(std::string_view notes, TextBuilder& id) noexcept {
  constexpr auto aligned = [](size_t bytes) { return (bytes + 3) & ~size_t{3}; };
  Elf64_Nhdr header{};
  while (notes.size() >= sizeof(header)) {
    memcpy(&header, notes.data(), sizeof(header));
    notes.remove_prefix(sizeof(header));
    const size_t name = aligned(header.n_namesz);
    if (header.n_type == NT_GNU_BUILD_ID && notes.starts_with("GNU") &&
        notes.size() >= name + header.n_descsz) {
      for (const char c : notes.substr(name, header.n_descsz)) {
        constexpr std::string_view kHex = "0123456789abcdef";
        const auto byte = static_cast<unsigned char>(c);
        id.add(kHex.substr(byte >> 4U, 1)).add(kHex.substr(byte & 15U, 1));
      }
      return;
    }
    notes.remove_prefix(std::min(notes.size(), name + aligned(header.n_descsz)));
  }
}

// Of the object whose first bytes are mapped there; nothing if it is none.
void addBuildId(uint64_t start, TextBuilder& id) noexcept {
  Elf64_Ehdr object{};
  std::array<Elf64_Phdr, 32> parts{};
  if (!readMemory(start, &object, sizeof(object)) || memcmp(object.e_ident, ELFMAG, SELFMAG) != 0 ||
      object.e_phnum > parts.size() ||
      !readMemory(start + object.e_phoff, parts.data(), object.e_phnum * sizeof(Elf64_Phdr))) {
    return;
  }
  const auto* const first = std::find_if(parts.begin(), parts.end(), [](const Elf64_Phdr& part) {
    return part.p_type == PT_LOAD && part.p_offset == 0;
  });
  const uint64_t base = first == parts.end() ? start : start - first->p_vaddr;
  for (const Elf64_Phdr& part : parts) {
    std::array<char, 1024> notes{};
    const size_t bytes = std::min<size_t>(part.p_filesz, notes.size());
    if (part.p_type == PT_NOTE && id.length() == 0 &&
        readMemory(base + part.p_vaddr, notes.data(), bytes)) {
      addIdIn({notes.data(), bytes}, id);
    }
  }
}

// Of what may be executed. Data is not touched: its pages may have to come from a file system that
// hangs, and the thread with it that is reported.
class BuildIds {
 public:
  explicit BuildIds(NewFile& file) noexcept : file_(file) {}

  void take(const char* line) noexcept {
    uint64_t start = 0;
    uint64_t offset = 0;
    uint64_t node = 0;
    std::array<char, 2> may{};
    int path = 0;
    if (std::sscanf(line, "%lx-%*x %c%*c%c%*c %lx %*s %lu %n", &start, may.data(), &may[1], &offset,
                    &node, &path) != 5 ||
        line[path] != '/') {
      return;
    }
    if (offset == 0 && may[0] == 'r') {
      start_ = start;
      node_ = node;
    }
    if (may[1] == 'x' && node == node_) {
      write(line + path);
      node_ = kNone;
    }
  }

 private:
  static constexpr uint64_t kNone = ~uint64_t{0};

  void write(const char* path) noexcept {
    std::array<char, 4096> bytes;  // NOLINT: filled as far as the text goes
    TextBuilder text(bytes.data(), bytes.size() - 1);
    addBuildId(start_, text);
    if (text.length() != 0) {
      text.add(" ").add(path);
      text.addRoom(1);
      file_.write(text.add("\n").text());
    }
  }

  NewFile& file_;
  // Where the first bytes of the latest file are, whose other parts follow.
  uint64_t start_ = 0;
  uint64_t node_ = kNone;
};

// ---- the newest few stay

// Nothing for a name that is not ours: other files may lie in the directory.
std::string_view processOf(std::string_view name) noexcept {
  const std::string_view process = name.substr(0, name.find_first_not_of("0123456789"));
  return name.substr(process.size()) == kMapEnding ? process : std::string_view();
}

// What cannot be removed would stand in the way of what can.
bool isRemovable(const struct stat& file) noexcept {
  return S_ISREG(file.st_mode) && file.st_uid == geteuid();
}

bool isOlder(const timespec& one, const timespec& other) noexcept {
  return one.tv_sec != other.tv_sec ? one.tv_sec < other.tv_sec : one.tv_nsec < other.tv_nsec;
}

template <typename Visit>
void forEachEntry(int directory, Visit visit) noexcept {
  alignas(dirent64) std::array<char, 4096> entries{};
  lseek(directory, 0, SEEK_SET);
  ssize_t bytes = 0;
  while ((bytes = getdents64(directory, entries.data(), entries.size())) > 0) {
    for (ssize_t at = 0; at < bytes;) {
      const auto* entry = reinterpret_cast<const dirent64*>(entries.data() + at);
      visit(entry->d_name);
      at += entry->d_reclen;
    }
  }
}

// Returns whether one had to go.
bool removeOldestBeyondLimit(int directory) noexcept {
  int count = 0;
  std::array<char, 32> oldest{};
  timespec oldestAt{};
  forEachEntry(directory, [&](const char* name) {
    struct stat file {};
    const std::string_view process = processOf(name);
    if (process.empty() || process.size() >= oldest.size() ||
        fstatat(directory, name, &file, AT_SYMLINK_NOFOLLOW) != 0 || !isRemovable(file)) {
      return;
    }
    if (count++ == 0 || isOlder(file.st_mtim, oldestAt)) {
      oldestAt = file.st_mtim;
      oldest = {};
      process.copy(oldest.data(), process.size());
    }
  });
  if (count <= kMostKept) {
    return false;
  }
  unlinkat(directory, Name(oldest.data(), kIdsEnding).get(), 0);
  return unlinkat(directory, Name(oldest.data(), kMapEnding).get(), 0) == 0;
}

}  // namespace

void keepMemoryMap(const std::string& directory) noexcept {
  const qurn::ScopedFd target(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const qurn::ScopedFd maps(open("/proc/thread-self/maps", O_RDONLY | O_CLOEXEC));
  if (!target.valid() || !maps.valid()) {
    return;
  }
  std::array<char, 16> digits{};
  TextBuilder process(digits.data(), digits.size() - 1);
  process.addNumber(static_cast<uint64_t>(getpid()));
  {
    NewFile map(target.get(), process.text(), kMapEnding);
    forEachLine(maps.get(), [&map](char* line) {
      const size_t length = strlen(line);
      line[length] = '\n';
      map.write({line, length + 1});
      line[length] = '\0';
    });
    if (!map.isWhole()) {
      return;
    }
  }
  lseek(maps.get(), 0, SEEK_SET);
  {
    NewFile file(target.get(), process.text(), kIdsEnding);
    BuildIds ids(file);
    forEachLine(maps.get(), [&ids](const char* line) { ids.take(line); });
  }
  while (removeOldestBeyondLimit(target.get())) {
  }
}

}  // namespace tov::log
