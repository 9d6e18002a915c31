// TextLog: a bounded text buffer into which readers and hash tables append their failures.
//
// Each line is "prefix::text", the prefix naming the class that failed. The buffer belongs
// to the caller; a line that does not fit is cut at the capacity, and once the buffer is
// full nothing more is written. The text is always zero-terminated.
// Threading: a log is written by one thread at a time.
#ifndef QOPCI_READERS_TEXT_LOG_H_
#define QOPCI_READERS_TEXT_LOG_H_

#include <cstdint>

namespace qopci {

struct TextLog {
  char* buffer;       // caller's buffer, or null for no logging
  uint32_t capacity;  // bytes of buffer, the terminating zero included
  uint32_t length;    // bytes written so far, without the zero
};

// Appends "prefix::text". Writes nothing when log or its buffer is null or the buffer is
// full; otherwise cuts the line at the capacity and leaves the text zero-terminated.
void TextLogAppend(TextLog* log, const char* prefix, const char* text);

}  // namespace qopci

#endif  // QOPCI_READERS_TEXT_LOG_H_
