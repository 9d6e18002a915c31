// Chunk records: the unit of work that travels from a chunker to a writer.
//
// An elementary chunk owns one buffer of values for one column file; a composite chunk
// bundles elementary chunks that belong together (dictionary entries with their codes, a
// string tail with its heap, the files of a time-levels column) without owning them.
// Threading: a chunk is filled by one chunker thread, then handed to exactly one writer.
#ifndef QOPCI_CHUNKERS_BAT_CHUNK_H_
#define QOPCI_CHUNKERS_BAT_CHUNK_H_

#include <cstdint>
#include <memory>
#include <utility>

namespace qopci {

class BATChunk {
 public:
  explicit BATChunk(uint64_t capacity) : capacity_(capacity) {}
  BATChunk(const BATChunk&) = delete;
  BATChunk& operator=(const BATChunk&) = delete;
  virtual ~BATChunk() = default;

  virtual uint64_t GetCapacity() const { return capacity_; }  // values it can hold
  virtual uint64_t GetSize() const { return size_; }          // bytes filled
  // Number of elementary chunks this chunk counts as.
  virtual int GetPartCount() const = 0;
  // True when no further value may be stored.
  virtual bool IsFull() const = 0;

  uint64_t capacity_;
  uint64_t size_ = 0;
};

// One buffer of fixed-width values; the chunk owns it.
template <typename T>
class SimpleTypeChunk : public BATChunk {
 public:
  // A buffer of capacity values, left uninitialised: only the count_ first are written.
  explicit SimpleTypeChunk(uint64_t capacity) : BATChunk(capacity), buffer_(new T[capacity]) {}
  // A zeroed buffer of buffer_length elements for capacity values of a wider slot: the
  // decimal chunker's bytes, where a slot's untouched bytes must read as zero.
  // REQUIRES: buffer_length >= capacity.
  SimpleTypeChunk(uint64_t capacity, uint64_t buffer_length)
      : BATChunk(capacity), buffer_(new T[buffer_length]()) {}
  ~SimpleTypeChunk() override { delete[] buffer_; }

  int GetPartCount() const override { return 1; }
  bool IsFull() const override { return static_cast<uint64_t>(count_) >= capacity_; }

  T* buffer_;          // owned
  int32_t count_ = 0;  // values stored; the next goes to buffer_[count_]
};

// One batch of dictionary codes with the entries first seen in it. Members are not owned.
template <typename T>
class KeyValueChunk : public BATChunk {
 public:
  KeyValueChunk(BATChunk* keys, BATChunk* key_codes, BATChunk* codes)
      : BATChunk(codes ? codes->GetCapacity() : 0),
        keys_(keys),
        key_codes_(key_codes),
        codes_(codes) {}

  int GetPartCount() const override {
    return keys_->GetPartCount() + key_codes_->GetPartCount() + codes_->GetPartCount();
  }
  // Every new key is also a row, so the code chunk fills first.
  bool IsFull() const override { return codes_->IsFull(); }

  BATChunk* keys_;       // new dictionary keys, first-seen order
  BATChunk* key_codes_;  // the codes given to those keys
  BATChunk* codes_;      // one code per row of the batch
};

// A string tail batch with the heap bytes added since the heap's last flush. GetSize is
// the number of those heap bytes. The chunk handed out by a string chunker owns its four
// offset members, its heap bytes and its copy of the heap's hash area (nothing a later
// insert changes); a chunk made by hand with members of its own does not own them.
class StringChunk : public BATChunk {
 public:
  StringChunk(int32_t capacity, char* heap) : BATChunk(capacity), heap_(heap) {}
  ~StringChunk() override {
    if (owns_members_)
      for (BATChunk* m : offsets_) delete m;
  }

  // Takes ownership of the four offset members (widths 1, 2, 4, 8), of bytes (count bytes
  // that become heap_ and the size) and of hash_area (the 2048-byte hash area, or null).
  void Adopt(BATChunk* const (&offsets)[4], std::unique_ptr<char[]> bytes, uint64_t count,
             std::unique_ptr<char[]> hash_area) {
    for (int i = 0; i < 4; i++) offsets_[i] = offsets[i];
    owns_members_ = true;
    heap_bytes_ = std::move(bytes);
    heap_ = heap_bytes_.get();
    size_ = count;
    hash_area_ = std::move(hash_area);
  }

  // One chunk although it holds four members; writers append exactly one of them.
  int GetPartCount() const override { return 1; }
  bool IsFull() const override {
    for (BATChunk* m : offsets_)
      if (m && m->IsFull()) return true;
    return false;
  }

  BATChunk* offsets_[4] = {nullptr, nullptr, nullptr, nullptr};  // widths 1, 2, 4, 8
  char* heap_;                         // first heap byte added since the last flush
  int32_t width_ = 1;                  // tail offset width the writer is to use
  bool restart_heap_ = true;           // rewrite the heap file from position 0
  bool heap_rewritten_ = false;        // the heap was rewritten since the last chunk
  std::unique_ptr<char[]> hash_area_;  // the heap's first 2048 bytes as of the hand-out

 private:
  bool owns_members_ = false;
  std::unique_ptr<char[]> heap_bytes_;  // owns heap_ when adopted
};

// A timestamp column with its levels: the timestamps, the dictionary's ordinals (null when
// the column has no dictionary) and the levels. Members are not owned.
class TesselTimestampChunk : public BATChunk {
 public:
  // REQUIRES: a and c are not null.
  TesselTimestampChunk(BATChunk* a, BATChunk* b, BATChunk* c)
      : BATChunk(a->GetCapacity()), members_{a, b, c} {}
  int GetPartCount() const override {
    int n = 0;
    for (BATChunk* m : members_)
      if (m != nullptr) n += m->GetPartCount();
    return n;
  }
  bool IsFull() const override { return members_[0]->IsFull(); }

  BATChunk* members_[3];
};

// The five files of a time-levels column. Members are not owned.
class TesselTimeLevelsChunk : public BATChunk {
 public:
  explicit TesselTimeLevelsChunk(BATChunk* const (&m)[5])
      : BATChunk(m[0]->GetCapacity()), members_{m[0], m[1], m[2], m[3], m[4]} {}
  int GetPartCount() const override {
    int n = 0;
    for (BATChunk* m : members_) n += m->GetPartCount();
    return n;
  }
  bool IsFull() const override { return members_[0]->IsFull(); }

  BATChunk* members_[5];
};

}  // namespace qopci

#endif  // QOPCI_CHUNKERS_BAT_CHUNK_H_
