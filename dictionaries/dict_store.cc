#include "dictionaries/dict_store.h"

#include <sys/stat.h>

#include <cstring>

namespace qopci {

namespace {

// Latin letters fold to lower case, as strcasecmp does; every other byte stays. Folding to
// lower case matters only for the six bytes between 'Z' and 'a' ('[' to '`'): they sort
// before every letter.
inline unsigned char Fold(unsigned char c) {
  return (c >= 'A' && c <= 'Z') ? static_cast<unsigned char>(c + ('a' - 'A')) : c;
}

int CompareKeys(void* /*state*/, const char* a, size_t a_length, const char* b, size_t b_length) {
  return DictStoreCompare(a, a_length, b, b_length);
}

const char* ComparatorName(void* /*state*/) { return "incaseSensitive"; }

// The comparator holds no state, so there is nothing to release.
void DestroyComparator(void* /*state*/) {}

// Creates every handle of store with the store options; create says whether a missing
// store is created (for the tool) or an error (for the library).
void CreateHandles(DictStore* store, bool create) {
  store->options = leveldb_options_create();
  store->comparator =
      leveldb_comparator_create(nullptr, DestroyComparator, CompareKeys, ComparatorName);
  leveldb_options_set_comparator(store->options, store->comparator);
  store->cache = leveldb_cache_create_lru(0x20000000);
  leveldb_options_set_cache(store->options, store->cache);
  leveldb_options_set_write_buffer_size(store->options, 0x1000000);
  leveldb_options_set_create_if_missing(store->options, create ? 1 : 0);
  leveldb_options_set_error_if_exists(store->options, create ? 1 : 0);
  leveldb_options_set_compression(store->options, leveldb_snappy_compression);
  leveldb_options_set_max_open_files(store->options, 16384);
  store->read_options = leveldb_readoptions_create();
  leveldb_readoptions_set_fill_cache(store->read_options, 1);
  store->write_options = leveldb_writeoptions_create();
}

// Moves a LevelDB error text into *error, releasing it; true when there was none.
bool TakeError(char* text, const char* what, std::string* error) {
  if (text == nullptr) return true;
  if (error != nullptr) *error = std::string(what) + ": " + text;
  leveldb_free(text);
  return false;
}

bool Fail(const char* what, std::string* error) {
  if (error != nullptr) *error = what;
  return false;
}

// A store key: the string and its zero byte. False when the string holds a zero byte,
// which would make it two strings.
bool MakeKey(std::string_view key, std::string* out, std::string* error) {
  if (key.find('\0') != std::string_view::npos) return Fail("key holds a zero byte", error);
  out->assign(key);
  out->push_back('\0');
  return true;
}

}  // namespace

int DictStoreCompare(const char* a, size_t a_length, const char* b, size_t b_length) {
  // Only a's length decides how far the keys are compared. Well-formed keys (one zero byte,
  // at the end) differ at the latest at the shorter one's zero, so stopping at b's end as
  // well never changes a result; it only keeps a malformed key from being read past.
  const auto* x = reinterpret_cast<const unsigned char*>(a);
  const auto* y = reinterpret_cast<const unsigned char*>(b);
  const size_t n = a_length < b_length ? a_length : b_length;
  for (size_t i = 0; i < n; ++i) {
    if (Fold(x[i]) != Fold(y[i])) return static_cast<int>(Fold(x[i])) - Fold(y[i]);
  }
  for (size_t i = 0; i < n; ++i) {
    if (x[i] != y[i]) return static_cast<int>(x[i]) - y[i];
  }
  return a_length > b_length ? 1 : 0;
}

bool DictStore::Open(const char* dir) {
  Close();
  CreateHandles(this, /*create=*/false);
  // LevelDB makes the directory and its lock and log files before it finds no store there;
  // a directory without a store's CURRENT file is refused first, so nothing is left behind.
  struct stat st;
  if (stat((std::string(dir) + "/CURRENT").c_str(), &st) != 0) return false;
  char* error = nullptr;
  db = leveldb_open(options, dir, &error);
  if (error != nullptr) {
    leveldb_free(error);
    if (db != nullptr) leveldb_close(db);
    db = nullptr;
    return false;
  }
  return db != nullptr;
}

void DictStore::Close() {
  if (db != nullptr) leveldb_close(db);
  db = nullptr;
  if (write_options != nullptr) leveldb_writeoptions_destroy(write_options);
  write_options = nullptr;
  if (options != nullptr) leveldb_options_destroy(options);
  options = nullptr;
  if (read_options != nullptr) leveldb_readoptions_destroy(read_options);
  read_options = nullptr;
  if (cache != nullptr) leveldb_cache_destroy(cache);
  cache = nullptr;
  if (comparator != nullptr) leveldb_comparator_destroy(comparator);
  comparator = nullptr;
}

bool CreateDictStore(const char* dir, std::string* error) {
  DictStore store;
  CreateHandles(&store, /*create=*/true);
  char* text = nullptr;
  store.db = leveldb_open(store.options, dir, &text);
  if (!TakeError(text, "cannot create the dictionary store", error)) {
    if (store.db != nullptr) leveldb_close(store.db);
    store.db = nullptr;
    return false;
  }
  return true;  // store's destructor closes it
}

bool DictStoreCount(DictStore* store, uint64_t* count, std::string* error) {
  uint64_t n = 0;
  bool ok = DictStoreForEach(
      store,
      [&n](std::string_view, uint32_t) {
        ++n;
        return true;
      },
      error);
  if (ok) *count = n;
  return ok;
}

bool DictStorePut(DictStore* store, std::string_view key, uint32_t code, std::string* error) {
  if (!store->IsOpen()) return Fail("the dictionary store is not open", error);
  std::string k;
  if (!MakeKey(key, &k, error)) return false;
  const char value[4] = {static_cast<char>(code), static_cast<char>(code >> 8),
                         static_cast<char>(code >> 16), static_cast<char>(code >> 24)};
  char* text = nullptr;
  leveldb_put(store->db, store->write_options, k.data(), k.size(), value, 4, &text);
  return TakeError(text, "cannot write to the dictionary store", error);
}

bool DictStoreForEach(DictStore* store,
                      const std::function<bool(std::string_view key, uint32_t code)>& visit,
                      std::string* error) {
  if (!store->IsOpen()) return Fail("the dictionary store is not open", error);
  leveldb_iterator_t* it = leveldb_create_iterator(store->db, store->read_options);
  bool ok = true;
  for (leveldb_iter_seek_to_first(it); ok && leveldb_iter_valid(it); leveldb_iter_next(it)) {
    size_t key_length = 0, value_length = 0;
    const char* key = leveldb_iter_key(it, &key_length);
    const auto* value =
        reinterpret_cast<const unsigned char*>(leveldb_iter_value(it, &value_length));
    if (key_length == 0 || key[key_length - 1] != '\0' || value_length != 4) {
      ok = Fail("the dictionary store holds an entry that is not a string with a 4-byte code",
                error);
      break;
    }
    const uint32_t code =
        value[0] | value[1] << 8 | value[2] << 16 | static_cast<uint32_t>(value[3]) << 24;
    if (!visit(std::string_view(key, key_length - 1), code)) break;
  }
  char* text = nullptr;
  leveldb_iter_get_error(it, &text);
  if (ok)
    ok = TakeError(text, "cannot read the dictionary store", error);
  else if (text != nullptr)
    leveldb_free(text);
  leveldb_iter_destroy(it);
  return ok;
}

bool DictStoreDelete(DictStore* store, std::string_view key, std::string* error) {
  if (!store->IsOpen()) return Fail("the dictionary store is not open", error);
  std::string k;
  if (!MakeKey(key, &k, error)) return false;
  char* text = nullptr;
  leveldb_delete(store->db, store->write_options, k.data(), k.size(), &text);
  return TakeError(text, "cannot delete from the dictionary store", error);
}

}  // namespace qopci
