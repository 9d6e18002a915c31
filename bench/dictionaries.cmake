# Dictionary encoding throughput of the numeric tables, with std::unordered_map beside them.
qopci_add_bench(dictionaries_bench
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/dictionaries_bench.cc
  LIBS qopci_dictionaries)
