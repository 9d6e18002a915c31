#include "dictionaries/khash.h"

namespace qopci {

KHash::KHash(uint32_t initial_capacity, bool hashes_nulls) : HashBase(hashes_nulls) {
  (void)initial_capacity;
}
KHash::~KHash() = default;
uint64_t KHash::Size() { return size_ + pending_; }
void KHash::EncodeChunk(char* const* values, unsigned first_new_code, unsigned* codes,
                        uint64_t count, char** new_values, unsigned* new_codes,
                        uint64_t* new_count, unsigned null_code, char* null_value) {
  EncodeChunk(values, first_new_code, codes, count, new_values, new_codes, new_count,
              null_code, null_value, nullptr);
}
void KHash::EncodeChunk(char* const*, unsigned, unsigned*, uint64_t, char**, unsigned*,
                        uint64_t*, unsigned, char*, DictStore*) {}
bool KHash::Insert(char*, unsigned) { return false; }
bool KHash::Find(char*, unsigned*) { return false; }

}  // namespace qopci
