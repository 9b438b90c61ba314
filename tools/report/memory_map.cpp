#include "memory_map.h"

#include <elfutils/libdwelf.h>
#include <fcntl.h>
#include <libelf.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <memory>

#include "common/scoped_fd.h"

namespace qurn::report {
namespace {

constexpr time_t kTolerance = 5;  // seconds: a stamp has whole ones, and copies keep no order
constexpr time_t kStampZone = time_t{8} * 60 * 60;
constexpr off_t kMostBytes = off_t{64} << 20;  // a few times what a map of 65530 files has

// When the report was made; 0 when it does not tell.
time_t timeOf(const DeadLoop& loop) {
  tm at{};
  const char* end = strptime(loop.captureStamp.c_str(), "%Y-%m-%d %H:%M:%S", &at);
  return end == nullptr ? 0 : timegm(&at) - kStampZone;
}

// What stands beside a log may be anything, also what would never end.
bool isToBeRead(const std::string& path, struct stat& status) {
  return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
         status.st_size <= kMostBytes && access(path.c_str(), R_OK) == 0;
}

// "ID FILE" lines.
std::map<std::string, std::string> readBuildIds(const std::string& path) {
  std::map<std::string, std::string> ids;
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) {
    const size_t space = line.find(' ');
    if (space != std::string::npos) {
      ids[line.substr(space + 1)] = line.substr(0, space);
    }
  }
  return ids;
}

std::vector<UnfiledCode> readUnfiledCode(const std::string& path) {
  std::vector<UnfiledCode> found;
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) {
    UnfiledCode code{0, 0, "[anonymous]"};
    char mayRun = 0;
    int name = 0;
    if (std::sscanf(line.c_str(), "%lx-%lx %*2c%c%*c %*s %*s %*s %n", &code.start, &code.end,
                    &mayRun, &name) == 3 &&
        mayRun == 'x' && line.find('/', static_cast<size_t>(name)) == std::string::npos) {
      code.name = line.size() > static_cast<size_t>(name) ? line.substr(static_cast<size_t>(name))
                                                          : code.name;
      found.push_back(code);
    }
  }
  return found;
}

}  // namespace

bool MemoryMap::isOlderThan(const DeadLoop& loop) const {
  return isOfReport && madeAt + kTolerance < timeOf(loop);
}

std::optional<MemoryMap> readMemoryMap(const std::string& path) {
  constexpr std::string_view kEnding = ".maps";
  struct stat status {};
  if (!isToBeRead(path, status)) {
    return std::nullopt;
  }
  MemoryMap map{path, status.st_mtime, false, {}, readUnfiledCode(path)};
  if (path.ends_with(kEnding)) {
    const std::string ids = path.substr(0, path.size() - kEnding.size()) + ".build-ids";
    // Older ones are another process's, which had the same id.
    if (isToBeRead(ids, status) && status.st_mtime + kTolerance >= map.madeAt) {
      map.isOfReport = true;
      map.buildIds = readBuildIds(ids);
    }
  }
  return map;
}

std::string buildIdOf(const std::string& path) {
  elf_version(EV_CURRENT);
  const ScopedFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  const std::unique_ptr<Elf, decltype(&elf_end)> elf(
      elf_begin(file.get(), ELF_C_READ_MMAP, nullptr), &elf_end);
  const void* bytes = nullptr;
  const ssize_t count = elf == nullptr ? 0 : dwelf_elf_gnu_build_id(elf.get(), &bytes);
  std::string id;
  for (ssize_t i = 0; i < count; ++i) {
    std::array<char, 3> digits{};
    std::snprintf(digits.data(), digits.size(), "%02x",
                  static_cast<const unsigned char*>(bytes)[i]);
    id += digits.data();
  }
  return id;
}

}  // namespace qurn::report
