#include "fuzz_target.h"

#include <sys/mman.h>
#include <unistd.h>

std::string fileWith(const std::vector<char>& content) {
  static const int fd = memfd_create("fuzz", 0);
  DEMAND(ftruncate(fd, 0) == 0);
  DEMAND(pwrite(fd, content.data(), content.size(), 0) == static_cast<ssize_t>(content.size()));
  return "/proc/self/fd/" + std::to_string(fd);
}
