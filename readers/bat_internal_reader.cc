#include "readers/bat_internal_reader.h"

#include <cinttypes>
#include <cstdio>
#include <type_traits>

namespace qopci {

namespace {

template <typename T>
const char* TypeName(bool timestamp) {
  if constexpr (std::is_same_v<T, char*>) return "str";
  if constexpr (std::is_same_v<T, double>) return "dbl";
  if constexpr (std::is_same_v<T, int64_t>) return timestamp ? "timestamp" : "lng";
  if constexpr (std::is_same_v<T, uint64_t>) return "lng";
  if constexpr (std::is_same_v<T, int>) return "int";
  if constexpr (std::is_same_v<T, unsigned int>) return "oid";
  if constexpr (sizeof(T) == 2) return "sht";
  return "chr";
}

}  // namespace

template <typename T, typename U>
BatInternalReader<T, U>::BatInternalReader(BATReader<T>* plain, BATReader<T>* dict, bool timestamp,
                                           uint64_t rows)
    : timestamp_(timestamp), plain_(plain), dict_(dict), rows_(rows) {
  end_ = plain_ == nullptr && dict_ == nullptr;  // nothing to read
}

template <typename T, typename U>
BatInternalReader<T, U>::~BatInternalReader() = default;

template <typename T, typename U>
int BatInternalReader<T, U>::type() {
  return ATOMindex(TypeName<T>(timestamp_));
}

template <typename T, typename U>
const void* BatInternalReader<T, U>::next() {
  BATReader<T>* r = plain_ ? plain_.get() : dict_.get();
  if (r == nullptr) return nullptr;
  if (!opened_) {
    // Initialize is the checked Open: a string reader's Open answers true whatever failed.
    opened_ = r->Initialize(nullptr);
    if (!opened_) {
      end_ = true;
      throw "shit on the ground";
    }
    end_ = r->IsEmpty();
  }
  if (yielded_ < rows_ && r->Read()) {
    value_ = r->GetValue();
    ++yielded_;
    if constexpr (std::is_same_v<T, char*>) {
      // A string is handed on by its own address; one that cannot be read is damage.
      if (value_ == nullptr) throw "String of a generated column cannot be read";
      return value_;
    } else {
      return &value_;
    }
  }
  end_ = true;
  if (rows_ != UINT64_MAX && yielded_ < rows_) {
    static thread_local char text[128];
    std::snprintf(text, sizeof text, "Generated column ended after %" PRIu64 " of %" PRIu64 " rows",
                  yielded_, rows_);
    throw static_cast<const char*>(text);
  }
  return nullptr;
}

template class BatInternalReader<int64_t, unsigned int>;
template class BatInternalReader<unsigned short, unsigned int>;
template class BatInternalReader<int, int>;
template class BatInternalReader<unsigned char, char>;
template class BatInternalReader<unsigned short, short>;
template class BatInternalReader<uint64_t, unsigned int>;
template class BatInternalReader<unsigned int, unsigned int>;
template class BatInternalReader<int, unsigned int>;
template class BatInternalReader<unsigned char, unsigned int>;
template class BatInternalReader<char, char>;
template class BatInternalReader<double, unsigned int>;
template class BatInternalReader<unsigned int, int>;
template class BatInternalReader<char*, unsigned int>;
template class BatInternalReader<short, unsigned int>;
template class BatInternalReader<char, unsigned int>;
template class BatInternalReader<short, short>;

}  // namespace qopci
