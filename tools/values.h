// Field parsing: the text of one CSV field turned into the value a result column of a
// manifest encoding holds. Numbers are parsed exactly: a decimal is scaled to an integer
// without rounding, a double is the nearest one (subnormals included, "nan" and "inf"
// spelled out), and text that does not fit the encoding is refused, never truncated.
//
// Threading: pure functions; timestamps go through the kernel's atom converter, which may
// be called from any thread.
#ifndef QOPCI_TOOLS_VALUES_H_
#define QOPCI_TOOLS_VALUES_H_

#include <cstdint>
#include <string>
#include <string_view>

#include "tools/manifest.h"
#include "tools/status.h"

namespace qopci {

// Parse a decimal number ("-12.5") with at most `precision` digits of which at most `scale`
// behind the point, into the integer value * 10^scale (1250 for "12.5" with scale 2).
// REQUIRES: 1 <= precision <= 18, 0 <= scale <= precision.
Status ParseDecimalText(std::string_view text, int precision, int scale, int64_t* out);

// Store the nil value of the column's encoding into out[0 .. ResultWidth()-1].
// REQUIRES: column.encoding is not kRowid, kSerial or kString.
void StoreNil(const ManifestColumn& column, unsigned char* out);

// Parse `text` as a value of the column's encoding into out[0 .. ResultWidth()-1] (native
// byte order, the result BAT's tail type). Nil is not text here (see StoreNil): an empty
// text is malformed. The error says what is wrong with the value but not where; the caller
// adds the line. Two values are read but set *caveat (when given) for the caller to warn
// of: a timestamp with digits below a millisecond (its milliseconds are kept) and a double
// NaN (the kernel compares it equal to every value, so no order of the column holds).
// REQUIRES: column.encoding is not kRowid, kSerial or kString; out has room for
// ResultWidth() bytes.
Status ParseFieldValue(const ManifestColumn& column, std::string_view text, unsigned char* out,
                       bool* caveat = nullptr);

}  // namespace qopci

#endif  // QOPCI_TOOLS_VALUES_H_
