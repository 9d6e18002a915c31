// Fuzzes the readers of existing column files over arbitrary file bytes: fixed-width and
// dictionary readers of every element type, string tails of every width, strings through
// their tail and heap, and dictionary-coded strings. Whatever the files hold, a reader
// answers true or false and every value it hands out lies inside the file: a string it
// yields must be readable up to its zero byte (AddressSanitizer sees any byte past it).
//
// Input: byte 0: bits 0-2 the reader (0 fixed width, 1 fixed-width dictionary, 2 string
// tail, 3 string, 4 string dictionary), bits 3-6 the element type (0-8); byte 1: bits 0-1
// the tail width (1, 2, 4, 8), bit 2 whole-file mapping, bit 3 a requested size taken from
// byte 3 (in elements) rather than the file's, bit 4 the first file starts with 65,520
// filler bytes so that its elements cross a 64 KiB span; byte 2: the length of the first
// file's own bytes; byte 3: the requested count; the rest is the first file (the column's
// rows: values, tail or codes) and then the second (dictionary values, or heap).
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "readers/simple_type_bat_reader.h"
#include "readers/simple_type_dict_reader.h"
#include "readers/string_reader.h"
#include "readers/string_tail_reader.h"
#include "readers/text_log.h"
#include "writers/mmf/mmf.h"

namespace fs = std::filesystem;
using namespace qopci;

namespace {

constexpr int kMaxSteps = 1 << 14;  // rows walked per input

const fs::path& Dir() {
  static const fs::path* dir = [] {
    const char* tmp = std::getenv("TMPDIR");
    auto* d = new fs::path(fs::path(tmp && *tmp ? tmp : "/tmp") /
                           ("qopci_reader_fuzz_" + std::to_string(::getpid())));
    fs::create_directories(*d);
    std::atexit([] { fs::remove_all(Dir()); });
    return d;
  }();
  return *dir;
}

std::string Put(const char* name, const std::string& bytes) {
  const std::string path = (Dir() / name).string();
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
  return path;
}

struct Input {
  int reader, type, width;
  bool whole, counted;
  uint64_t count;
  std::string first, second;
};

// Requested size for a file of `bytes` bytes and elements of `width` bytes.
uint64_t Requested(const Input& in, uint64_t bytes, uint64_t width) {
  return in.counted ? in.count * width : bytes;
}

// Walks a reader as the copy does, alternating the logging and silent reads.
template <typename T, typename Use>
void Walk(BATReader<T>& r, bool whole, Use use) {
  char buffer[256];
  TextLog log{buffer, sizeof buffer, 0};
  if (whole) r.SetWholeFile();
  if (!r.Initialize(&log)) return;
  r.IsEmpty();
  for (int i = 0; i < kMaxSteps && (i % 2 ? r.Read() : r.Read(&log)); i++) use(r.GetValue());
  r.Close();
}

void Touch(const char* s) {
  if (s != nullptr) {
    volatile size_t n = std::strlen(s);
    (void)n;
  }
}

template <typename T>
void Fixed(const Input& in) {
  const std::string file = Put("values", in.first);
  SimpleTypeBATReader<T> r(file.c_str(), Requested(in, in.first.size(), sizeof(T)));
  volatile T sink{};
  Walk<T>(r, in.whole, [&](T v) { sink = v; });
}

template <typename T, typename U>
void Dict(const Input& in) {
  const std::string codes = Put("codes", in.first);
  const std::string values = Put("values", in.second);
  auto* code_reader =
      new SimpleTypeBATReader<U>(codes.c_str(), Requested(in, in.first.size(), sizeof(U)));
  SimpleTypeDictReader<T, U> r(values.c_str(), in.second.size(), code_reader);
  volatile T sink{};
  Walk<T>(r, in.whole, [&](T v) { sink = v; });
}

void Tail(const Input& in) {
  const std::string tail = Put("tail", in.first);
  StringTailReader r(tail.c_str(), in.width, Requested(in, in.first.size(), in.width));
  volatile unsigned sink = 0;
  Walk<unsigned int>(r, in.whole, [&](unsigned v) { sink = v; });
  if (r.Open()) {
    for (uint64_t i = 0; i < 64; i++) sink = r.ValueAt(i * 7);
    r.Close();
  }
}

void Strings(const Input& in) {
  const std::string tail = Put("tail", in.first);
  const std::string heap = Put("heap", in.second);
  StringReader r(heap.c_str(), tail.c_str(), in.width, Requested(in, in.first.size(), in.width),
                 MMF::kNoRequestedSize);
  Walk<char*>(r, in.whole, Touch);
  if (r.Initialize(nullptr)) {
    for (uint32_t code = 1; code < 64; code += 3) Touch(r.ValueAt(code));
    r.Close();
  }
}

void StringDict(const Input& in) {
  // The dictionary's key tail is the head of the second part, its heap the rest.
  const size_t split = std::min<size_t>(in.second.size(), in.count * in.width);
  const std::string codes = Put("codes", in.first);
  const std::string tail = Put("tail", in.second.substr(0, split));
  const std::string heap = Put("heap", in.second.substr(split));
  auto* code_reader = new SimpleTypeBATReader<unsigned int>(
      codes.c_str(), in.first.size() / sizeof(unsigned int) * sizeof(unsigned int));
  auto* strings = new StringReader(heap.c_str(), tail.c_str(), in.width, split,
                                   MMF::kNoRequestedSize);
  StringDictReader r(code_reader, strings);
  Walk<char*>(r, in.whole, Touch);
}

template <typename F>
void ByType(int type, F f) {
  switch (type) {
    case 0: f(int{}, int{}); break;
    case 1: f(static_cast<unsigned int>(0), int{}); break;
    case 2: f(char{}, char{}); break;
    case 3: f(static_cast<unsigned char>(0), char{}); break;
    case 4: f(short{}, short{}); break;
    case 5: f(static_cast<unsigned short>(0), short{}); break;
    case 6: f(int64_t{}, 0u); break;
    case 7: f(uint64_t{}, 0u); break;
    default: f(double{}, 0u); break;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 4) return 0;
  Input in;
  in.reader = data[0] & 7;
  in.type = (data[0] >> 3) & 15;
  in.width = 1 << (data[1] & 3);
  in.whole = (data[1] & 4) != 0;
  in.counted = (data[1] & 8) != 0;
  in.count = data[3];
  const std::string rest(reinterpret_cast<const char*>(data) + 4, size - 4);
  const size_t split = std::min<size_t>(data[2], rest.size());
  in.first = rest.substr(0, split);
  in.second = rest.substr(split);
  if (data[1] & 16) in.first.insert(0, std::string(65520, 'A'));
  switch (in.reader) {
    case 0: ByType(in.type, [&](auto t, auto) { Fixed<decltype(t)>(in); }); break;
    case 1:
      ByType(in.type, [&](auto t, auto u) { Dict<decltype(t), decltype(u)>(in); });
      break;
    case 2: Tail(in); break;
    case 3: Strings(in); break;
    default: StringDict(in); break;
  }
  return 0;
}
