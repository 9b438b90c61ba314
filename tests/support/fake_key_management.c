/* Key management that can tell whether every one of its arguments arrived: eight words more than
 * any machine has registers for, floating-point numbers, and a record by value. */
#include "fake_key_management.h"

uint32_t TovPluginKmsEncrypt(uint64_t a, uint64_t b, uint64_t c, uint64_t d, uint64_t e, uint64_t f,
                             uint64_t g, uint64_t h, uint64_t i, uint64_t j, double x, double y,
                             struct Key key) {
  const uint64_t words[] = {a, b, c, d, e, f, g, h, i, j};
  for (uint64_t at = 0; at < sizeof(words) / sizeof(*words); ++at) {
    if (words[at] != at + 1) {
      return 0;
    }
  }
  return x == 0.5 && y == -2.0 && key.bytes[0] == 'k' && key.bytes[39] == '!' ? 0xC0DE0001 : 0;
}

uint32_t TovPluginKmsDecrypt(uint64_t* out) {
  *out = 77;
  return 0xC0DE0002;
}
