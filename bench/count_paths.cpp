// count_paths NAME N: runs a hot path N times, and nothing else that depends on N. Two runs of an
// instruction counter tell by their difference what one pass of the path takes.
#include <cstdio>
#include <cstdlib>

#include "paths.h"

int main(int argc, char** argv) {
  if (argc != 3) {
    for (const bench::Path& path : bench::paths()) {
      std::puts(path.name);
    }
    return argc == 1 ? 0 : 2;
  }
  const bench::Path* path = bench::findPath(argv[1]);
  if (path == nullptr) {
    return 2;
  }
  constexpr uint64_t kLiveHandles = 1000;
  const bench::InProcess process(*path, kLiveHandles);
  const bench::InThread thread(*path);
  for (long left = std::strtol(argv[2], nullptr, 10); left > 0; --left) {
    path->run();
  }
  return 0;
}
