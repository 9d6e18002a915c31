// MMFByteReader: reads a file front to back through a span that moves along its mapping.
//
// Open maps the first span (one granule, or the whole file with SetWholeFile); Seek moves
// the span when a position falls outside it. A span is never longer than the file was at
// open, and Close cuts the file back to that size should a mapping have grown it.
// Threading: used by one thread at a time.
#ifndef QOPCI_WRITERS_MMF_MMF_BYTE_READER_H_
#define QOPCI_WRITERS_MMF_MMF_BYTE_READER_H_

#include <cstdint>
#include <string>

#include "writers/mmf/mmf_manipulator.h"

namespace qopci {

class MMFByteReader : public MMFManipulator {
 public:
  explicit MMFByteReader(const std::string& name, uint64_t requested_size = MMF::kNoRequestedSize);
  ~MMFByteReader() override;

  // Opens an existing file (a missing one fails and nothing is created) and maps its first
  // span. An empty file opens without a span.
  bool Open() override;
  // Closes the file; the span is gone until the next Open.
  bool Close() override;
  // SeekEx(position, true).
  virtual bool Seek(uint64_t position);
  // Makes position the cursor, moving the span when position lies outside it; without
  // force, the span is not moved once the last span is mapped. False for an empty file, a
  // position at or beyond the requested size, or a failed mapping.
  virtual bool SeekEx(uint64_t position, bool force);

  // The current span: Span()[i] is the byte at file offset SpanStart() + i, for
  // i < SpanLength(). Valid until the next Seek or Close.
  const char* Span() const { return span_; }
  uint64_t SpanStart() const { return span_start_; }
  uint64_t SpanLength() const { return span_length_; }
  // The byte at the cursor. REQUIRES: the last Seek succeeded.
  const char* Current() const { return span_ + (span_cursor_ - span_start_); }
  uint64_t GetPosition() const { return position_; }
  bool IsLastSpan() const { return last_span_; }
  bool IsEmpty() const { return empty_; }

 protected:
  // Moves the span to start at p; see SeekEx for force.
  bool MoveSpan(uint64_t p, bool force);

  const char* span_ = nullptr;
  uint64_t position_ = 0;     // read position
  uint64_t span_start_ = 0;   // file offset of span_[0]
  uint64_t span_length_ = 0;  // valid bytes at span_
  uint64_t span_step_ = 0;    // length of a span that the file's end does not cut
  bool last_span_ = false;    // the span reaches the end of the file
  bool empty_ = false;        // the file was empty at open
};

}  // namespace qopci

#endif  // QOPCI_WRITERS_MMF_MMF_BYTE_READER_H_
