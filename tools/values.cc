#include "tools/values.h"

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

Status ParseFieldValue(const ManifestColumn& column, std::string_view text, unsigned char* out) {
  int64_t v = 0;
  Status s;
  switch (column.encoding) {
    case Encoding::kTinyint:
      if (text.empty()) return Store<bte>(bte_nil, out), Status::OK();
      s = ParseInteger(column, text, INT8_MIN + 1, INT8_MAX, &v);
      if (s.ok()) Store<bte>(static_cast<bte>(v), out);
      return s;
    case Encoding::kSmallint:
      if (text.empty()) return Store<sht>(sht_nil, out), Status::OK();
      s = ParseInteger(column, text, INT16_MIN + 1, INT16_MAX, &v);
      if (s.ok()) Store<sht>(static_cast<sht>(v), out);
      return s;
    case Encoding::kInt:
      if (text.empty()) return Store<int>(int_nil, out), Status::OK();
      s = ParseInteger(column, text, INT32_MIN + 1LL, INT32_MAX, &v);
      if (s.ok()) Store<int>(static_cast<int>(v), out);
      return s;
    case Encoding::kBigint:
      if (text.empty()) return Store<lng>(lng_nil, out), Status::OK();
      s = ParseInteger(column, text, INT64_MIN + 1, INT64_MAX, &v);
      if (s.ok()) Store<lng>(v, out);
      return s;
    case Encoding::kDouble: {
      if (text.empty()) return Store<dbl>(dbl_nil, out), Status::OK();
      std::string t(text);
      char* end = nullptr;
      errno = 0;
      double d = std::strtod(t.c_str(), &end);
      if (end != t.c_str() + t.size() || std::isspace(static_cast<unsigned char>(t[0])))
        return Malformed(column, text, "not a number");
      if (!std::isfinite(d) || errno == ERANGE || d == dbl_nil)
        return Malformed(column, text, "out of range");
      Store<dbl>(d, out);
      return Status::OK();
    }
    case Encoding::kDecimal:
      if (text.empty()) return Store<lng>(lng_nil, out), Status::OK();
      s = ParseDecimalText(text, column.precision, column.scale, &v);
      if (!s.ok()) return Malformed(column, text, s.message());
      Store<lng>(v, out);
      return Status::OK();
    case Encoding::kTimestamp: {
      if (text.empty()) return Store<lng>(lng_nil, out), Status::OK();
      std::string t(text);
      void* ts = ATOMstrConvertToTimeStamp("timestamp", t.c_str());
      if (ts == nullptr)
        return Status::Error("column \"" + column.name + "\": malformed timestamp " + Quoted(text) +
                             " (expected YYYY-MM-DD HH:MM:SS[.mmm])");
      lng value;
      std::memcpy(&value, ts, sizeof value);
      GDKfree(ts);
      if (value == lng_nil)
        return Status::Error("column \"" + column.name + "\": malformed timestamp " + Quoted(text) +
                             " (expected YYYY-MM-DD HH:MM:SS[.mmm])");
      Store<lng>(value, out);
      return Status::OK();
    }
    case Encoding::kRowid:
    case Encoding::kSerial:
      break;
  }
  return Status::Error("column \"" + column.name + "\": " + EncodingName(column) +
                       " columns are not read from a CSV");
}

}  // namespace qopci
