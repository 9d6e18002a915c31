#include "dictionaries/hash_base.h"

#include <cstdio>

namespace qopci {

namespace {

// Appends text as it stands, without a prefix, under the same rules as TextLogAppend: cut at
// the capacity, always zero-terminated, nothing once the buffer is full.
void AppendBare(TextLog* log, const char* text) {
  if (log == nullptr || log->buffer == nullptr) return;
  if (log->capacity == 0 || log->length >= log->capacity - 1) return;
  const uint32_t room = log->capacity - log->length;
  const int n = std::snprintf(log->buffer + log->length, room, "%s", text);
  if (n < 0) {
    log->buffer[log->length] = '\0';
    return;
  }
  log->length += static_cast<uint32_t>(n) < room ? static_cast<uint32_t>(n) : room - 1;
}

template <typename T>
void CloseAndDelete(BATReader<T>* reader) {
  reader->Close();
  delete reader;
}

}  // namespace

template <typename K, typename V>
bool HashBase<K, V>::LoadFromReaders(BATReader<K>* key_reader, BATReader<V>* value_reader,
                                     TextLog* log) {
  TextLogAppend(log, LogPrefix(), "LoadFromReader() started.");
  // Until both readers are known to be usable and non-empty they stay the caller's.
  if (!key_reader->Initialize(log)) {
    AppendBare(log, " Failed to init keyReader.");
    return false;
  }
  if (!value_reader->Initialize(log)) {
    AppendBare(log, "Failed to init valReader.");
    return false;
  }
  AppendBare(log, " Initialized ok.");
  const bool no_keys = key_reader->IsEmpty();
  const bool no_values = value_reader->IsEmpty();
  if (no_keys && no_values) {
    AppendBare(log, " Both empties.");
    CloseAndDelete(key_reader);
    CloseAndDelete(value_reader);
    return true;
  }
  if (no_keys) {
    AppendBare(log, " key is empty, val is not.");
    return false;
  }
  if (no_values) {
    AppendBare(log, " val is empty, key is not.");
    return false;
  }
  const char* failure = nullptr;
  while (key_reader->Read()) {
    if (!value_reader->Read(log)) {
      failure = " Failed to read from val (while expecting more data).";
      break;
    }
    if (!Insert(key_reader->GetValue(), value_reader->GetValue())) {
      failure = " Failed to insert pair to hash.";
      break;
    }
  }
  if (failure == nullptr && value_reader->Read()) {
    failure = " Read from val (while expecting to fail).";  // a code without a key
  }
  if (failure != nullptr) {
    AppendBare(log, failure);
    CloseAndDelete(key_reader);
    CloseAndDelete(value_reader);
    return false;
  }
  CloseAndDelete(key_reader);
  CloseAndDelete(value_reader);
  AppendBare(log, " Finished LoadFromReaders successfully.");
  return true;
}

template class HashBase<char, char>;
template class HashBase<short, short>;
template class HashBase<int, int>;
template class HashBase<int64_t, unsigned int>;
template class HashBase<double, unsigned int>;
template class HashBase<char*, unsigned int>;

}  // namespace qopci
