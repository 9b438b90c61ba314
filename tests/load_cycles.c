/* load_cycles TIMES LIBRARY...: opens and closes each so many times, and compares what the process
 * holds early on with what it holds at the end. The monitor stays loaded, so its second opening is
 * already one of a library in use; a guard client comes and goes. */
#include <dirent.h>
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>

enum { kFirstCycles = 10 };

static int entriesOf(const char* path) {
  DIR* directory = opendir(path);
  int count = 0;
  while (readdir(directory) != NULL) {
    ++count;
  }
  closedir(directory);
  return count;
}

static int mappings(void) {
  FILE* maps = fopen("/proc/self/maps", "r");
  int lines = 0;
  for (int c = 0; (c = getc(maps)) != EOF;) {
    lines += c == '\n';
  }
  fclose(maps);
  return lines;
}

static int cycles(const char* library, int count) {
  for (int i = 0; i < count; ++i) {
    void* handle = dlopen(library, RTLD_NOW);
    if (handle == NULL || dlclose(handle) != 0) {
      fprintf(stderr, "%s\n", dlerror());
      return 1;
    }
  }
  return 0;
}

int main(int argc, char** argv) {
  int failed = argc < 3;
  for (int i = 2; i < argc; ++i) {
    failed |= cycles(argv[i], kFirstCycles);
    const int mapped = mappings();
    const int descriptors = entriesOf("/proc/self/fd");
    const int threads = entriesOf("/proc/self/task");
    failed |= cycles(argv[i], atoi(argv[1]));
    printf("%s: %d to %d mappings\n", argv[i], mapped, mappings());
    failed |= mappings() > mapped || entriesOf("/proc/self/fd") != descriptors ||
              entriesOf("/proc/self/task") != threads;
  }
  return failed;
}
