# KHash coding throughput, with std::unordered_map as the reference.
qopci_add_bench(dict_strings_bench
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/dict_strings_bench.cc
  LIBS qopci_dictionaries)
