// MMFManipulator: a named file reached through an MMF, with a cursor in the current span.
//
// The base of the byte writer and the byte readers: it keeps the file name and requested
// size until Open creates the MMF, and owns that MMF from then on.
// Threading: used by one thread at a time.
#ifndef QOPCI_WRITERS_MMF_MMF_MANIPULATOR_H_
#define QOPCI_WRITERS_MMF_MMF_MANIPULATOR_H_

#include <cstdint>
#include <memory>
#include <string>

#include "writers/mmf/mmf.h"

namespace qopci {

class MMFManipulator {
 public:
  // requested_size is handed to the MMF; MMF::kNoRequestedSize for none.
  MMFManipulator(const std::string& name, uint64_t requested_size);
  MMFManipulator(const MMFManipulator&) = delete;
  MMFManipulator& operator=(const MMFManipulator&) = delete;
  // Destroys the MMF, which closes the file if Close has not run.
  virtual ~MMFManipulator();

  // The logical size, or the mapping size while the logical size is 0; 0 before Open.
  virtual uint64_t Size();
  virtual bool Open() = 0;
  // Closes the file (see MMF::Close); true when there is nothing to close.
  virtual bool Close();
  // Deletes the file by name. REQUIRES: the file is closed.
  virtual bool Remove();

  // Marks the reader to map the whole file at once.
  void SetWholeFile(bool whole) { whole_file_ = whole; }
  uint32_t GetGranularity() const;
  bool IsClosed() const { return mmf_ && mmf_->IsClosed(); }
  uint64_t GetMappingSize() const { return mmf_ ? mmf_->GetMappingSize() : 0; }
  uint64_t GetSpanCursor() const { return span_cursor_; }
  std::string GetName() const { return name_; }
  // The MMF, or null before Open. Owned by this object.
  MMF* GetMMF() const { return mmf_.get(); }

 protected:
  std::string name_;
  uint64_t requested_size_;
  bool whole_file_ = false;
  std::unique_ptr<MMF> mmf_;
  uint64_t span_cursor_ = 0;  // offset of the next byte inside the current span
};

}  // namespace qopci

#endif  // QOPCI_WRITERS_MMF_MMF_MANIPULATOR_H_
