// Functions that are nothing but a jump: they hand on every argument, those on the stack included,
// so that no signature need be guessed. The target is reached through the global offset table, so
// it may be any other library's.
#pragma once

// clang-format off
#if defined(__x86_64__)
// Before the jump, INSTRUCTIONS may move arguments between registers.
#define QURN_TAIL_JUMP(NAME, TARGET, INSTRUCTIONS)    \
  asm(".pushsection .text\n"                          \
      ".globl " #NAME "\n"                            \
      ".type " #NAME ", @function\n"                  \
      ".p2align 4\n"                                  \
      #NAME ":\n"                                     \
      ".cfi_startproc\n"                              \
      "  endbr64\n"                                   \
      "  " INSTRUCTIONS "\n"                          \
      "  jmp *" #TARGET "@GOTPCREL(%rip)\n"           \
      ".cfi_endproc\n"                                \
      ".size " #NAME ", . - " #NAME "\n"              \
      ".popsection")
#define QURN_THIRD_ARGUMENT_AS_SECOND "movq %rdx, %rsi"
#elif defined(__aarch64__)
// The landing pad is "bti c"; x16 may be jumped through to another one.
#define QURN_TAIL_JUMP(NAME, TARGET, INSTRUCTIONS)    \
  asm(".pushsection .text\n"                          \
      ".globl " #NAME "\n"                            \
      ".type " #NAME ", %function\n"                  \
      ".p2align 2\n"                                  \
      #NAME ":\n"                                     \
      ".cfi_startproc\n"                              \
      "  hint #34\n"                                  \
      "  " INSTRUCTIONS "\n"                          \
      "  adrp x16, :got:" #TARGET "\n"                \
      "  ldr x16, [x16, :got_lo12:" #TARGET "]\n"     \
      "  br x16\n"                                    \
      ".cfi_endproc\n"                                \
      ".size " #NAME ", . - " #NAME "\n"              \
      ".popsection")
#define QURN_THIRD_ARGUMENT_AS_SECOND "mov x1, x2"
#else
#error "unsupported architecture"
#endif
// clang-format on
