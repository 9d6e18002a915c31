#include "readers/string_tail_reader.h"

namespace qopci {

namespace {
constexpr char kName[] = "StringTailReader";
}  // namespace

StringTailReader::StringTailReader(const char* tail_file, uint32_t width, uint64_t requested_size)
    : BATReader<unsigned int>(requested_size), width_(width) {
  switch (width) {
    case 1:
      reader1_.reset(new SimpleTypeBATReader<unsigned char>(tail_file, requested_size));
      break;
    case 2:
      reader2_.reset(new SimpleTypeBATReader<unsigned short>(tail_file, requested_size));
      break;
    case 4:
      reader4_.reset(new SimpleTypeBATReader<unsigned int>(tail_file, requested_size));
      break;
    case 8:
      reader8_.reset(new SimpleTypeBATReader<uint64_t>(tail_file, requested_size));
      break;
    default:
      break;
  }
}

StringTailReader::~StringTailReader() = default;

template <typename R, typename F>
R StringTailReader::WithInner(R fallback, F f) {
  if (reader1_) return f(*reader1_);
  if (reader2_) return f(*reader2_);
  if (reader4_) return f(*reader4_);
  if (reader8_) return f(*reader8_);
  return fallback;
}

void StringTailReader::SetWholeFile() {
  WithInner(0, [](auto& r) {
    r.SetWholeFile();
    return 0;
  });
}

bool StringTailReader::Initialize(TextLog* log) {
  bool ok = Open();
  if (!ok) TextLogAppend(log, kName, "Initialize() returned false.");
  return ok;
}

bool StringTailReader::Open() {
  return WithInner(false, [](auto& r) { return r.Open(); });
}

void StringTailReader::Close() {
  WithInner(0, [](auto& r) {
    r.Close();
    return 0;
  });
}

bool StringTailReader::IsEmpty() {
  return WithInner(false, [](auto& r) { return r.IsEmpty(); });
}

bool StringTailReader::Read(TextLog* log) {
  bool ok = Read();
  if (!ok) TextLogAppend(log, kName, "Read() returned false.");
  return ok;
}

bool StringTailReader::Read() {
  first_read_ = false;
  return WithInner(false, [](auto& r) { return r.Read(); });
}

unsigned int StringTailReader::GetValue() {
  return WithInner(0u, [](auto& r) { return static_cast<unsigned int>(r.GetValue()); });
}

uint32_t StringTailReader::ValueAt(uint64_t index) {
  return WithInner(0u, [&](auto& r) {
    r.MoveTo(index * width_);
    return static_cast<uint32_t>(r.GetValue());
  });
}

}  // namespace qopci
