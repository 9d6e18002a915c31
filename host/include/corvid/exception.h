/* corvid runtime: exceptions in the host's form and the BAT module's cold hint.
 *
 * Threading: may be called from any thread. */
#ifndef CORVID_EXCEPTION_H_
#define CORVID_EXCEPTION_H_

#include "corvid/gdk.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Exception classes; their names head the exception text. */
enum exception_type {
  MAL = 0,    /* "MALException" */
  ILLARG = 1, /* "IllegalArgumentException" */
  OUTOFBNDS = 2, /* "OutOfBoundsException" */
  IO = 3,     /* "IOException" */
  SQL = 4     /* "SQLException" */
};

/* A new exception text "class:place:message" (message printf-formatted), allocated with
 * GDKmalloc; the caller frees it with GDKfree. */
char* createException(enum exception_type type, const char* place, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

/* Name of an exception class ("IllegalArgumentException"), "UnknownException" if bad. */
const char* exceptionName(enum exception_type type);

/* Tell the buffer pool that BAT *b will not be used soon: it may unload its heaps once no
 * one holds them. NULL on success, else an exception text. */
char* BKCcoldBAT(bat* b);

#ifdef __cplusplus
}
#endif

#endif /* CORVID_EXCEPTION_H_ */
