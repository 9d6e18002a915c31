#include "tools/attribute_table.h"

#include <array>
#include <cstdint>

namespace qopci {

namespace {

constexpr AttributeRange Any() { return {}; }
constexpr AttributeRange Span(int64_t min, int64_t max) {
  return {AttributeRange::kSpan, min, max, 0};
}
template <typename... Ints>
constexpr AttributeRange Codes(Ints... codes) {
  return {AttributeRange::kCodes, 0, 0, ((uint64_t{1} << codes) | ...)};
}

constexpr Attribute::Kind kInt = Attribute::kInt;
constexpr Attribute::Kind kLng = Attribute::kLng;
constexpr Attribute::Kind kStr = Attribute::kStr;

constexpr std::array<AttributeSpec, kAttributeCount> kTable = {{
    {0, kInt, "chunker kind", Codes(0, 1, 2, 3, 4, 6, 7), true},
    {1, kInt, "writer kind", Span(0, 7), true},
    {2, kInt, "chunk size", Span(1, kMaxChunkSize), true},
    {3, kInt, "chunker type code", Span(0, 8), true},
    {4, kInt, "writer type code", Span(0, 8), true},
    {5, kStr, "tail file", Any(), true},
    {6, kInt, "keep existing rows", Any(), true},
    {7, kInt, "decimal chunker precision", Span(1, 18), true},
    {8, kInt, "decimal chunker scale", Span(0, 18), true},
    {9, kInt, "decimal precision", Span(1, 18), true},
    {10, kInt, "decimal scale", Span(0, 18), true},
    {11, kInt, "string heap parameter", Span(1, 500), true},
    {12, kStr, "string chunker heap file", Any(), true},
    {13, kStr, "string dictionary store directory", Any(), true},
    {14, kInt, "string dictionary initial capacity", Span(1, 1 << 30), true},
    {15, kStr, "level-number file", Any(), true},
    {16, kStr, "year-start file", Any(), true},
    {17, kStr, "quarter-start file", Any(), true},
    {18, kStr, "month-start file", Any(), true},
    {19, kStr, "day file", Any(), true},
    {20, kStr, "dictionary key file (written)", Any(), true},
    {21, kStr, "dictionary key-code file (written)", Any(), true},
    {22, kStr, "string writer heap file", Any(), true},
    {23, kInt, "string tail width", Codes(1, 2, 4, 8), true},
    {24, kStr, "time-level dictionary key-code file", Any(), true},
    {25, kStr, "time-level dictionary level-number file", Any(), true},
    {26, kStr, "time-level dictionary year-start file", Any(), true},
    {27, kStr, "time-level dictionary quarter-start file", Any(), true},
    {28, kStr, "time-level dictionary month-start file", Any(), true},
    {29, kStr, "time-level dictionary day file", Any(), true},
    {30, kStr, "dictionary key file (reloaded)", Any(), true},
    {31, kStr, "dictionary key heap (reloaded)", Any(), true},
    {32, kStr, "dictionary key-code file (reloaded)", Any(), true},
    {33, kInt, "source kind", Span(0, 5), true},
    {34, kInt, "queued writing", Any(), true},
    {35, kInt, "nil as dictionary key", Any(), true},
    {36, kInt, "compressed", Any(), true},
    {37, kLng, "dictionary entries (chunker)", Span(0, kMaxExistingCount), true},
    {38, kLng, "existing count", Span(0, kMaxExistingCount), true},
    {39, kLng, "dictionary entries (writer)", Span(0, kMaxExistingCount), true},
    {40, kLng, "row codes kept (writer)", Span(0, kMaxExistingCount), true},
    {41, kLng, "string chunker heap size", Span(0, kMaxHeapSize), true},
    {42, kLng, "string writer heap size", Span(0, kMaxHeapSize), true},
    {43, kStr, "source row file", Any(), true},
    {44, kLng, "source row count", Span(0, kMaxExistingCount), true},
    {45, kInt, "source type code", Span(0, 8), true},
    {46, kStr, "source dictionary file", Any(), true},
    {47, kLng, "source dictionary count", Span(0, kMaxExistingCount), true},
    {48, kStr, "source heap file", Any(), true},
    {49, kInt, "source tail width", Codes(1, 2, 4, 8), true},
    {50, kInt, "timestamp parsing", Any(), true},
}};

// The table is indexed by number; a misplaced entry would describe another attribute.
constexpr bool Ordered() {
  for (int i = 0; i < kAttributeCount; ++i)
    if (kTable[i].number != i) return false;
  return true;
}
static_assert(Ordered(), "attribute table entries must be in number order");

}  // namespace

const AttributeSpec& AttributeInfo(int number) { return kTable[number]; }

const char* CallName(Attribute::Kind kind) {
  return kind == kInt ? "int" : kind == kLng ? "lng" : "str";
}

std::string RangeText(const AttributeRange& range) {
  switch (range.kind) {
    case AttributeRange::kAny:
      return "any";
    case AttributeRange::kSpan:
      return std::to_string(range.min) + " to " + std::to_string(range.max);
    case AttributeRange::kCodes: {
      // A run of three or more codes reads as "first to last": "0 to 4, 6, 7".
      std::string text;
      for (int c = 0; c < 64; ++c) {
        if (!(range.codes >> c & 1)) continue;
        int last = c;
        while (last < 63 && (range.codes >> (last + 1) & 1)) ++last;
        text += (text.empty() ? "" : ", ") + std::to_string(c);
        if (last - c >= 2) {
          text += " to " + std::to_string(last);
        } else if (last > c) {
          text += ", " + std::to_string(last);
        }
        c = last;
      }
      return text;
    }
  }
  return "?";
}

bool InRange(const AttributeRange& range, int64_t value) {
  switch (range.kind) {
    case AttributeRange::kAny:
      return true;
    case AttributeRange::kSpan:
      return value >= range.min && value <= range.max;
    case AttributeRange::kCodes:
      return value >= 0 && value < 64 && (range.codes >> value & 1);
  }
  return false;
}

Status CheckRegistered(const std::string& column, const Attribute& a) {
  const std::string where =
      "internal error: column " + column + ": attribute " + std::to_string(a.number);
  if (a.number < 0 || a.number >= kAttributeCount)
    return Status::Error(where + " is not a number from 0 to 50");
  if (a.kind == kInt && (a.value < INT32_MIN || a.value > INT32_MAX))
    return Status::Error(where + " would be registered as int, but " + std::to_string(a.value) +
                         " needs 64 bits");
  const AttributeSpec& spec = AttributeInfo(a.number);
  if (!spec.read) return Status::OK();
  const std::string what = where + " (" + spec.meaning + ")";
  if (a.kind != spec.call)
    return Status::Error(what + " would be registered as " + CallName(a.kind) +
                         ", but the library reads it as " + CallName(spec.call));
  if (a.kind != kStr && !InRange(spec.range, a.value))
    return Status::Error(what + " would be registered as " + std::to_string(a.value) +
                         ", outside " + RangeText(spec.range));
  return Status::OK();
}

}  // namespace qopci
