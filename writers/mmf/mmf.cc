#include "writers/mmf/mmf.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>

#include "writers/mmf/mmf_fault.h"
#include "writers/mmf/mmf_os.h"

namespace qopci {
namespace {

// open(2) flags of each open mode, or -1 for an unknown mode.
int OpenFlags(uint32_t open_mode) {
  switch (open_mode) {
    case 0:
      return O_CREAT | O_EXCL;  // a new file only
    case 1:
      return 0;  // an existing file only
    case 2:
      return O_CREAT;  // existing or new
    case 3:
      return O_TRUNC;  // an existing file, emptied
    case 4:
      return O_CREAT | O_TRUNC;  // new or emptied
    default:
      return -1;
  }
}

// Bytes reserved beyond a file of size bytes when it must grow: doubling small files,
// then steps that keep the number of reservations low without holding much unused space.
uint64_t ReserveAhead(uint64_t size) {
  constexpr uint64_t kStep = 64ull << 20, kMaxStep = 1ull << 30;
  return std::min({size, std::max(kStep, size / 8), kMaxStep});
}

}  // namespace

MMF::MMF(const char* name, uint32_t open_mode, uint32_t view_access, uint64_t requested_size)
    : view_access_(view_access), requested_size_(requested_size), open_mode_(open_mode) {
  size_t n = name ? std::strlen(name) : 0;
  file_name_.reset(new char[n + 1]);
  if (n) std::memcpy(file_name_.get(), name, n);
  file_name_[n] = '\0';
}

MMF::~MMF() {
  if (!closed_) Close();
}

bool MMF::Open(uint32_t* error) {
  *error = 0;
  int flags = OpenFlags(open_mode_);
  if (flags < 0) return false;
  fd_ = mmf_os::Open(file_name_.get(), O_RDWR | flags, 0644);
  if (fd_ < 0) {
    *error = static_cast<uint32_t>(errno);
    if (errno == ENOENT) {
      logical_size_ = mapping_size_ = size_at_open_ = requested_size_copy_ = 0;
    }
    return false;
  }
  struct stat st;
  if (mmf_os::Fstat(fd_, &st) != 0) {
    *error = static_cast<uint32_t>(errno);
    {
      mmf_os::ErrnoKeeper keep;
      mmf_os::Close(fd_);
    }
    fd_ = -1;
    return false;
  }
  file_size_ = mapping_size_ = size_at_open_ = static_cast<uint64_t>(st.st_size);
  requested_size_copy_ = requested_size_;
  logical_size_ = requested_size_ == kNoRequestedSize ? file_size_ : requested_size_;
  has_mapping_ = file_size_ != 0;
  return true;
}

void MMF::Unmap() {
  view_placed_ = false;
  if (!view_base_) return;
  mmf_os::ErrnoKeeper keep;
  mmf_os::Munmap(view_base_, view_length_);
  view_base_ = nullptr;
}

bool MMF::Reserve(uint64_t size) {
  if (mmf_os::Fallocate(fd_, static_cast<off_t>(file_size_),
                        static_cast<off_t>(size - file_size_)) != 0) {
    size_unsure_ = true;  // a reservation that failed part way may have grown the file
    return false;
  }
  file_size_ = size;
  return true;
}

bool MMF::Grow(uint64_t size) {
  if (size <= file_size_) return true;
  // The blocks asked for come first and alone, so that a full disk fails here and nowhere
  // else; the reservation ahead is a bonus whose failure costs nothing but later calls.
  if (!Reserve(size)) return false;
  if (view_access_ == kWriteAccess && reserve_ahead_) {
    mmf_os::ErrnoKeeper keep;
    if (Reserve(size + ReserveAhead(size)))
      reserved_ahead_ = true;
    else
      reserve_ahead_ = false;
  }
  return true;
}

bool MMF::MapLazily(uint64_t end, uint64_t offset) {
  Unmap();
  // The mapping is made anew when the range reaches beyond it, and also when the range
  // spans more than one granule past offset: then with one granule to spare.
  bool anew = false;
  uint64_t new_size = mapping_size_;
  if (end > mapping_size_) {
    anew = true;
    new_size = end;
  } else if (offset + granularity_ < end) {
    anew = true;
    new_size = end + granularity_;
  }
  if (anew) {
    if (new_size - offset < granularity_) new_size = offset + granularity_;
    if (!Grow(new_size)) return false;
    mapping_size_ = new_size;
    has_mapping_ = true;
  }
  uint64_t aligned = offset - offset % granularity_;
  view_skew_ = offset - aligned;
  if (mapping_size_ <= aligned) {
    errno = EINVAL;
    return false;
  }
  // The view reaches to the end of the mapping.
  view_offset_ = aligned;
  view_length_ = mapping_size_ - aligned;
  view_placed_ = true;
  return true;
}

bool MMF::CreateView() {
  int prot = view_access_ == kReadAccess ? PROT_READ : PROT_READ | PROT_WRITE;
  void* p = mmf_os::Mmap(view_length_, prot, fd_, static_cast<off_t>(view_offset_));
  if (p == MAP_FAILED) {
    view_placed_ = false;  // as after a failed Map: no view until the next one
    return false;
  }
  view_base_ = static_cast<char*>(p);
  return true;
}

void* MMF::Map(uint64_t end, uint64_t offset) {
  if (!MapLazily(end, offset) || !CreateView()) return nullptr;
  return view_base_;
}

char* MMF::Data() {
  if (!view_base_ && (!view_placed_ || !CreateView())) return nullptr;
  return view_base_ + view_skew_;
}

bool MMF::MapAll() {
  Map(mapping_size_, 0);
  logical_size_ = mapping_size_;
  return true;
}

bool MMF::MapAndSetSize(uint64_t end, uint64_t offset) {
  Map(end, offset);
  logical_size_ = end;
  return true;
}

void MMF::SetFileSize(uint64_t size) {
  if ((size == mapping_size_ && size == file_size_ && !size_unsure_) || fd_ < 0) return;
  mmf_os::ErrnoKeeper keep;
  // A mapped file cannot be cut below its mapping: pages beyond the end would fault.
  if (has_mapping_ && size < mapping_size_) return;
  // Growing reserves the blocks, so that a mapping over them can never fault.
  if (size > file_size_) {
    if (Reserve(size)) size_unsure_ = false;
    return;
  }
  if (mmf_os::Ftruncate(fd_, static_cast<off_t>(size)) == 0) {
    file_size_ = size;
    size_unsure_ = false;
  }
}

bool MMF::Flush() {
  if (view_access_ == kReadAccess) return true;
  if (view_placed_ && MMFGetTuning().start_writeback) {
    // Block writes flush views of a few hundred KiB each. Handed to the disk one by one,
    // each would become a request of its own; gathered while they are adjacent, they go
    // in steps of kWritebackStep. Close starts what is left.
    const uint64_t from = view_offset_, to = view_offset_ + view_length_;
    if (writeback_to_ > writeback_from_ && (from > writeback_to_ || to < writeback_from_))
      StartPendingWriteback();
    if (writeback_to_ == writeback_from_) {
      writeback_from_ = from;
      writeback_to_ = to;
    } else {
      writeback_from_ = std::min(writeback_from_, from);
      writeback_to_ = std::max(writeback_to_, to);
    }
    if (writeback_to_ - writeback_from_ >= kWritebackStep) StartPendingWriteback();
  }
  return true;
}

void MMF::StartPendingWriteback() {
  if (writeback_to_ == writeback_from_) return;
  mmf_os::ErrnoKeeper keep;
  mmf_os::SyncRange(fd_, static_cast<off_t>(writeback_from_),
                    static_cast<off_t>(writeback_to_ - writeback_from_));
  writeback_from_ = writeback_to_ = 0;
}

bool MMF::Close() {
  if (fd_ < 0) {
    closed_ = true;
    return true;
  }
  if (view_access_ != kReadAccess) {
    Flush();
    StartPendingWriteback();
  }
  Unmap();
  has_mapping_ = false;
  {
    mmf_os::ErrnoKeeper keep;
    // Write access cuts the file to its logical size, read access back to its size at
    // open, when that differs from the mapping size; blocks reserved ahead of the mapping
    // and a size left unsure by a failed reservation are always given back. Other access
    // values keep the file as it is.
    uint64_t target = file_size_;
    bool cut = size_unsure_;
    if (view_access_ == kWriteAccess) {
      target = logical_size_;
      cut = cut || target != mapping_size_ || reserved_ahead_;
    } else if (view_access_ == kReadAccess) {
      target = size_at_open_;
      cut = cut || target != mapping_size_;
    }
    if (cut && mmf_os::Ftruncate(fd_, static_cast<off_t>(target)) == 0) {
      file_size_ = target;
      size_unsure_ = false;
    }
    struct stat st;
    if (mmf_os::Fstat(fd_, &st) == 0) mapping_size_ = static_cast<uint64_t>(st.st_size);
  }
  int rc = mmf_os::Close(fd_);
  fd_ = -1;
  closed_ = true;
  return rc == 0;
}

}  // namespace qopci
