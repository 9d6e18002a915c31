#include "dictionaries/dict_store.h"

namespace qopci {

bool DictStore::Open(const char*) { return false; }
void DictStore::Close() {}
int DictStoreCompare(const char*, size_t, const char*, size_t) { return 0; }
bool CreateDictStore(const char*, std::string*) { return false; }
bool DictStoreCount(DictStore*, uint64_t*, std::string*) { return false; }
bool DictStorePut(DictStore*, std::string_view, uint32_t, std::string*) { return false; }
bool DictStoreForEach(DictStore*, const std::function<bool(std::string_view, uint32_t)>&,
                      std::string*) {
  return false;
}
bool DictStoreDelete(DictStore*, std::string_view, std::string*) { return false; }

}  // namespace qopci
