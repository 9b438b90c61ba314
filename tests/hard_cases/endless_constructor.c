/* A library that never finishes loading. */
#include <unistd.h>

extern volatile int g_inside;

__attribute__((constructor)) static void never(void) {
  g_inside = 1;
  for (;;) {
    pause();
  }
}
