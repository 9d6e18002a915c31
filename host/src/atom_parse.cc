// Text to atom values: ATOMstrConvert and ATOMstrConvertToTimeStamp. Every parser takes the
// whole text (surrounding blanks allowed) or fails; a value that does not fit the type, or
// that would collide with the type's nil, fails too.
#include <strings.h>

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "corvid/gdk.h"
#include "corvid/mtime.h"

namespace {

const char* SkipBlanks(const char* p) {
  while (std::isspace(static_cast<unsigned char>(*p))) p++;
  return p;
}

bool AtEnd(const char* p) { return *SkipBlanks(p) == 0; }

bool IsNilText(const char* text) {
  const char* p = SkipBlanks(text);
  return strncasecmp(p, "nil", 3) == 0 && AtEnd(p + 3);
}

bool ParseInt(const char* text, int64_t lo, int64_t hi, int64_t* out) {
  const char* p = SkipBlanks(text);
  if (!*p) return false;
  char* end;
  errno = 0;
  long long v = std::strtoll(p, &end, 10);
  if (end == p || errno == ERANGE || !AtEnd(end) || v < lo || v > hi) return false;
  *out = v;
  return true;
}

// Reads exactly `digits` decimal digits (or 1..digits when `exact` is false).
bool Digits(const char** p, int digits, bool exact, int* out) {
  int n = 0, v = 0;
  while (n < digits && std::isdigit(static_cast<unsigned char>(**p))) {
    v = v * 10 + (**p - '0');
    (*p)++;
    n++;
  }
  if (n == 0 || (exact && n != digits)) return false;
  *out = v;
  return true;
}

// "YYYY-MM-DD" (a leading '-' for years before Christ) into a day number.
bool ParseDate(const char** p, int32_t* days) {
  const char* s = *p;
  char* end;
  errno = 0;
  long long year = std::strtoll(s, &end, 10);
  if (end == s || errno == ERANGE || *end != '-') return false;
  s = end + 1;
  int month, day;
  if (!Digits(&s, 2, false, &month) || *s++ != '-' || !Digits(&s, 2, false, &day)) return false;
  int32_t d = cvd_date_days(year, month, day);
  if (d == CVD_DAY_NIL) return false;
  *days = d;
  *p = s;
  return true;
}

// "HH:MM[:SS[.mmm]]" into milliseconds since midnight.
bool ParseTime(const char** p, int32_t* msecs) {
  const char* s = *p;
  int h, m, sec = 0, ms = 0;
  if (!Digits(&s, 2, false, &h) || *s++ != ':' || !Digits(&s, 2, true, &m)) return false;
  if (*s == ':') {
    s++;
    if (!Digits(&s, 2, true, &sec)) return false;
    if (*s == '.') {
      s++;
      const char* start = s;
      if (!Digits(&s, 3, false, &ms)) return false;
      for (long n = s - start; n < 3; n++) ms *= 10;             // ".5" is 500 ms
      while (std::isdigit(static_cast<unsigned char>(*s))) s++;  // finer digits are dropped
    }
  }
  if (h > 23 || m > 59 || sec > 59) return false;
  *msecs = ((h * 60 + m) * 60 + sec) * 1000 + ms;
  *p = s;
  return true;
}

bool ParseTimestamp(const char* text, int64_t* out) {
  const char* p = SkipBlanks(text);
  int32_t days, msecs = 0;
  if (!ParseDate(&p, &days)) return false;
  if (*p == ' ' || *p == 'T') {
    const char* t = p + 1;
    if (!AtEnd(t) && !ParseTime(&t, &msecs)) return false;
    p = t;
  }
  if (!AtEnd(p)) return false;
  *out = cvd_timestamp(days, msecs);
  return true;
}

void* Emit(const void* v, size_t n) {
  void* out = GDKmalloc(n);
  if (out) std::memcpy(out, v, n);
  return out;
}

template <typename T>
void* EmitInt(const char* text, bool nil) {
  if (nil) {
    T v = static_cast<T>(std::numeric_limits<T>::min());
    return Emit(&v, sizeof v);
  }
  int64_t v;
  // The smallest value is the nil: a text that parses to it is out of range.
  if (!ParseInt(text, static_cast<int64_t>(std::numeric_limits<T>::min()) + 1,
                static_cast<int64_t>(std::numeric_limits<T>::max()), &v))
    return nullptr;
  T t = static_cast<T>(v);
  return Emit(&t, sizeof t);
}

template <typename T>
void* EmitFloat(const char* text, bool nil, T nil_value) {
  T v = nil_value;
  if (!nil) {
    const char* p = SkipBlanks(text);
    char* end;
    errno = 0;
    double d = std::strtod(p, &end);
    if (end == p || !AtEnd(end) || !std::isfinite(d)) return nullptr;
    if (std::fabs(d) > static_cast<double>(std::numeric_limits<T>::max())) return nullptr;
    if (errno == ERANGE && d != 0) return nullptr;
    v = static_cast<T>(d);
  }
  return Emit(&v, sizeof v);
}

}  // namespace

extern "C" {

void* ATOMstrConvert(const char* type_name, const char* text) {
  int type = ATOMindex(type_name);
  if (type < 0 || !text) return nullptr;
  if (type == TYPE_str) return GDKstrdup(text);
  const bool nil = IsNilText(text);
  switch (type) {
    case TYPE_bit: {
      bit v = bit_nil;
      const char* p = SkipBlanks(text);
      if (!nil) {
        size_t n = std::strcspn(p, " \t\r\n");
        if (!AtEnd(p + n)) return nullptr;
        if ((n == 4 && strncasecmp(p, "true", 4) == 0) || (n == 1 && *p == '1'))
          v = 1;
        else if ((n == 5 && strncasecmp(p, "false", 5) == 0) || (n == 1 && *p == '0'))
          v = 0;
        else
          return nullptr;
      }
      return Emit(&v, sizeof v);
    }
    case TYPE_chr: {
      chr v = chr_nil;
      if (!nil) {
        if (!text[0] || text[1]) return nullptr;
        v = text[0];
        if (v == chr_nil) return nullptr;
      }
      return Emit(&v, sizeof v);
    }
    case TYPE_bte:
      return EmitInt<int8_t>(text, nil);
    case TYPE_sht:
      return EmitInt<int16_t>(text, nil);
    case TYPE_bat:
    case TYPE_int:
      return EmitInt<int32_t>(text, nil);
    case TYPE_wrd:
    case TYPE_lng:
      return EmitInt<int64_t>(text, nil);
    case TYPE_void:
    case TYPE_oid: {
      int64_t v = oid_nil;
      if (!nil && !ParseInt(text, 0, static_cast<int64_t>(oid_nil) - 1, &v)) return nullptr;
      oid o = static_cast<oid>(v);
      return Emit(&o, sizeof o);
    }
    case TYPE_ptr: {
      void* v = nullptr;
      if (!nil) {
        const char* p = SkipBlanks(text);
        char* end;
        errno = 0;
        unsigned long long u = std::strtoull(p, &end, 16);
        if (end == p || errno == ERANGE || !AtEnd(end)) return nullptr;
        v = reinterpret_cast<void*>(static_cast<uintptr_t>(u));
      }
      return Emit(&v, sizeof v);
    }
    case TYPE_flt:
      return EmitFloat<float>(text, nil, flt_nil);
    case TYPE_dbl:
      return EmitFloat<double>(text, nil, dbl_nil);
    default:
      break;
  }
  const char* name = ATOMname(type);
  if (std::strcmp(name, "timestamp") == 0) return ATOMstrConvertToTimeStamp(name, text);
  int32_t v = int_nil;
  if (!nil) {
    const char* p = SkipBlanks(text);
    bool ok = std::strcmp(name, "date") == 0 ? ParseDate(&p, &v) : ParseTime(&p, &v);
    if (!ok || !AtEnd(p)) return nullptr;
  }
  return Emit(&v, sizeof v);
}

void* ATOMstrConvertToTimeStamp(const char* type_name, const char* text) {
  (void)type_name;  // the text decides: it is always read as a timestamp
  if (!text) return nullptr;
  int64_t v = lng_nil;
  if (!IsNilText(text) && !ParseTimestamp(text, &v)) return nullptr;
  return Emit(&v, sizeof v);
}

}  // extern "C"
