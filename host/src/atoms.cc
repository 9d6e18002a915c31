// The atom table: type numbers, names, sizes, nils, comparison, text formatting and parsing.
#include <strings.h>

#include <cerrno>
#include <cfloat>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "corvid/gdk.h"
#include "corvid/mtime.h"
#include "corvid/strheap.h"

namespace {

enum { kTypeTimestamp = 14, kTypeDaytime = 15, kTypeDate = 16, kTypeCount = 17 };

const bit kBitNil = bit_nil;
const chr kChrNil = chr_nil;
const bte kBteNil = bte_nil;
const sht kShtNil = sht_nil;
const int kIntNil = int_nil;
const oid kOidNil = oid_nil;
const lng kLngNil = lng_nil;
const flt kFltNil = flt_nil;
const dbl kDblNil = dbl_nil;
const char kStrNil[2] = {'\x80', 0};
void* const kPtrNil = nullptr;

struct Atom {
  const char* name;
  int size;
  const void* nil;
};

const Atom kAtoms[kTypeCount] = {
    {"void", 0, &kOidNil},    {"bit", 1, &kBitNil},  {"chr", 1, &kChrNil},
    {"bte", 1, &kBteNil},     {"sht", 2, &kShtNil},  {"bat", 4, &kIntNil},
    {"int", 4, &kIntNil},     {"oid", 4, &kOidNil},  {"wrd", 8, &kLngNil},
    {"ptr", 8, &kPtrNil},     {"flt", 4, &kFltNil},  {"dbl", 8, &kDblNil},
    {"lng", 8, &kLngNil},     {"str", 8, kStrNil},   {"timestamp", 8, &kLngNil},
    {"daytime", 4, &kIntNil}, {"date", 4, &kIntNil},
};

bool ValidType(int t) { return t >= 0 && t < kTypeCount; }

template <typename T>
T Load(const void* p) {
  T v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

template <typename T>
int Cmp(const void* a, const void* b) {
  T x = Load<T>(a), y = Load<T>(b);
  return (x > y) - (x < y);
}

bool IsNil(int type, const void* v) {
  if (type == TYPE_str) return cvd_str_isnil(static_cast<const char*>(v));
  if (type == TYPE_ptr) return Load<void*>(v) == nullptr;
  return std::memcmp(v, kAtoms[type].nil, kAtoms[type].size) == 0;
}

// Append formatted text to *buf, growing it with GDKrealloc.
int Put(char** buf, size_t* len, const char* text) {
  size_t n = std::strlen(text);
  if (!*buf || *len < n + 1) {
    size_t want = n + 1 < 32 ? 32 : n + 1;
    char* grown = static_cast<char*>(*buf ? GDKrealloc(*buf, want) : GDKmalloc(want));
    if (!grown) return -1;
    *buf = grown;
    *len = want;
  }
  std::memcpy(*buf, text, n + 1);
  return static_cast<int>(n);
}

int FormatDate(int32_t days, char* out, size_t n) {
  int y, m, d;
  if (cvd_date_from_days(days, &y, &m, &d) != 0) return -1;
  return std::snprintf(out, n, "%04d-%02d-%02d", y, m, d);
}

int FormatTime(int32_t ms, char* out, size_t n) {
  if (ms < 0 || ms >= 86400000) return -1;
  return std::snprintf(out, n, "%02d:%02d:%02d.%03d", ms / 3600000, ms / 60000 % 60, ms / 1000 % 60,
                       ms % 1000);
}

// Shortest text that reads back to the same double.
void FormatDouble(double v, char* out, size_t n, int max_digits) {
  for (int digits = max_digits - 2; digits <= max_digits; digits++) {
    std::snprintf(out, n, "%.*g", digits, v);
    if ((max_digits > 9 ? std::strtod(out, nullptr) : std::strtof(out, nullptr)) == v) return;
  }
}

}  // namespace

extern "C" {

int ATOMelmshift(int width) {
  int shift = 0;
  while (width > 1) {
    width >>= 1;
    shift++;
  }
  return shift;
}

int ATOMindex(const char* name) {
  if (!name) return -1;
  for (int t = 0; t < kTypeCount; t++)
    if (std::strcmp(kAtoms[t].name, name) == 0) return t;
  return -1;
}

const char* ATOMname(int type) { return ValidType(type) ? kAtoms[type].name : "unknown"; }

int ATOMsize(int type) { return ValidType(type) ? kAtoms[type].size : -1; }

// The kernel resolves every type it stores; a negative type number never names one.
const char* ATOMunknown_name(int type) {
  (void)type;
  return nullptr;
}

const void* ATOMnil(int type) { return ValidType(type) ? kAtoms[type].nil : nullptr; }

int ATOMcmp(int type, const void* a, const void* b) {
  if (!ValidType(type) || !a || !b) return 0;
  const bool na = IsNil(type, a), nb = IsNil(type, b);
  if (na || nb) return nb - na;  // nil sorts first
  switch (type) {
    case TYPE_bit:
    case TYPE_chr:
    case TYPE_bte:
      return Cmp<int8_t>(a, b);
    case TYPE_sht:
      return Cmp<int16_t>(a, b);
    case TYPE_bat:
    case TYPE_int:
    case kTypeDaytime:
    case kTypeDate:
      return Cmp<int32_t>(a, b);
    case TYPE_void:
    case TYPE_oid:
      return Cmp<uint32_t>(a, b);
    case TYPE_wrd:
    case TYPE_lng:
    case kTypeTimestamp:
      return Cmp<int64_t>(a, b);
    case TYPE_ptr:
      return Cmp<uintptr_t>(a, b);
    case TYPE_flt:
      return Cmp<float>(a, b);
    case TYPE_dbl:
      return Cmp<double>(a, b);
    case TYPE_str: {
      int c = std::strcmp(static_cast<const char*>(a), static_cast<const char*>(b));
      return (c > 0) - (c < 0);
    }
  }
  return 0;
}

int ATOMformat(int type, const void* value, char** buf, size_t* len) {
  if (!ValidType(type) || !value || !buf || !len) return -1;
  if (IsNil(type, value)) return Put(buf, len, "nil");
  if (type == TYPE_str) return Put(buf, len, static_cast<const char*>(value));
  char text[64];
  switch (type) {
    case TYPE_bit:
      std::snprintf(text, sizeof text, "%s", Load<bit>(value) ? "true" : "false");
      break;
    case TYPE_chr:
      text[0] = Load<chr>(value);
      text[1] = 0;
      break;
    case TYPE_bte:
      std::snprintf(text, sizeof text, "%d", Load<bte>(value));
      break;
    case TYPE_sht:
      std::snprintf(text, sizeof text, "%d", Load<sht>(value));
      break;
    case TYPE_bat:
    case TYPE_int:
      std::snprintf(text, sizeof text, "%d", Load<int>(value));
      break;
    case TYPE_void:
    case TYPE_oid:
      std::snprintf(text, sizeof text, "%u", Load<oid>(value));
      break;
    case TYPE_wrd:
    case TYPE_lng:
      std::snprintf(text, sizeof text, "%" PRId64, Load<int64_t>(value));
      break;
    case TYPE_ptr:
      std::snprintf(text, sizeof text, "%p", Load<void*>(value));
      break;
    case TYPE_flt:
      FormatDouble(Load<float>(value), text, sizeof text, 9);
      break;
    case TYPE_dbl:
      FormatDouble(Load<double>(value), text, sizeof text, 17);
      break;
    case kTypeDate:
      if (FormatDate(Load<int32_t>(value), text, sizeof text) < 0) return Put(buf, len, "nil");
      break;
    case kTypeDaytime:
      if (FormatTime(Load<int32_t>(value), text, sizeof text) < 0) return Put(buf, len, "nil");
      break;
    case kTypeTimestamp: {
      int64_t ts = Load<int64_t>(value);
      int n = FormatDate(cvd_timestamp_days(ts), text, sizeof text);
      if (n < 0) return Put(buf, len, "nil");
      text[n++] = ' ';
      if (FormatTime(cvd_timestamp_msecs(ts), text + n, sizeof text - n) < 0)
        return Put(buf, len, "nil");
      break;
    }
  }
  return Put(buf, len, text);
}

}  // extern "C"
