#include "readers/string_reader.h"

#include "corvid/strheap.h"

namespace qopci {

namespace {

constexpr char kStringReader[] = "StringReader";
constexpr char kStringDictReader[] = "StringDictReader";

}  // namespace

StringReader::StringReader(const char* heap_file, const char* tail_file, uint32_t tail_width,
                           uint64_t requested_size, uint64_t heap_size)
    : BATReader<char*>(requested_size),
      tail_width_(tail_width),
      heap_(new MMFStringByteReader(heap_file, heap_size)),
      tail_(new StringTailReader(tail_file, tail_width, requested_size)) {}

StringReader::~StringReader() {
  tail_.reset();
  heap_.reset();
}

void StringReader::SetWholeFile() {
  heap_->SetWholeFile(true);
  tail_->SetWholeFile();
}

bool StringReader::Initialize(TextLog* log) {
  if (!heap_->Open()) {
    TextLogAppend(log, kStringReader, "failed to init heapReader.");
    return false;
  }
  if (!tail_->Open()) {
    TextLogAppend(log, kStringReader, "failed to init tailReader.");
    return false;
  }
  first_read_ = true;
  tail_read_ = true;
  tail_value_ = 0;
  return true;
}

bool StringReader::Open() {
  heap_->Open();
  tail_->Open();
  first_read_ = true;
  tail_read_ = true;
  tail_value_ = 0;
  return true;
}

void StringReader::Close() {
  heap_->Close();
  tail_->Close();
}

bool StringReader::IsEmpty() { return tail_->IsEmpty(); }

uint32_t StringReader::HeapPosition(uint32_t v) const {
  return cvd_str_heappos(v, static_cast<int>(tail_width_));
}

// Each row's string runs from its own tail entry to the next row's, so the reader keeps
// one entry ahead: the first Read takes two.
bool StringReader::Step(TextLog* log) {
  uint32_t start = tail_value_;
  if (!tail_read_) {
    TextLogAppend(log, kStringReader, "Read() failed, previous _tailRead was zero.");
    return false;
  }
  tail_read_ = tail_->Read();
  if (tail_read_) tail_value_ = tail_->GetValue();
  if (first_read_) {
    if (!tail_read_) {
      TextLogAppend(log, kStringReader, "Read() failed, _tailRead was zero on _firstRead.");
      return false;
    }
    start = tail_value_;
    tail_read_ = tail_->Read();
    if (tail_read_) tail_value_ = tail_->GetValue();
    first_read_ = false;
  }
  const uint32_t end = tail_value_;  // after the last row it stays equal to start
  if (!heap_->ReadString(HeapPosition(start), HeapPosition(end), false)) {
    TextLogAppend(log, kStringReader, "Read() failed to moveCursor");
    return false;
  }
  return true;
}

char* StringReader::GetValue() {
  if (heap_->Span() == nullptr) return nullptr;
  return const_cast<char*>(heap_->Current());
}

char* StringReader::ValueAt(uint32_t code) {
  if (tail_read_) tail_value_ = tail_->ValueAt(static_cast<uint64_t>(code) - 1);
  const uint64_t start = HeapPosition(tail_value_);
  const uint64_t end = tail_read_ ? start : heap_->GetMappingSize();
  if (!heap_->ReadString(start, end, true)) return nullptr;
  return const_cast<char*>(heap_->Current());
}

StringDictReader::StringDictReader(BATReader<unsigned int>* codes, StringReader* strings)
    : BATReader<char*>(0), codes_(codes), strings_(strings) {}

StringDictReader::~StringDictReader() = default;

bool StringDictReader::Initialize(TextLog* log) {
  bool ok = Open();
  if (!ok) TextLogAppend(log, kStringDictReader, "Initialize() returned false.");
  return ok;
}

bool StringDictReader::Open() { return codes_->Open() && strings_->Open(); }

void StringDictReader::Close() {
  codes_->Close();
  strings_->Close();
}

bool StringDictReader::IsEmpty() { return codes_->IsEmpty(); }

bool StringDictReader::Read(TextLog* log) {
  bool ok = Read();
  if (!ok) TextLogAppend(log, kStringDictReader, "Read() returned false.");
  return ok;
}

bool StringDictReader::Read() { return codes_->Read(); }

char* StringDictReader::GetValue() { return strings_->ValueAt(codes_->GetValue()); }

}  // namespace qopci
