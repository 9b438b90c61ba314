/* A library whose symbols are stripped: only its entry has a name. */
static __attribute__((noinline)) void unnamed(volatile int* rescued) {
  while (*rescued == 0) {
  }
}

void at_library_entry(volatile int* rescued) {
  unnamed(rescued);
  __asm__ volatile("");
}
