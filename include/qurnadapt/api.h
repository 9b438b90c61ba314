/* Linkage of every public declaration and the result codes that they share. */
#ifndef QURNADAPT_API_H
#define QURNADAPT_API_H

#include <stdbool.h> /* not used here: components have always got it from this header */
#include <stdint.h>

/* Marks the names that the shared library exports; everything else stays hidden. */
#define QURN_API __attribute__((visibility("default")))

/* Stand around the declarations of a header: C linkage, and no warning of parameter lists that are
 * empty on purpose, see below. */
#ifdef __cplusplus
#define QURN_BEGIN_DECLS extern "C" {
#define QURN_END_DECLS }
#else
#define QURN_BEGIN_DECLS \
  _Pragma("GCC diagnostic push") _Pragma("GCC diagnostic ignored \"-Wstrict-prototypes\"")
#define QURN_END_DECLS _Pragma("GCC diagnostic pop") /* Ends what QURN_BEGIN_DECLS began. */
#endif

/* The parameter list of a call that takes any arguments: C before 2023
 * writes it as an empty list. */
#if defined(__cplusplus) || (defined(__STDC_VERSION__) && __STDC_VERSION__ >= 202311L)
#define QURN_ANY_ARGUMENTS ...
#else
#define QURN_ANY_ARGUMENTS
#endif

#define QURN_OK 0U                 /* Success. */
#define QURN_FAILED 0xFFFFFFFFU    /* A failure of the function's own. */
#define QURN_INVALID_ARGUMENT 2U   /* Invalid argument, maintenance calls. */
#define QURN_INVALID_VALUE 22U     /* Invalid argument, legacy time and memory calls. */
#define QURN_NO_KEEP_ALIVE_HOOK 6U /* No keep-alive hook is registered. */
#define QURN_EXIT_STATUS 88        /* Exit status of a process that the library ends. */

#endif
