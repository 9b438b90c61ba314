/* A library that never finishes loading. */
#include <unistd.h>

extern volatile int g_insideConstructor;

__attribute__((constructor)) static void never(void) {
  g_insideConstructor = 1;
  for (;;) {
    pause();
  }
}
