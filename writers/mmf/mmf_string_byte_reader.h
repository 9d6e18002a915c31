// MMFStringByteReader: reads zero-terminated strings at any position of a file, such as a
// string heap.
//
// ReadString places the span so that the string starting at a position is addressable up
// to and including its zero byte, widening the span as far as the string reaches; a string
// whose zero byte is not in the file is refused, and nothing past the file is ever read.
// Seeks move the span backwards as well as forwards, since strings are looked up in any
// order.
// Threading: used by one thread at a time.
#ifndef QOPCI_WRITERS_MMF_MMF_STRING_BYTE_READER_H_
#define QOPCI_WRITERS_MMF_MMF_STRING_BYTE_READER_H_

#include <cstdint>
#include <string>

#include "writers/mmf/mmf_byte_reader.h"

namespace qopci {

class MMFStringByteReader : public MMFByteReader {
 public:
  explicit MMFStringByteReader(const std::string& name,
                               uint64_t requested_size = MMF::kNoRequestedSize);
  ~MMFStringByteReader() override;

  // SeekEx(position, true): a string reader may always move its span.
  bool Seek(uint64_t position) override;
  bool SeekEx(uint64_t position, bool force) override;

  // Makes the string at start the cursor, addressable through Current() up to its zero
  // byte. end is where the caller expects the next string (equal to start when it does
  // not know); lookup marks a random access rather than a walk. False, with the cursor
  // unchanged or the span gone, when start is outside the file (or the requested size)
  // or the string has no zero byte before the end.
  bool ReadString(uint64_t start, uint64_t end, bool lookup);

 private:
  // Bytes of the file that may be read: its size at open, cut to the requested size.
  uint64_t Limit() const;
};

}  // namespace qopci

#endif  // QOPCI_WRITERS_MMF_MMF_STRING_BYTE_READER_H_
