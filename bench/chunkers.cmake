# Chunker insert throughput, per value type and per cast.
qopci_add_bench(chunkers_bench
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/chunkers_bench.cc
  LIBS qopci_chunkers corvid)
