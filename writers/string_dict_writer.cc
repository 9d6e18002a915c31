#include "writers/string_dict_writer.h"

#include "writers/simple_type_bat_writer.h"
#include "writers/string_writer.h"

namespace qopci {

StringDictWriter::StringDictWriter(const char* heap_file, const char* key_tail_file,
                                   const char* key_code_file, const char* code_file,
                                   bool keep_existing, uint64_t dictionary_count,
                                   uint64_t row_count, uint64_t existing_heap_size)
    : DictBATWriter(
          heap_file, dictionary_count, row_count, keep_existing,
          new StringWriter(heap_file, key_tail_file, true, dictionary_count, existing_heap_size),
          new SimpleTypeBATWriter<unsigned int>(key_code_file, true, dictionary_count),
          code_file != nullptr
              ? new SimpleTypeBATWriter<unsigned int>(code_file, keep_existing, row_count)
              : nullptr) {}

}  // namespace qopci
