/* The argument lists of the tests' own key management. */
#ifndef FAKE_KEY_MANAGEMENT_H
#define FAKE_KEY_MANAGEMENT_H

#include <stdint.h>

struct Key {
  char bytes[40];
};

typedef uint32_t (*EncryptCall)(uint64_t, uint64_t, uint64_t, uint64_t, uint64_t, uint64_t,
                                uint64_t, uint64_t, uint64_t, uint64_t, double, double, struct Key);
typedef uint32_t (*DecryptCall)(uint64_t*);

#endif
