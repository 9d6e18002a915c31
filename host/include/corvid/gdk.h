/* corvid kernel: the host column store's storage kernel as the copy-into library sees it.
 *
 * A BAT is a typed column: a dense head (row i has oid hseqbase + i) and a tail of fixed-width
 * values held in a heap; string tails hold offsets into a second, variable-sized heap. The
 * buffer pool (BBP) numbers every BAT and keeps its descriptor; persistent BATs live in a farm
 * directory as files named from their physical name, listed by a catalog that TMcommit writes.
 *
 * Threading: the buffer pool, descriptors and commit belong to the thread that holds BBPlock;
 * atoms and GDK memory routines may be called from any thread. */
#ifndef CORVID_GDK_H_
#define CORVID_GDK_H_

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Scalar types ------------------------------------------------------------------- */

typedef int bat;          /* BBP id; 0 is never a BAT */
typedef uint32_t oid;     /* row id, 32-bit unsigned */
typedef int8_t bit;       /* boolean, nil is the smallest value */
typedef char chr;
typedef int8_t bte;
typedef int16_t sht;
typedef int64_t lng;
typedef int64_t wrd;
typedef float flt;
typedef double dbl;
typedef char* str;
typedef uint64_t BUN;     /* row index or count */

#define BUN_NONE ((BUN)UINT64_MAX)

/* Atom type numbers. timestamp, daytime and date are registered after str; callers find
 * them by name with ATOMindex. */
enum {
  TYPE_void = 0, /* dense oid sequence, no storage */
  TYPE_bit = 1,
  TYPE_chr = 2,
  TYPE_bte = 3,
  TYPE_sht = 4,
  TYPE_bat = 5,
  TYPE_int = 6,
  TYPE_oid = 7,
  TYPE_wrd = 8,
  TYPE_ptr = 9,
  TYPE_flt = 10,
  TYPE_dbl = 11,
  TYPE_lng = 12,
  TYPE_str = 13
};

/* Nil values: the smallest value of each signed integer type; -DBL_MAX / -FLT_MAX for the
 * floats; the string nil is the byte 0x80 followed by a zero. */
#define bit_nil ((bit)INT8_MIN)
#define chr_nil ((chr)INT8_MIN)
#define bte_nil ((bte)INT8_MIN)
#define sht_nil ((sht)INT16_MIN)
#define int_nil ((int)INT32_MIN)
#define oid_nil ((oid)0x80000000u)
#define wrd_nil ((wrd)INT64_MIN)
#define lng_nil ((lng)INT64_MIN)
#define flt_nil (-3.40282346638528859812e+38F)
#define dbl_nil (-1.7976931348623157e+308)
#define str_nil ((str) "\200")
#define ptr_nil ((void*)0)

/* ---- Heaps and BAT descriptors ------------------------------------------------------ */

#define HEAP_STRPREFIX 2 /* Heap.flags: string records carry the 8-byte length+hash prefix */
#define HEAP_MAPPED 4    /* Heap.flags: base is the kernel's private read mapping of the file */

typedef struct Heap {
  size_t free;    /* bytes in use */
  size_t size;    /* bytes allocated */
  char* base;     /* memory holding the heap, NULL while not loaded */
  size_t baseoff; /* heap position that base[0] stands for (0 for a whole heap) */
  int flags;      /* HEAP_* bits */
  int dirty;      /* memory differs from the file; written by TMcommit */
} Heap;

/* Status word bits of BAT.batStatus. */
#define BATSTATUS_LOADED 0x01  /* heaps are in memory */
#define BATSTATUS_REWRITTEN 0x10 /* files were rewritten outside the kernel: commit keeps them */

typedef struct BAT {
  bat batCacheid;     /* BBP id */
  bat batParent;      /* id of the BAT this one is a view of, 0 when it is not a view */
  int batPersistent;  /* 1 for persistent (in the farm catalog), 0 for transient */
  oid hseqbase;       /* dense head: row i has oid hseqbase + i */
  oid tseqbase;       /* TYPE_void tails: value of row i is tseqbase + i, or oid_nil */
  int ttype;          /* atom type number of the tail */
  uint16_t twidth;    /* bytes per tail element (string tails: offset width 1, 2, 4 or 8) */
  uint16_t tshift;    /* log2(twidth) */
  BUN batFirst;       /* index of the first row, 0 in this kernel */
  BUN batCount;       /* rows */
  BUN batCapacity;    /* rows the tail heap has room for */
  BUN tailRows;       /* rows the tail heap holds: theap.free / twidth */
  Heap theap;         /* tail */
  Heap* tvheap;       /* string heap of str BATs, NULL otherwise */
  uint8_t tsorted;    /* tail ascending */
  uint8_t trevsorted; /* tail descending */
  uint8_t tkey;       /* tail values distinct */
  uint8_t tnonil;     /* tail holds no nil */
  uint8_t tdense;     /* tail is a dense oid sequence */
  uint8_t batDirty;   /* heaps changed since the last commit */
  uint8_t batDirtydesc; /* descriptor changed since the last commit */
  uint32_t batStatus; /* BATSTATUS_* bits */
} BAT;

/* Value address of row i of a fixed-width tail. */
#define Tloc(b, i) ((void*)((b)->theap.base + ((size_t)(i) << (b)->tshift)))

/* Shift for a width: 0, 1, 2, 3 for 1, 2, 4, 8 (and 0 for 0). */
int ATOMelmshift(int width);

/* ---- Buffer pool ---------------------------------------------------------------------- */

/* The lock that an export holds over the whole buffer pool; `who` names the holder. */
void BBPlock(const char* who);
void BBPunlock(const char* who);

/* One more than the highest BBP id in use (1 for an empty pool; id 0 is never used). */
bat BBPsize(void);

/* Physical file-name stem of entry i ("07/0734"), relative to the farm's bat directory and
 * with "/" separators; "" for a free or out-of-range entry. Returns buf. */
char* BBPphysical(bat i, char* buf);

/* Full path of the farm's bat directory, ending without "/" ("/path/farm/bat"). */
const char* BBPfarmdir(void);

/* The descriptor of BAT i without loading or fixing it; NULL for a free or bad id. */
BAT* BBPgetdesc(bat i);

/* Fix BAT i and load its heaps; NULL for a bad id or a load failure. Pair with
 * BBPreleaseref. */
BAT* BBPdescriptor(bat i);

/* Reference counts: physical (fix) references keep heaps loaded; logical ones keep the
 * BAT alive. Return the new count, or -1 for a bad id. */
int BBPincref(bat i, int logical);
int BBPdecref(bat i, int logical);
int BBPfix(bat i);
int BBPreleaseref(bat i); /* drops one physical reference */

/* Enter a loaded BAT into the cache (it stays loaded) or drop it (heaps unloaded, the
 * descriptor kept unless unloaddesc). */
int BBPcacheit(BAT* b, int lock);
void BBPuncacheit(bat i, int unloaddesc);

/* ---- BATs ------------------------------------------------------------------------------ */

/* Load the heaps of BAT i from its files exactly as its descriptor describes them (count,
 * width, heap sizes). NULL when the files are missing or shorter than described. */
BAT* BATload_intern(bat i, int lock);

/* Free the heaps' memory of a loaded BAT; the descriptor stays. */
void BATfree(BAT* b);

/* Check the sorted, key and no-nil flags against the data and clear the false ones. Flags
 * that the commit checked against the same data (same rows, sizes and width, no claim added)
 * are not scanned again. */
void BATpropcheck(BAT* b);

/* Row index whose head oid equals *(const oid*)value, or BUN_NONE. */
BUN BUNfnd(BAT* b, const void* value);

/* Address of the tail value of row i: fixed-width tails give the slot, string tails the
 * string in the heap, void tails a per-BAT scratch oid. */
const void* BUNtail(BAT* b, BUN i);

/* ---- Atoms ---------------------------------------------------------------------------- */

int ATOMindex(const char* name);     /* type number, or -1 for an unknown name */
const char* ATOMname(int type);      /* "unknown" for a bad number */
int ATOMsize(int type);              /* bytes of a stored value; 0 for void, -1 for bad */
const char* ATOMunknown_name(int type); /* name of a negative (unresolved) type, or NULL */
const void* ATOMnil(int type);       /* address of the nil value (a static; do not free) */
int ATOMcmp(int type, const void* a, const void* b); /* <0, 0, >0; nil sorts first */

/* Format the value at `value` as text into *buf (reallocated with GDKmalloc as needed,
 * *len its size). Returns the text length, or -1. nil prints "nil". */
int ATOMformat(int type, const void* value, char** buf, size_t* len);

/* Parse text into a new value of the type named `type_name`. Returns a GDKmalloc'd value
 * (for "str" a copy of the string) or NULL when the text does not parse. */
void* ATOMstrConvert(const char* type_name, const char* text);

/* As ATOMstrConvert, but the text is a timestamp "YYYY-MM-DD HH:MM:SS[.mmm]" (date only
 * is accepted too); the result is the 64-bit timestamp whatever the type name. */
void* ATOMstrConvertToTimeStamp(const char* type_name, const char* text);

/* ---- Memory ------------------------------------------------------------------------- */

void* GDKmalloc(size_t size);
void* GDKzalloc(size_t size);
void* GDKrealloc(void* p, size_t size);
char* GDKstrdup(const char* s);
void GDKfree(void* p);
/* Check the allocator's books; 0 asks for a quiet check. */
void GDKmemchk(int verbose);
/* Live GDK blocks and bytes, and the count of frees of pointers that were not live blocks;
 * any argument may be NULL. */
void GDKmemstat(int64_t* blocks, int64_t* bytes, int64_t* bad_frees);

/* ---- Transactions --------------------------------------------------------------------- */

typedef struct logger logger;

/* Restart the logger on a fresh log file; cleanup removes the log files it no longer needs.
 * Return 0 on success. */
int logger_restart(logger* lg);
int logger_cleanup(logger* lg);

/* Hand out `count` new oids; returns the first. Persisted by the next commit. */
oid OIDnew(oid count);

/* Make every persistent BAT durable: flush the column files, write the catalog to a new
 * file, flush it, rename it over the old one and flush the directory. Returns 0 on success;
 * on failure (told by "#TMcommit: <why>" on stderr) the previous commit stays the farm's
 * state, on disk and in memory. Fails in a read-only farm. */
int TMcommit(void);

#ifdef __cplusplus
}
#endif

#endif /* CORVID_GDK_H_ */
