// BATReader<T>: the interface of every reader of an existing column file.
//
// A reader walks a file front to back, one element per Read, and hands out the element
// under its cursor with GetValue. Calling order: construct, optionally SetWholeFile,
// Initialize (which logs a failure) or Open, then Read/GetValue pairs while Read succeeds
// (the first successful Read leaves the cursor on the first element), Close, destroy.
// Failures are reported by false results; the logging forms also append a line to a
// TextLog. Nothing is thrown.
// Threading: a reader belongs to one thread at a time; it has no locks.
#ifndef QOPCI_READERS_BAT_READER_H_
#define QOPCI_READERS_BAT_READER_H_

#include <cstdint>

#include "readers/text_log.h"

namespace qopci {

template <typename T>
class BATReader {
 public:
  // requested_size: bytes of the file that count (element count x width); the reader
  // reads nothing at or beyond it.
  explicit BATReader(uint64_t requested_size) : requested_size_(requested_size) {}
  BATReader(const BATReader&) = delete;
  BATReader& operator=(const BATReader&) = delete;

  // Asks for the file to be mapped whole at Open rather than a span at a time.
  // REQUIRES: called before Open.
  virtual void SetWholeFile() { whole_file_ = true; }
  virtual ~BATReader() = default;
  // Open, appending a line to log when it fails.
  virtual bool Initialize(TextLog* log) = 0;
  virtual bool Open() = 0;
  virtual void Close() = 0;
  // True when the file has no bytes.
  virtual bool IsEmpty() = 0;
  // Moves to the next element; false at the end or on failure, with a line in log.
  virtual bool Read(TextLog* log) = 0;
  // Read without messages.
  virtual bool Read() = 0;
  // The element under the cursor. REQUIRES: a Read has succeeded.
  virtual T GetValue() = 0;
  // Bytes of one element of the file the cursor walks.
  virtual uint32_t ElementWidth() = 0;
  // Overwrites the element under the cursor in the file; readers that cannot do nothing.
  virtual void SetValue(T value) { (void)value; }

 protected:
  uint64_t requested_size_;
  bool whole_file_ = false;
};

}  // namespace qopci

#endif  // QOPCI_READERS_BAT_READER_H_
