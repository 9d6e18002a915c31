#include "tools/values.h"

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "corvid/gdk.h"

namespace qopci {

namespace {

std::string Quoted(std::string_view text) { return "\"" + std::string(text) + "\""; }

Status Malformed(const ManifestColumn& column, std::string_view text, const std::string& why) {
  return Status::Error("column \"" + column.name + "\": malformed number " + Quoted(text) +
                       " for " + EncodingName(column) + " (" + why + ")");
}

// Parse a whole decimal integer within [lo, hi]; the error says which rule it broke.
Status ParseInteger(const ManifestColumn& column, std::string_view text, int64_t lo, int64_t hi,
                    int64_t* out) {
  std::string s(text);
  errno = 0;
  char* end = nullptr;
  long long v = std::strtoll(s.c_str(), &end, 10);
  if (s.empty() || end != s.c_str() + s.size() || std::isspace(static_cast<unsigned char>(s[0])))
    return Malformed(column, text, "not an integer");
  if (errno == ERANGE || v < lo || v > hi)
    return Malformed(column, text,
                     "out of range " + std::to_string(lo) + " to " + std::to_string(hi));
  *out = v;
  return Status::OK();
}

bool EqualsIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (std::tolower(static_cast<unsigned char>(a[i])) != b[i]) return false;
  return true;
}

// Plain decimal notation: digits with at most one point, at least one digit, and an
// optional exponent. strtod would also take hexadecimal and "nan(...)", which no CSV means.
bool IsDecimalNotation(std::string_view t) {
  size_t i = 0, digits = 0;
  if (i < t.size() && (t[i] == '+' || t[i] == '-')) ++i;
  for (; i < t.size() && std::isdigit(static_cast<unsigned char>(t[i])); ++i) ++digits;
  if (i < t.size() && t[i] == '.')
    for (++i; i < t.size() && std::isdigit(static_cast<unsigned char>(t[i])); ++i) ++digits;
  if (digits == 0) return false;
  if (i < t.size() && (t[i] == 'e' || t[i] == 'E')) {
    if (++i < t.size() && (t[i] == '+' || t[i] == '-')) ++i;
    size_t exp_start = i;
    while (i < t.size() && std::isdigit(static_cast<unsigned char>(t[i]))) ++i;
    if (i == exp_start) return false;
  }
  return i == t.size();
}

// A double, or "nan", "inf", "infinity" with any case and sign. The nearest double is
// taken; subnormals such as 5e-324 are values (strtod flags them with ERANGE all the same),
// while text beyond the largest double, or so small that it would read as zero, is refused.
Status ParseDouble(const ManifestColumn& column, std::string_view text, double* out) {
  std::string_view word = text;
  const bool negative = !word.empty() && word[0] == '-';
  if (!word.empty() && (word[0] == '-' || word[0] == '+')) word.remove_prefix(1);
  if (EqualsIgnoringCase(word, "nan")) {
    *out = negative ? -std::numeric_limits<double>::quiet_NaN()
                    : std::numeric_limits<double>::quiet_NaN();
    return Status::OK();
  }
  if (EqualsIgnoringCase(word, "inf") || EqualsIgnoringCase(word, "infinity")) {
    *out = negative ? -std::numeric_limits<double>::infinity()
                    : std::numeric_limits<double>::infinity();
    return Status::OK();
  }
  if (!IsDecimalNotation(text)) return Malformed(column, text, "not a number");
  std::string t(text);
  errno = 0;
  double d = std::strtod(t.c_str(), nullptr);
  if (errno == ERANGE && std::isinf(d))
    return Malformed(column, text, "beyond the largest double; write inf for infinity");
  if (errno == ERANGE && d == 0) return Malformed(column, text, "too small: it would be read as 0");
  if (d == dbl_nil)
    return Malformed(column, text, "it equals -DBL_MAX, the value a double column stores for nil");
  *out = d;
  return Status::OK();
}

// Whether a timestamp's text has nonzero digits past the third behind the seconds' point.
bool FinerThanMilliseconds(const std::string& text) {
  size_t point = text.find('.');
  if (point == std::string::npos) return false;
  for (size_t i = point + 4; i < text.size() && std::isdigit(static_cast<unsigned char>(text[i]));
       ++i)
    if (text[i] != '0') return true;
  return false;
}

template <typename T>
void Store(T value, unsigned char* out) {
  std::memcpy(out, &value, sizeof(T));
}

}  // namespace

Status ParseDecimalText(std::string_view text, int precision, int scale, int64_t* out) {
  size_t i = 0;
  bool negative = false;
  if (i < text.size() && (text[i] == '-' || text[i] == '+')) negative = text[i++] == '-';
  std::string_view int_part, frac_part;
  size_t start = i;
  while (i < text.size() && text[i] >= '0' && text[i] <= '9') ++i;
  int_part = text.substr(start, i - start);
  if (i < text.size() && text[i] == '.') {
    size_t f = ++i;
    while (i < text.size() && text[i] >= '0' && text[i] <= '9') ++i;
    frac_part = text.substr(f, i - f);
  }
  if (i != text.size() || (int_part.empty() && frac_part.empty()))
    return Status::Error("not a decimal number");
  if (static_cast<int>(frac_part.size()) > scale)
    return Status::Error("more than " + std::to_string(scale) + " digits after the point");
  while (!int_part.empty() && int_part.front() == '0') int_part.remove_prefix(1);
  if (static_cast<int>(int_part.size()) > precision - scale)
    return Status::Error("more than " + std::to_string(precision) + " digits");
  // At most 18 digits in all: the value fits in 64 bits.
  int64_t v = 0;
  for (char c : int_part) v = v * 10 + (c - '0');
  for (int k = 0; k < scale; ++k)
    v = v * 10 + (k < static_cast<int>(frac_part.size()) ? frac_part[k] - '0' : 0);
  *out = negative ? -v : v;
  return Status::OK();
}

void StoreNil(const ManifestColumn& column, unsigned char* out) {
  switch (ResultWidth(column.encoding)) {
    case 1:
      return Store<bte>(bte_nil, out);
    case 2:
      return Store<sht>(sht_nil, out);
    case 4:
      return Store<int>(int_nil, out);
  }
  if (column.encoding == Encoding::kDouble) return Store<dbl>(dbl_nil, out);
  Store<lng>(lng_nil, out);
}

Status ParseFieldValue(const ManifestColumn& column, std::string_view text, unsigned char* out,
                       bool* caveat) {
  int64_t v = 0;
  Status s;
  switch (column.encoding) {
    case Encoding::kTinyint:
      s = ParseInteger(column, text, INT8_MIN + 1, INT8_MAX, &v);
      if (s.ok()) Store<bte>(static_cast<bte>(v), out);
      return s;
    case Encoding::kSmallint:
      s = ParseInteger(column, text, INT16_MIN + 1, INT16_MAX, &v);
      if (s.ok()) Store<sht>(static_cast<sht>(v), out);
      return s;
    case Encoding::kInt:
      s = ParseInteger(column, text, INT32_MIN + 1LL, INT32_MAX, &v);
      if (s.ok()) Store<int>(static_cast<int>(v), out);
      return s;
    case Encoding::kBigint:
      s = ParseInteger(column, text, INT64_MIN + 1, INT64_MAX, &v);
      if (s.ok()) Store<lng>(v, out);
      return s;
    case Encoding::kDouble: {
      double d = 0;
      s = ParseDouble(column, text, &d);
      if (s.ok()) Store<dbl>(d, out);
      if (caveat != nullptr) *caveat = std::isnan(d);
      return s;
    }
    case Encoding::kDecimal:
      s = ParseDecimalText(text, column.precision, column.scale, &v);
      if (!s.ok()) return Malformed(column, text, s.message());
      Store<lng>(v, out);
      return Status::OK();
    case Encoding::kTimestamp: {
      const Status bad = Status::Error("column \"" + column.name + "\": malformed timestamp " +
                                       Quoted(text) + " (expected YYYY-MM-DD HH:MM:SS[.mmm])");
      std::string t(text);
      void* ts = ATOMstrConvertToTimeStamp("timestamp", t.c_str());
      if (ts == nullptr) return bad;
      lng value;
      std::memcpy(&value, ts, sizeof value);
      GDKfree(ts);
      if (value == lng_nil) return bad;  // the kernel's "nil": not a timestamp here
      Store<lng>(value, out);
      if (caveat != nullptr) *caveat = FinerThanMilliseconds(t);
      return Status::OK();
    }
    case Encoding::kRowid:
    case Encoding::kSerial:
    case Encoding::kString:  // held as text, not as fixed-width bytes
      break;
  }
  return Status::Error("column \"" + column.name + "\": " + EncodingName(column) +
                       " columns are not read from a CSV");
}

}  // namespace qopci
