// Attribute table: every column attribute number the copy-into library knows (0 to 50), the
// add call it must be registered with, a short meaning, the values this tool lets through,
// and whether this version of the library reads it. The library checks only the size of a
// value, so an attribute of the wrong kind (a number where it reads a string's address) or
// out of its range would crash it or make it allocate without bound; the tool checks every
// attribute against this table before it registers it. docs/attributes.md shows the same
// table, and a test keeps the two alike.
//
// Threading: constant data and pure functions; safe from any thread.
#ifndef QOPCI_TOOLS_ATTRIBUTE_TABLE_H_
#define QOPCI_TOOLS_ATTRIBUTE_TABLE_H_

#include <cstdint>
#include <string>

#include "tools/manifest.h"
#include "tools/status.h"

namespace qopci {

// The largest chunk the tool asks for, in values: 128 MiB for a chunk of 8-byte values. The
// work queue keeps the chunks waiting for a writer within 1% of available memory, but every
// column also holds one chunk being filled, whatever the queue allows, so the bound keeps a
// wide export's own memory within a few GiB. The library refuses a larger chunk as well.
constexpr int64_t kMaxChunkSize = 16777216;

// The largest existing count: the writer places its first value at count x width, which
// must stay a valid file offset for the widest (8-byte) values.
constexpr int64_t kMaxExistingCount = INT64_MAX / 8;

// The largest string heap: a tail offset is a 32-bit byte position, so no string record may
// end past 4 GiB.
constexpr int64_t kMaxHeapSize = 4294967295;

// The values an attribute may take.
struct AttributeRange {
  enum Kind { kAny, kSpan, kCodes };
  Kind kind = kAny;
  int64_t min = 0;     // kSpan, inclusive
  int64_t max = 0;     // kSpan, inclusive
  uint64_t codes = 0;  // kCodes: bit c set when code c is allowed (codes 0 to 63)
};

struct AttributeSpec {
  int number;
  Attribute::Kind call;  // the add call whose size the library reads
  const char* meaning;   // a few words, used in messages
  AttributeRange range;  // kAny for strings
  bool read;             // read by this version of the library
};

constexpr int kAttributeCount = 51;  // numbers 0 to 50

// The entry of `number`. REQUIRES: 0 <= number < kAttributeCount.
const AttributeSpec& AttributeInfo(int number);

// "int", "lng" or "str": the add call of a kind, as docs/attributes.md names it.
const char* CallName(Attribute::Kind kind);

// The range as docs/attributes.md writes it: "any", "1 to 16777216", "1, 2, 4, 8" or
// "0 to 4, 6, 7".
std::string RangeText(const AttributeRange& range);

bool InRange(const AttributeRange& range, int64_t value);

// The last check before an attribute goes to the library: a number the library reads must
// be registered with its own call and lie in its range. Unread numbers pass. The message
// names `column` and the attribute and says it is an internal error: the manifest checks
// should have refused the value before.
Status CheckRegistered(const std::string& column, const Attribute& a);

}  // namespace qopci

#endif  // QOPCI_TOOLS_ATTRIBUTE_TABLE_H_
