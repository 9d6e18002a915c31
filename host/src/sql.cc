// The SQL client context and its result tables.
#include "corvid/sql.h"

#include <cstring>

#include "corvid/farm.h"

namespace {

void DestroyTable(res_table* t) {
  for (int i = 0; i < t->nr_cols; i++) {
    res_col& c = t->cols[i];
    GDKfree(c.tn);
    GDKfree(c.name);
    GDKfree(c.type.type_name);
    if (c.b) CVDbat_release(c.b);
  }
  if (t->order) CVDbat_release(t->order);
  GDKfree(t->cols);
  GDKfree(t);
}

}  // namespace

extern "C" {

mvc* mvc_create(void) { return static_cast<mvc*>(GDKzalloc(sizeof(mvc))); }

void mvc_destroy(mvc* m) {
  if (!m) return;
  while (m->results) m->results = res_tables_remove(m->results, m->results);
  GDKfree(m);
}

res_table* res_table_create(mvc* m, int nr_cols, bat order) {
  if (!m || nr_cols < 0) return nullptr;
  auto* t = static_cast<res_table*>(GDKzalloc(sizeof(res_table)));
  if (!t) return nullptr;
  t->cols = static_cast<res_col*>(GDKzalloc(sizeof(res_col) * (nr_cols > 0 ? nr_cols : 1)));
  if (!t->cols) {
    GDKfree(t);
    return nullptr;
  }
  t->nr_cols = nr_cols;
  t->id = ++m->result_id;
  t->order = order;
  t->next = m->results;
  m->results = t;
  return t;
}

int res_col_set(res_table* t, int i, const char* tn, const char* name, const char* type_name,
                int digits, int scale, bat b) {
  if (!t || i < 0 || i >= t->nr_cols) return -1;
  res_col& c = t->cols[i];
  GDKfree(c.tn);
  GDKfree(c.name);
  GDKfree(c.type.type_name);
  if (c.b && c.b != b) CVDbat_release(c.b);
  c.tn = GDKstrdup(tn ? tn : "");
  c.name = GDKstrdup(name ? name : "");
  c.type.type_name = GDKstrdup(type_name ? type_name : "");
  c.type.digits = digits;
  c.type.scale = scale;
  c.b = b;
  return 0;
}

res_table* res_tables_remove(res_table* results, res_table* t) {
  if (!t) return results;
  res_table* head = results;
  if (head == t) {
    head = t->next;
  } else {
    res_table* p = head;
    while (p && p->next != t) p = p->next;
    if (!p) return results;  // not in this list: leave it alone
    p->next = t->next;
  }
  DestroyTable(t);
  return head;
}

res_table* res_tables_find(res_table* results, int id) {
  for (res_table* t = results; t; t = t->next)
    if (t->id == id) return t;
  return nullptr;
}

}  // extern "C"
