/* corvid SQL layer: the client context and the result tables a query leaves behind.
 *
 * A result table has columns, each naming the transient BAT that holds its values, and
 * optionally an order BAT whose tail lists the result's row oids in output order.
 * Threading: a context belongs to one client thread. */
#ifndef CORVID_SQL_H_
#define CORVID_SQL_H_

#include "corvid/gdk.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct sql_subtype {
  char* type_name; /* SQL type name ("int", "decimal", "timestamp", ...) */
  int digits;      /* precision */
  int scale;
} sql_subtype;

typedef struct res_col {
  char* tn;         /* table name */
  char* name;       /* column name */
  sql_subtype type;
  bat b;            /* BAT of the values; the result holds a logical reference */
} res_col;

typedef struct res_table {
  int id;
  int nr_cols;
  res_col* cols;    /* nr_cols columns */
  bat order;        /* order BAT id, 0 when there is none */
  struct res_table* next;
} res_table;

typedef struct mvc {
  res_table* results; /* the client's result tables, newest first */
  int result_id;      /* last id handed out */
} mvc;

mvc* mvc_create(void);
void mvc_destroy(mvc* m); /* destroys its result tables too */

/* A new result table with nr_cols empty columns, pushed on m->results; `order` is taken
 * over (one logical reference) unless 0. */
res_table* res_table_create(mvc* m, int nr_cols, bat order);

/* Fill column i: names are copied, `b` is taken over (one logical reference). Returns 0,
 * or -1 for a bad index. */
int res_col_set(res_table* t, int i, const char* tn, const char* name, const char* type_name,
                int digits, int scale, bat b);

/* Unlink t from the list headed by `results`, destroy it (releasing its BATs) and return
 * the new head. */
res_table* res_tables_remove(res_table* results, res_table* t);

/* The result table with this id, or NULL. */
res_table* res_tables_find(res_table* results, int id);

#ifdef __cplusplus
}
#endif

#endif /* CORVID_SQL_H_ */
