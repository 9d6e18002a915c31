// StringDictWriter: writes a dictionary-coded string column: the dictionary's new strings
// (appended to its key heap and key tail through a StringWriter), the 32-bit codes of those
// strings, and, when the column has one, the 32-bit code of every row.
//
// The dictionary files are always appended to; only the row-code file may be written anew.
// Threading: as DictBATWriter; the three member writers may run on three workers at once.
#ifndef QOPCI_WRITERS_STRING_DICT_WRITER_H_
#define QOPCI_WRITERS_STRING_DICT_WRITER_H_

#include <cstdint>

#include "writers/dict_bat_writer.h"

namespace qopci {

class StringDictWriter : public DictBATWriter {
 public:
  // heap_file and key_tail_file hold the dictionary's strings (dictionary_count entries,
  // existing_heap_size heap bytes); key_code_file their codes; code_file, which may be null,
  // the row codes (row_count rows, kept when keep_existing). The names are copied by the
  // string member; the others must outlive the writer.
  StringDictWriter(const char* heap_file, const char* key_tail_file, const char* key_code_file,
                   const char* code_file, bool keep_existing, uint64_t dictionary_count,
                   uint64_t row_count, uint64_t existing_heap_size);
};

}  // namespace qopci

#endif  // QOPCI_WRITERS_STRING_DICT_WRITER_H_
