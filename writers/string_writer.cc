#include "writers/string_writer.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "corvid/strheap.h"
#include "readers/string_tail_reader.h"

namespace qopci {
namespace {

// Size on disk of the named file; 0 when it is missing or cannot be opened.
uint64_t SizeOnDisk(const char* name) {
  MMF mmf(name, 1, MMF::kReadAccess, MMF::kNoRequestedSize);
  uint32_t error = 0;
  if (!mmf.Open(&error)) return 0;
  uint64_t size = mmf.GetSizeAtOpen();
  mmf.Close();
  return size;
}

// The value buffer of an offset member of the given width, or null.
const void* MemberBytes(BATChunk* member, int32_t width) {
  switch (width) {
    case 1:
      if (auto* c = dynamic_cast<SimpleTypeChunk<unsigned char>*>(member)) return c->buffer_;
      break;
    case 2:
      if (auto* c = dynamic_cast<SimpleTypeChunk<unsigned short>*>(member)) return c->buffer_;
      break;
    case 4:
    case 8:
      if (auto* c = dynamic_cast<SimpleTypeChunk<unsigned int>*>(member)) return c->buffer_;
      break;
  }
  return nullptr;
}

}  // namespace

StringWriter::StringWriter(const char* heap_file, const char* tail_file, bool keep_existing,
                           uint64_t row_count, uint64_t existing_heap_size)
    : BATWriter(nullptr, row_count, keep_existing),
      heap_name_(heap_file ? heap_file : ""),
      tail_name_(tail_file ? tail_file : ""),
      width_(cvd_str_width(SizeOnDisk(heap_name_.c_str()))),
      existing_heap_size_(existing_heap_size),
      heap_(new MMFByteWriter(heap_name_, keep_existing, existing_heap_size)),
      tail_(new MMFByteWriter(tail_name_, keep_existing, uint64_t(width_) * row_count)) {
  file_name_ = heap_name_.c_str();
  heap_->SetCompressed(compressed_);
  tail_->SetCompressed(compressed_);
}

StringWriter::~StringWriter() = default;

void StringWriter::SetCompressed(bool compressed) {
  BATWriter::SetCompressed(compressed);
  heap_->SetCompressed(compressed);
  tail_->SetCompressed(compressed);
}

bool StringWriter::Open() { return heap_->Open() && tail_->Open(); }

bool StringWriter::Close() {
  if (heap_->GetMMF() != nullptr && !heap_->IsClosed() && heap_->Size() == 0) {
    static const char kEmptyHashArea[CVD_STRHEAP_HASHAREA] = {};
    heap_->Write(kEmptyHashArea, sizeof kEmptyHashArea);
  }
  bool heap_ok = heap_->Close();
  bool tail_ok = tail_->Close();
  return heap_ok && tail_ok;
}

bool StringWriter::WriteHashArea(const char* area) {
  MMF* mmf = heap_->GetMMF();
  if (mmf == nullptr || heap_->Size() < CVD_STRHEAP_HASHAREA) {
    errno = EINVAL;
    return false;
  }
  if (mmf->Map(CVD_STRHEAP_HASHAREA, 0) == nullptr) return false;
  char* view = mmf->Data();
  if (view == nullptr) return false;
  std::memcpy(view, area, CVD_STRHEAP_HASHAREA);
  return true;
}

bool StringWriter::WriteChunk(BATChunk* chunk) {
  auto* c = dynamic_cast<StringChunk*>(chunk);
  if (c == nullptr) {
    errno = EINVAL;
    return false;
  }
  if (c->restart_heap_) heap_->ResetPosition();
  if (!heap_->Write(c->heap_, c->GetSize())) return false;
  // A chunk that starts the heap carries the hash area in its bytes already.
  const bool area_written = c->restart_heap_ && c->GetSize() >= CVD_STRHEAP_HASHAREA;
  if (c->hash_area_ && !area_written && !WriteHashArea(c->hash_area_.get())) return false;
  if (c->width_ > width_) {
    if (!WidenTail(c->width_, tail_->GetWrittenCount() / width_)) return false;
    width_ = c->width_;
  }
  const int index = width_ == 1 ? 0 : width_ == 2 ? 1 : width_ == 4 ? 2 : width_ == 8 ? 3 : -1;
  BATChunk* member = index >= 0 ? c->offsets_[index] : nullptr;
  const void* bytes = member ? MemberBytes(member, width_) : nullptr;
  if (bytes == nullptr) {
    errno = EINVAL;
    return false;
  }
  bool ok;
  if (width_ == 8) {  // the full values, widened to the tail's 64 bits
    const uint64_t n = member->GetSize() / sizeof(uint32_t);
    const uint32_t* v = static_cast<const uint32_t*>(bytes);
    std::vector<uint64_t> wide(v, v + n);
    ok = tail_->Write(wide.data(), n * sizeof(uint64_t));
  } else {
    ok = tail_->Write(bytes, member->GetSize());
  }
  if (!ok) return false;
  delete chunk;
  return true;
}

bool StringWriter::WidenTail(int32_t new_width, uint64_t count) {
  if (new_width <= width_) return false;
  if (tail_->GetMappingSize() == 0) return true;  // nothing written: start at the new width
  if (new_width != 2 && new_width != 4 && new_width != 8) return false;
  const std::string temp = tail_name_ + static_cast<char>('0' + new_width);
  const uint64_t old_size = uint64_t(width_) * count;
  tail_->Close();
  tail_.reset();
  uint64_t written = 0;
  if (!RewriteTail(temp, new_width, count, &written)) {
    int err = errno;
    RemoveFile(temp);
    // The old tail was only read: it is reopened as it was, and the column fails.
    tail_.reset(new MMFByteWriter(tail_name_, true, old_size));
    tail_->SetCompressed(compressed_);
    tail_->Open();
    errno = err;
    return false;
  }
  bool ok;
  if (RemoveFile(tail_name_)) {
    ok = std::rename(temp.c_str(), tail_name_.c_str()) == 0;
  } else {
    ok = CopyInPlace(temp, written);  // the tail stays, its bytes replaced
    int err = errno;
    RemoveFile(temp);
    errno = err;
  }
  // Even after a failure the writer keeps a tail writer, so Close and the sizes still work;
  // the column has failed then.
  tail_.reset(new MMFByteWriter(tail_name_, true, written));
  tail_->SetCompressed(compressed_);
  return tail_->Open() && ok;
}

bool StringWriter::RewriteTail(const std::string& temp, int32_t new_width, uint64_t count,
                               uint64_t* written) {
  StringTailReader reader(tail_name_.c_str(), static_cast<uint32_t>(width_),
                          uint64_t(width_) * count);
  MMFByteWriter out(temp, false);
  out.SetCompressed(compressed_);
  bool ok = reader.Open() && out.Open();
  const bool unbias = width_ < 4 && new_width >= 4;  // narrow values were reduced by 256
  for (uint64_t i = 0; ok && i < count; i++) {
    ok = reader.Read();
    uint32_t v = reader.GetValue() + (unbias ? CVD_STRHEAP_BIAS : 0);
    if (!ok) break;
    switch (new_width) {
      case 2:
        ok = out.WriteUInt16(static_cast<uint16_t>(v));
        break;
      case 4:
        ok = out.WriteUInt32(v);
        break;
      default:  // 8: the value and its zero high half
        ok = out.WriteUInt32(v) && out.WriteUInt32Ex(0);
    }
  }
  *written = out.GetWrittenCount();
  // Scalar writes leave the logical size at the end of their span; the file is cut to the
  // values, so that it is a whole tail even if nothing is ever appended to it.
  if (out.GetMMF() != nullptr) out.GetMMF()->SetLogicalSize(*written);
  reader.Close();
  if (!out.Close()) ok = false;
  return ok;
}

bool StringWriter::CopyInPlace(const std::string& temp, uint64_t size) {
  MMF in(temp.c_str(), 1, MMF::kReadAccess, size);
  uint32_t error = 0;
  const char* data = nullptr;
  if (in.Open(&error) && in.GetMappingSize() >= size && size > 0 && in.Map(size, 0) != nullptr)
    data = in.Data();
  MMFByteWriter tail(tail_name_, true, 0);
  tail.SetCompressed(compressed_);
  bool ok = (data != nullptr || size == 0) && tail.Open() && tail.Write(data, size);
  if (!tail.Close()) ok = false;
  in.Close();
  return ok;
}

bool StringWriter::RemoveFile(const std::string& name) {
  MMFByteWriter file(name, true);  // never opened: only its name is used
  return file.Remove();
}

}  // namespace qopci
