/* qop_copy_into: ends a query by writing its result table straight into column files.
 *
 * The host registers the attributes of every target column, one call per attribute, then
 * calls qopci_export_result once; the export consumes the registered attributes. Every
 * argument of the add calls is passed by address, as host module commands are; they return
 * NULL or an exception text made by the host's createException.
 * Threading: the host calls these from one thread at a time. */
#ifndef QOPCI_QOPCI_H_
#define QOPCI_QOPCI_H_

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

struct mvc;
struct logger;

/* Called once per BAT whose descriptor an export rewrote, with that BAT's id. */
typedef void (*qopci_refresh_fn)(int bat_id);

/* Register attribute *attr (0..50) of column *column. `result` is not used. */
char* qopci_add_col_metadata_int(void* result, char** column, int* attr, int* value);
char* qopci_add_col_metadata_lng(void* result, char** column, int* attr, int64_t* value);
char* qopci_add_col_metadata_str(void* result, char** column, int* attr, char** value);

/* Copy result table `result_id` of the client context into the registered columns' files
 * and update the buffer pool. Returns 0 when nothing was registered (and leaves *error
 * alone), else 1; *error receives NULL on success or the first error's text. */
int qopci_export_result(struct mvc* context, int result_id, struct logger* lg, char** error);

/* Register (or clear, with NULL) the refresh callback; it survives exports. */
void qopci_set_refresh_columns_structs_function(qopci_refresh_fn fn);

#ifdef __cplusplus
}
#endif

#endif /* QOPCI_QOPCI_H_ */
