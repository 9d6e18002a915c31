/* corvid farm: the embedded kernel's own entry points for the tool and the tests. The host
 * functions the copy-into library calls are in gdk.h, sql.h and exception.h.
 *
 * A farm is a directory: "bat/" holds the column files (tails "<physical>.tail", string
 * heaps "<physical>.theap"), "catalog" lists every persistent BAT, "log/" the logger's files.
 * One farm is open per process. Errors are exception texts from createException (free them
 * with GDKfree); NULL means success.
 * Threading: as the buffer pool (gdk.h). */
#ifndef CORVID_FARM_H_
#define CORVID_FARM_H_

#include "corvid/gdk.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Open the farm in `dir`; with create set, make it when it does not exist. A catalog that
 * is missing, truncated or corrupt, or that names missing files, is an error and the farm
 * stays closed. */
char* CVDfarm_open(const char* dir, int create);

/* Drop every BAT from memory without committing and close the farm. */
void CVDfarm_close(void);

const char* CVDfarm_dir(void); /* NULL while no farm is open */
logger* CVDfarm_logger(void);  /* the farm's transaction logger */

/* A new empty BAT of atom type `type` (TYPE_void is not allowed here). With a name it is
 * persistent and listed in the catalog at the next commit (names are unique); without one
 * it is transient. The caller holds one logical reference. */
char* CVDbat_create(int type, const char* name, BUN capacity, bat* out);

/* A new transient BAT with a dense oid tail seqbase, seqbase + 1, ... of `count` rows. */
char* CVDbat_dense(oid seqbase, BUN count, bat* out);

/* Append one value: the address of a value of the tail type, or for str the string itself
 * (a const char*). String tails widen as their heap grows. */
char* CVDbat_append(bat b, const void* value);

/* Append n fixed-width values stored contiguously. */
char* CVDbat_append_n(bat b, const void* values, BUN n);

/* The persistent BAT with this name, or 0. */
bat CVDbat_lookup(const char* name);

/* The name of a persistent BAT, NULL for a transient one or a bad id. */
const char* CVDbat_name(bat b);

/* Full path of a column file of BAT b: the tail ("tail") or string heap ("theap"). */
char* CVDbat_filename(bat b, const char* ext, char* buf, size_t len);

/* Drop one logical reference; a transient BAT without references is freed. */
void CVDbat_release(bat b);

/* Test hook: make the next TMcommit fail at step 0 (before any column file), 1 (column
 * files written, before the catalog) or 2 (catalog.new written, before its rename); -1
 * clears it. */
void CVDfarm_fail_commit(int step);

/* Seconds taken by the last TMcommit (0 before the first): *total_s the whole call,
 * *flush_s the part spent making files durable (fsync of the column files and directories,
 * durable writes of the kernel's own files). Either pointer may be NULL. */
void CVDcommit_times(double* total_s, double* flush_s);

#ifdef __cplusplus
}
#endif

#endif /* CORVID_FARM_H_ */
