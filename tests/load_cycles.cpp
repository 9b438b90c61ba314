// load_cycles TIMES LIBRARY...: opens and closes each so many times, and compares what the process
// holds early on with what it holds at the end. The monitor stays loaded, so its second opening is
// already one of a library in use; a guard client comes and goes.
#include <dlfcn.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace {

// Mappings, descriptors, threads.
std::array<long, 3> held() {
  const auto entries = [](const char* folder) {
    return std::distance(std::filesystem::directory_iterator(folder), {});
  };
  std::ifstream maps("/proc/self/maps");
  return {std::count(std::istreambuf_iterator<char>(maps), {}, '\n'), entries("/proc/self/fd"),
          entries("/proc/self/task")};
}

void cycle(const char* library, int times) {
  for (int i = 0; i < times; ++i) {
    if (void* handle = dlopen(library, RTLD_NOW); handle == nullptr || dlclose(handle) != 0) {
      std::fprintf(stderr, "%s\n", dlerror());
      std::exit(1);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  int failed = argc < 3;
  for (int i = 2; i < argc; ++i) {
    cycle(argv[i], 10);
    const auto early = held();
    cycle(argv[i], std::atoi(argv[1]));
    const auto late = held();
    std::printf("%s: %ld to %ld mappings\n", argv[i], early[0], late[0]);
    failed |= late[0] > early[0] || late[1] != early[1] || late[2] != early[2];
  }
  return failed;
}
