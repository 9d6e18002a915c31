// MMF: one open file with one mapped view over it.
//
// The file is opened by name with one of five open modes; a view is placed over any byte
// range with Map, which grows the file (reserving its blocks) when the range reaches beyond
// it. On Close, a file opened for writing is cut to its logical size, the number of bytes
// that count as written, and a file opened for reading is cut back to its size at open.
// While a file is open for writing, its size on disk may run ahead of the mapping size:
// blocks are reserved ahead in growing steps (as much again as the file holds, up to 64 MiB,
// or an eighth of a file over 512 MiB, up to 1 GiB) so that appending does not reserve
// blocks on every write; Close gives that space back. The mapping never reaches past
// blocks reserved for it, so a full disk is a failed Map, never a fault on a mapped page.
// Failures are reported by false or null results with errno left as the failing call set
// it; failures of unmap, truncate and close are ignored and never change errno.
// Threading: an MMF is used by one thread at a time.
#ifndef QOPCI_WRITERS_MMF_MMF_H_
#define QOPCI_WRITERS_MMF_MMF_H_

#include <cstdint>
#include <memory>

namespace qopci {

class MMF {
 public:
  static constexpr uint32_t kGranularity = 65536;  // view offsets and growth steps
  // Write-back of flushed views is started in steps of at least this many bytes.
  static constexpr uint64_t kWritebackStep = 4u << 20;
  static constexpr uint32_t kWriteAccess = 2;
  static constexpr uint32_t kReadAccess = 4;
  static constexpr uint64_t kNoRequestedSize = UINT64_MAX;

  // Open modes: 0 create a new file (fails if it exists), 1 open an existing file, 2 open
  // or create, 3 truncate an existing file, 4 create or truncate.
  // view_access is kWriteAccess or kReadAccess. requested_size, unless kNoRequestedSize,
  // becomes the logical size at open in place of the file's size.
  MMF(const char* name, uint32_t open_mode, uint32_t view_access, uint64_t requested_size);
  MMF(const MMF&) = delete;
  MMF& operator=(const MMF&) = delete;
  // Closes the file if Close has not run.
  virtual ~MMF();

  // Opens the file. *error is 0, or errno of the failed open; ENOENT (2) also clears all
  // sizes. An unknown open mode fails with error 0 before any file is touched.
  bool Open(uint32_t* error);

  // Makes bytes [offset, end) reachable through Data(). Returns the view address (the
  // aligned base, not Data()) or null with errno set.
  // REQUIRES: Open succeeded and offset < end.
  virtual void* Map(uint64_t end, uint64_t offset);
  // Map without creating the view yet: the mapping is remade and the file grown by the same
  // rules, and the view is created by the first Data(). For writers that reach the bytes by
  // other means most of the time. Returns false with errno set when the file could not grow.
  // REQUIRES: Open succeeded and offset < end.
  bool MapLazily(uint64_t end, uint64_t offset);
  // Maps the whole mapping and makes it the logical size. Returns true.
  bool MapAll();
  // Map(end, offset), then the logical size becomes end. Returns true.
  bool MapAndSetSize(uint64_t end, uint64_t offset);
  // The byte at the offset last given to Map, or null without a view (errno set when a
  // lazily placed view could not be created; it is then gone until the next Map). Valid
  // until the next Map or Close.
  char* Data();

  // Cuts or grows the file to size when size differs from the mapping size or from the size
  // on disk, but never below a mapping. Failures are ignored.
  void SetFileSize(uint64_t size);
  // Starts write-back of the view where tuned to (see mmf_fault.h). True in read access.
  bool Flush();
  // Unmaps, truncates (see above), closes the file and sets the closed flag. Returns false
  // with errno set when the file could not be closed.
  bool Close();

  uint32_t GetGranularity() const { return granularity_; }
  bool IsClosed() const { return closed_; }
  uint64_t GetMappingSize() const { return mapping_size_; }
  uint64_t GetLogicalSize() const { return logical_size_; }
  void SetLogicalSize(uint64_t size) { logical_size_ = size; }
  uint64_t GetSizeAtOpen() const { return size_at_open_; }
  uint64_t GetRequestedSizeCopy() const { return requested_size_copy_; }
  uint32_t GetViewAccess() const { return view_access_; }
  bool IsOpen() const { return fd_ >= 0; }
  int GetFd() const { return fd_; }
  const char* GetFileName() const { return file_name_.get(); }
  bool GetCompressed() const { return compressed_; }
  // Kept for the file's metadata; this platform does not compress files.
  void SetCompressed(bool compressed) { compressed_ = compressed; }

 private:
  void Unmap();
  // Makes the file at least size bytes long, reserving the blocks; in write access, also
  // tries to reserve ahead (see above).
  bool Grow(uint64_t size);
  // Reserves the blocks of [file_size_, size) and makes that the file's size.
  bool Reserve(uint64_t size);
  // Creates the placed view. Returns false with errno set, and no view is placed then.
  bool CreateView();
  // Starts write-back of the flushed range not yet handed to the disk, if any.
  void StartPendingWriteback();

  uint32_t view_access_;
  bool compressed_ = false;  // wanted file-system compression
  bool closed_ = false;
  bool view_placed_ = false;   // a view is placed, created or not yet
  char* view_base_ = nullptr;  // start of the created view, or null
  uint64_t view_offset_ = 0;   // aligned file offset of the placed view
  uint64_t view_length_ = 0;   // bytes of the placed view
  uint64_t view_skew_ = 0;     // offset asked for minus the aligned start
  // Flushed bytes [writeback_from_, writeback_to_) whose write-back has not been started.
  uint64_t writeback_from_ = 0;
  uint64_t writeback_to_ = 0;
  std::unique_ptr<char[]> file_name_;
  uint64_t logical_size_ = 0;  // bytes that count as written
  uint64_t size_at_open_ = 0;
  uint64_t requested_size_copy_ = 0;  // requested size, taken at open
  uint64_t requested_size_;
  uint32_t granularity_ = kGranularity;
  uint64_t mapping_size_ = 0;  // the file is at least this long
  uint64_t file_size_ = 0;     // the file's size as this object left it; >= mapping_size_
  bool reserve_ahead_ = true;  // cleared once a reservation ahead has failed
  bool reserved_ahead_ = false;  // blocks beyond the mapping were reserved: Close cuts them
  bool size_unsure_ = false;   // a failed reservation may have grown the file part way
  uint32_t open_mode_;
  int fd_ = -1;
  bool has_mapping_ = false;  // a mapping of mapping_size_ bytes exists
};

}  // namespace qopci

#endif  // QOPCI_WRITERS_MMF_MMF_H_
