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

/* Flags of CVDfarm_open; they exclude each other. */
#define CVD_FARM_CREATE 1   /* make the farm when it does not exist, or finish a half-made one
                               (a directory whose first catalog was never put in place and
                               that holds no column files) */
#define CVD_FARM_READONLY 2 /* a reader: sees the last commit (through the pending files of a
                               commit whose renames are under way), takes no lock, and never
                               creates, renames or removes anything in the farm; a half-made
                               farm reads as an empty one. TMcommit fails, and so does making
                               a persistent BAT */

/* Open the farm in `dir` with CVD_FARM_* flags (0: open an existing farm for writing). A
 * writer holds an advisory lock (flock of "<dir>/lock", which holds its process id) from
 * before it reads anything until close: a second writer in another process fails at once
 * with "farm <dir> is locked by another writer (process <pid>)" and changes nothing. A
 * writer's open also finishes the renames of a commit that took effect, and removes what
 * interrupted commits and exports left behind ("catalog.new", column files that no catalog
 * entry names). A catalog that is missing, truncated or corrupt, or that names missing or
 * short files, is an error: the farm stays closed and its files as they were. */
char* CVDfarm_open(const char* dir, int flags);

/* Check every column of the farm in `dir` without trusting it: the farm is opened as a
 * reader (no lock; nothing in it changes) and closed again. For each persistent BAT: width
 * against type, count against the tail's size, that its files hold the bytes the catalog
 * describes, every block against its checksum, that every offset of a string tail points at
 * a whole string record inside the heap, and its sorted, revsorted, key and no-nil claims
 * against its values. *report (GDKmalloc'd; free with GDKfree) receives one line per fault,
 * "<table.column>: <what>", naming the file and block where one is at fault, then a summary
 * line "farm <dir>: N columns, F files, B blocks checked: no faults" (or "K faults"); a farm
 * whose catalog predates checksums gets a line saying "no checksums". *faults receives K.
 * NULL when the check ran, whatever it found; an exception text when it could not (a farm is
 * already open, or the catalog is missing or damaged: that text is then the one fault). */
char* CVDfarm_verify(const char* dir, char** report, int* faults);

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

/* A new persistent BAT of atom type `type` that replaces the named persistent BAT `target`
 * at the next commit: from that commit on it carries the target's name and SQL type (unless
 * one was set on it), and the target and its files are gone (the target lives on as a
 * transient BAT while someone still refers to it). Until then it is named nowhere
 * (CVDbat_name gives NULL, CVDbat_lookup still finds the target), and a commit that fails,
 * or none, leaves the target as it is; the next writer's open removes the files of a
 * replacement that was never committed. Writing into the replacement's files never touches
 * the committed ones. A BAT has at most one replacement. The caller holds one logical
 * reference. */
char* CVDbat_create_replacement(bat target, int type, bat* out);

/* The SQL type of a persistent BAT's column ("decimal(9,2)", "timestamp with time zone"):
 * up to 1024 bytes without control characters, kept by the catalog from the next commit on.
 * CVDbat_sqltype gives "" when none was set, NULL for a transient BAT or a bad id. */
char* CVDbat_set_sqltype(bat b, const char* sqltype);
const char* CVDbat_sqltype(bat b);

/* The persistent BAT with this name, or 0. */
bat CVDbat_lookup(const char* name);

/* The name of a persistent BAT, NULL for a transient one or a bad id. */
const char* CVDbat_name(bat b);

/* Full path of a column file of BAT b: the tail ("tail") or string heap ("theap"). */
char* CVDbat_filename(bat b, const char* ext, char* buf, size_t len);

/* Load the heaps of persistent BAT b from its files as BATload_intern does, checking every
 * block of the bytes in use against the committed checksums (files rewritten since the last
 * commit have none yet). NULL on success, else an exception text naming the BAT, the file
 * and what is wrong ("IOException:BATload_intern:BAT 3 (t.c): <file>: block 1 (bytes
 * 65536-131071) does not match its checksum"). BATload_intern prints that text on stderr,
 * after "#BATload_intern: ", and returns NULL. */
char* CVDbat_load(bat b);

/* Drop one logical reference; a transient BAT without references is freed. */
void CVDbat_release(bat b);

/* Test hook: make the next TMcommit fail at step 0 (before any column file), 1 (column
 * files written, before the catalog), 2 (catalog.new written, before its rename) or 3 (the
 * farm directory's fsync after the rename); -1 clears it. A failing commit prints
 * "#TMcommit: <why>" on stderr and leaves the farm, on disk and in memory, at its previous
 * commit. */
void CVDfarm_fail_commit(int step);

/* Test hook: the n-th file-system call (open, read, write, fsync, stat, mkdir, link, rename,
 * remove, mmap) made by the next TMcommit, counting from 1, fails with errno `err`; a
 * negative `err` ends the process at that call instead (_exit(-err)), leaving the files as a
 * crash would. n = 0 clears it. Removing what a commit no longer needs, once it has taken
 * effect, is not counted: it cannot fail the commit. */
void CVDfarm_fail_commit_call(int n, int err);

/* Test hook: with `skip` not 0, loading a BAT does not check its blocks against their
 * checksums (CVDfarm_verify still does), as for a farm whose catalog predates checksums.
 * Lets tests and fuzz targets reach what reads damaged bytes: that code must stay safe for
 * the farms no checksum covers. */
void CVDfarm_skip_load_checksums(int skip);

/* File-system calls made by the last TMcommit: lets a test arm each of them in turn. */
int CVDcommit_call_count(void);

/* Seconds taken by the last TMcommit (0 before the first): *total_s the whole call,
 * *flush_s the part spent making files durable (fsync of the column files and directories,
 * durable writes of the kernel's own files). Either pointer may be NULL. */
void CVDcommit_times(double* total_s, double* flush_s);

#ifdef __cplusplus
}
#endif

#endif /* CORVID_FARM_H_ */
