/* The library's one error-line helper: every message goes to standard error
 * as three writes, a red prefix naming the source file, line and reporting
 * function, the message itself, and the colour reset. */
#ifndef HLS_LOG_H
#define HLS_LOG_H

#include <stdio.h>

#define HLS_LOG_ERROR(func, ...)                                                   \
    do {                                                                           \
        fprintf(stderr, "\033[1;31m<ERROR! %s:%d, %s>: ", __FILE__, __LINE__, func); \
        fprintf(stderr, __VA_ARGS__);                                              \
        fprintf(stderr, "\033[0m");                                                \
    } while (0)

#endif
