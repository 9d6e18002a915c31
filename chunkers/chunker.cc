#include "chunkers/chunker.h"

#include <cstring>
#include <limits>
#include <mutex>
#include <type_traits>

namespace qopci {
namespace {

// Stands for "no type name resolved yet"; never a name the host hands out.
const char kUnresolved[] = "";

// Host type name under which text is parsed into a T.
template <typename T>
constexpr const char* HostTypeName() {
  if constexpr (std::is_same_v<T, char> || std::is_same_v<T, unsigned char>) return "chr";
  if constexpr (std::is_same_v<T, short> || std::is_same_v<T, unsigned short>) return "sht";
  if constexpr (std::is_same_v<T, int>) return "int";
  if constexpr (std::is_same_v<T, unsigned int>) return "oid";
  if constexpr (std::is_same_v<T, int64_t> || std::is_same_v<T, uint64_t>) return "lng";
  if constexpr (std::is_same_v<T, double>) return "dbl";
  return "str";
}

// Float to integer: toward zero, through int64_t so that no value is out of range;
// unsigned 64-bit targets take non-negative values below 2^64 directly.
template <typename T, typename F>
T FloatToInteger(F f) {
  if (f != f) return 0;
  if constexpr (std::is_same_v<T, uint64_t>) {
    if (f >= static_cast<F>(18446744073709551616.0)) return UINT64_MAX;
    if (f >= 0) return static_cast<uint64_t>(f);
  }
  if (f >= static_cast<F>(9223372036854775808.0)) return static_cast<T>(INT64_MAX);
  if (f < static_cast<F>(-9223372036854775808.0)) return static_cast<T>(INT64_MIN);
  return static_cast<T>(static_cast<int64_t>(f));
}

template <typename T, typename S>
T Read(const void* src, Chunker<T>*) {
  S s;
  std::memcpy(&s, src, sizeof s);
  if constexpr (std::is_integral_v<T> && std::is_floating_point_v<S>)
    return FloatToInteger<T>(s);
  else
    return static_cast<T>(s);
}

template <typename T>
T ReadStringAsIs(const void* src, Chunker<T>*) {
  return const_cast<T>(static_cast<const char*>(src));
}

template <typename T>
T RefusePointer(const void*, Chunker<T>*) {
  throw "Casting ptr* to double";
}

// A cast whose source bytes are already a T: integers of equal width, or the same float.
template <typename T, typename S>
constexpr bool IsDirect() {
  if constexpr (std::is_integral_v<T> && std::is_integral_v<S>) return sizeof(T) == sizeof(S);
  return std::is_same_v<T, S>;
}

}  // namespace

template <typename T>
typename Chunker<T>::CastEntry Chunker<T>::cast_table_[Chunker<T>::kMaxTypes] = {};
template <typename T>
TypeIndexFn Chunker<T>::shared_type_index_ = nullptr;
template <typename T>
FormatFn Chunker<T>::shared_format_ = nullptr;
template <typename T>
FromStringFn Chunker<T>::shared_from_string_ = nullptr;
template <typename T>
ReleaseFn Chunker<T>::shared_release_ = nullptr;

template <typename T>
Chunker<T>::Chunker(int32_t chunk_size, int32_t element_size)
    : ChunkerBase(element_size),
      cast_name_(kUnresolved),
      chunk_size_(chunk_size),
      type_index_(shared_type_index_),
      format_(shared_format_),
      from_string_(shared_from_string_),
      release_(shared_release_) {}

template <typename T>
Chunker<T>::~Chunker() {
  ReleaseTemporary();
}

template <typename T>
void Chunker<T>::InitCastTable(TypeIndexFn type_index, FormatFn format, FromStringFn from_string,
                               ReleaseFn release) {
  type_index_ = type_index;
  format_ = format;
  from_string_ = from_string;
  release_ = release;
  static std::once_flag once;
  std::call_once(once, [&] {
    shared_type_index_ = type_index;
    shared_format_ = format;
    shared_from_string_ = from_string;
    shared_release_ = release;
    FillCastTable(type_index);
  });
}

template <typename T>
void Chunker<T>::FillCastTable(TypeIndexFn type_index) {
  auto put = [&](const char* name, CastFn fn, bool direct, RunFn run = nullptr,
                 size_t width = 0) {
    int type = type_index(name);
    if (type >= 0 && type < kMaxTypes) cast_table_[type] = CastEntry{fn, direct, run, width};
  };
  if constexpr (std::is_pointer_v<T>) {
    put("str", &ReadStringAsIs<T>, false);
  } else {
    auto put_read = [&]<typename S>(const char* name, S*) {
      if constexpr (std::is_integral_v<T> && std::is_integral_v<S> && !IsDirect<T, S>())
        put(name, &Read<T, S>, false, &ConvertReplacingNil<T, S>, sizeof(S));
      else
        put(name, &Read<T, S>, IsDirect<T, S>());
    };
    for (const char* name : {"bit", "chr", "bte"}) put_read(name, static_cast<int8_t*>(nullptr));
    put_read("sht", static_cast<int16_t*>(nullptr));
    // "BAT" as the type has always been named here, "bat" as this host names it.
    for (const char* name : {"int", "BAT", "bat", "daytime", "date"})
      put_read(name, static_cast<int32_t*>(nullptr));
    put_read("oid", static_cast<uint32_t*>(nullptr));
    for (const char* name : {"wrd", "lng", "timestamp"})
      put_read(name, static_cast<int64_t*>(nullptr));
    if constexpr (std::is_floating_point_v<T>)
      put("ptr", &RefusePointer<T>, false);
    else
      put_read("ptr", static_cast<int64_t*>(nullptr));
    put_read("flt", static_cast<float*>(nullptr));
    put_read("dbl", static_cast<double*>(nullptr));
    put("str", &Chunker::ReadString, false);
  }
}

template <typename T>
T Chunker<T>::ReadString(const void* src, Chunker* self) {
  void* value = self->from_string_(HostTypeName<T>(), static_cast<const char*>(src));
  if (value == nullptr) throw "Can't convert string value";
  self->temporary_ = value;
  T v;
  std::memcpy(&v, value, sizeof v);
  return v;
}

template <typename T>
void Chunker<T>::ResolveCast(const char* type_name) {
  if (type_name == nullptr || type_index_ == nullptr) throw "Casting not implemented";
  int type = type_index_(type_name);
  if (cast_ == nullptr || type != cast_type_) {
    if (type < 0 || type >= kMaxTypes || cast_table_[type].fn == nullptr)
      throw "Casting not implemented";
    cast_ = cast_table_[type].fn;
    cast_direct_ = cast_table_[type].direct;
    cast_run_ = cast_table_[type].run;
    cast_width_ = cast_table_[type].width;
    cast_type_ = type;
  }
  cast_name_ = type_name;
}

template <typename T>
bool Chunker<T>::InsertValue(const void* src, const char* type_name, bool is_nil) {
  if (type_name != cast_name_) ResolveCast(type_name);
  if (is_nil) return InsertVal(*GetNilValue());
  bool ok = InsertVal(cast_(src, this));
  ReleaseTemporary();
  return ok;
}

template <typename T>
void Chunker<T>::AddToList(std::list<ChunkerBase*>& list) {
  if (list.size() >= list.max_size()) throw "list<T> too long";
  list.push_back(this);
}

template <typename T>
bool Chunker<T>::InsertNil() {
  no_nil_ = false;
  return InsertVal(*GetNilValue());
}

template <typename T>
void Chunker<T>::SetPreviousValue(T value, bool is_nil) {
  previous_ = is_nil ? *GetNilValue() : value;
  first_ = false;
}

template <typename T>
void Chunker<T>::SetPreviousValueFrom(const void* stored) {
  if constexpr (std::is_pointer_v<T>) {
    (void)stored;  // string columns compare their values, not their stored offsets
  } else {
    T v;
    std::memcpy(&v, stored, sizeof v);
    SetPreviousValue(v, std::memcmp(&v, GetNilValue(), sizeof v) == 0);
  }
}

template <typename T>
bool Chunker<T>::InsertVals(T* values, int n) {
  bool ok = true;
  for (int i = 0; i < n; ++i) {
    ok = InsertVal(values[i]);
    if (!ok) break;
  }
  return ok;
}

template class Chunker<char>;
template class Chunker<unsigned char>;
template class Chunker<short>;
template class Chunker<unsigned short>;
template class Chunker<int>;
template class Chunker<unsigned int>;
template class Chunker<int64_t>;
template class Chunker<uint64_t>;
template class Chunker<double>;
template class Chunker<char*>;

}  // namespace qopci
