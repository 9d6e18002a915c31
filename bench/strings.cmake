# StringHeap add throughput.
qopci_add_bench(string_heap_bench
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/string_heap_bench.cc
  LIBS qopci_string_heap)
