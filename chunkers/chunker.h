// Chunker<T>: a chunker whose column values are of type T.
//
// It converts source values of any host type to T through a per-T cast table, keeps the
// running statistics of the column (sorted, strictly ascending with a count of ascending
// steps, no nils) and leaves storing to subclasses. Conversions, by source type:
//   "bit", "chr", "bte" read 8-bit signed; "sht" 16-bit signed; "int", "BAT", "daytime",
//   "date" 32-bit signed; "oid" 32-bit unsigned; "wrd", "lng", "timestamp", "ptr" 64-bit;
//   "flt", "dbl" floating point. Integers convert as C++ does (sign or zero extension,
//   narrowing keeps the low-order bytes). Floats truncate toward zero for integer T, going
//   through int64_t first: values beyond int64_t's range clamp to its limits and NaN gives
//   0, and the int64_t is then cut to T. For double T, "ptr" throws "Casting ptr* to double".
//   "str" is parsed by the host's string routine under the host type name of T ("chr" for
//   char and unsigned char, "sht" for short and unsigned short, "int" for int, "oid" for
//   unsigned int, "lng" for int64_t and uint64_t, "dbl" for double); text it cannot parse
//   throws "Can't convert string value". For char* T, "str" is taken as it is.
// Any other source type throws "Casting not implemented".
// Threading: one thread per chunker; the cast table of T is filled once, by the first
// InitCastTable of any chunker of T.
#ifndef QOPCI_CHUNKERS_CHUNKER_H_
#define QOPCI_CHUNKERS_CHUNKER_H_

#include <cstddef>
#include <cstdint>
#include <list>
#include <type_traits>

#include "chunkers/chunker_base.h"
#include "chunkers/run_loops.h"

namespace qopci {

template <typename T>
class Chunker : public ChunkerBase {
 public:
  // Reads the source value at src as T. A string source leaves the host's allocation in
  // self->temporary_ for the caller to release once the value is stored.
  using CastFn = T (*)(const void* src, Chunker* self);

  // REQUIRES: chunk_size >= 0 (checked by the subclasses that make chunks).
  explicit Chunker(int32_t chunk_size, int32_t element_size = sizeof(T));
  ~Chunker() override;  // releases a string temporary that is still held

  void InitCastTable(TypeIndexFn type_index, FormatFn format, FromStringFn from_string,
                     ReleaseFn release) override;
  bool InsertValue(const void* src, const char* type_name, bool is_nil) override;
  bool HasNoNils() override { return no_nil_; }
  void AddToList(std::list<ChunkerBase*>& list) override;
  bool IsSorted() override { return sorted_; }
  void ClearSorted() override { sorted_ = false; }
  bool IsKey() override { return key_; }
  void ClearKey() override { key_ = false; }
  bool InsertNil() override;

  // The value stored for a nil; the chunker keeps ownership.
  virtual const T* GetNilValue() = 0;
  // Seeds the statistics with the last value already in the target column.
  virtual void SetPreviousValue(T value, bool is_nil);
  // The stored bytes are a T; they are the nil when they equal GetNilValue's.
  void SetPreviousValueFrom(const void* stored) override;
  // Stores one value and updates the statistics. REQUIRES: !IsChunkFull().
  virtual bool InsertVal(T value) = 0;
  // Stores n values in order, stopping at the first failed InsertVal; true for n < 1,
  // else what the last InsertVal returned.
  virtual bool InsertVals(T* values, int n);

  uint32_t AscendingSteps() const { return ascending_steps_; }
  const T& PreviousValue() const { return previous_; }
  int32_t ChunkSize() const { return chunk_size_; }

 protected:
  // Statistics of one more value: the previous value follows the data only while the
  // column is sorted.
  void UpdateStatistics(T v) {
    if (first_) {
      previous_ = v;
      first_ = false;
      return;
    }
    const T p = previous_;
    if (sorted_) {
      if (v < p)
        sorted_ = false;
      else
        previous_ = v;
    }
    if (key_) {
      if (v <= p)
        key_ = false;
      else
        ++ascending_steps_;
    }
  }

  // UpdateStatistics over v[0..k) in order. Runs that keep the column strictly ascending
  // (or, once it is only sorted, non-decreasing) are checked in one pass; they change the
  // statistics exactly as value by value would.
  void UpdateRunStatistics(const T* v, size_t k) {
    size_t i = 0;
    if (k == 0) return;
    if (first_) UpdateStatistics(v[i++]);
    if (i == k || (!sorted_ && !key_)) return;  // nothing left that values could change
    if (!sorted_) {  // the key flag alone (only after ClearSorted): value by value
      for (; i < k; i++) UpdateStatistics(v[i]);
      return;
    }
    bool holds = key_ ? v[i] > previous_ : v[i] >= previous_;
    if constexpr (std::is_arithmetic_v<T>) {
      holds = holds && RunAscends(v + i, k - i, key_);
    } else if (key_) {
      for (size_t j = i + 1; j < k; j++) holds &= v[j] > v[j - 1];
    } else {
      for (size_t j = i + 1; j < k; j++) holds &= v[j] >= v[j - 1];
    }
    if (holds) {
      if (key_) ascending_steps_ += static_cast<uint32_t>(k - i);
      previous_ = v[k - 1];
      return;
    }
    for (; i < k; i++) UpdateStatistics(v[i]);
  }
  // Makes cast_ the conversion from the host type named type_name; throws when there is
  // none. Cheap to call only when type_name differs from cast_name_.
  void ResolveCast(const char* type_name);
  void ReleaseTemporary() {
    if (temporary_ != nullptr) {
      release_(temporary_);
      temporary_ = nullptr;
    }
  }

  // Converts a run of k integer sources (src, nil) to T, the chunker's nil for theirs.
  using RunFn = void (*)(const char* src, size_t k, const void* nil, T stored_nil, T* out);

  CastFn cast_ = nullptr;         // conversion last used by InsertValue
  int cast_type_ = -1;            // host type number cast_ converts from
  const char* cast_name_;         // type name cast_ was resolved for; skips the lookup
  bool cast_direct_ = false;      // the source is stored exactly as T: a plain load
  RunFn cast_run_ = nullptr;      // integer to integer of another width: a run conversion
  size_t cast_width_ = 0;         // bytes of one source value for cast_run_
  void* temporary_ = nullptr;     // host allocation of a string conversion, or null
  T previous_{};                  // last value seen while the column was sorted
  bool first_ = true;             // no value seen yet
  bool sorted_ = true;            // never descended
  bool key_ = true;               // strictly ascending
  uint32_t ascending_steps_ = 0;  // values greater than their predecessor while key_
  int32_t chunk_size_;            // values per chunk
  bool no_nil_ = true;            // InsertNil never called
  TypeIndexFn type_index_;
  FormatFn format_;
  FromStringFn from_string_;
  ReleaseFn release_;

 private:
  struct CastEntry {
    CastFn fn;
    bool direct;
    RunFn run;     // set for integer sources of an integer T that are not direct
    size_t width;  // bytes of the source read by run
  };
  static constexpr int kMaxTypes = 64;  // host type numbers the table covers

  static void FillCastTable(TypeIndexFn type_index);
  static T ReadString(const void* src, Chunker* self);

  static CastEntry cast_table_[kMaxTypes];
  static TypeIndexFn shared_type_index_;  // routines of the first InitCastTable of T
  static FormatFn shared_format_;
  static FromStringFn shared_from_string_;
  static ReleaseFn shared_release_;
};

extern template class Chunker<char>;
extern template class Chunker<unsigned char>;
extern template class Chunker<short>;
extern template class Chunker<unsigned short>;
extern template class Chunker<int>;
extern template class Chunker<unsigned int>;
extern template class Chunker<int64_t>;
extern template class Chunker<uint64_t>;
extern template class Chunker<double>;
extern template class Chunker<char*>;

}  // namespace qopci

#endif  // QOPCI_CHUNKERS_CHUNKER_H_
