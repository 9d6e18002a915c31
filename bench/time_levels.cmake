# Time-level derivation throughput against plain timestamp inserts.
qopci_add_bench(time_levels_bench
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/time_levels_bench.cc
  LIBS qopci_chunkers corvid)
