/* A library whose symbols are stripped: only its entry has a name. */
static volatile int g_stuck = 1;

static __attribute__((noinline)) void unnamed(void) {
  while (g_stuck) {
  }
}

void at_library_entry(void) {
  unnamed();
  __asm__ volatile("");
}
