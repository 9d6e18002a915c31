# Result-column readers: ns per value through the order BAT, dense and permuted, and row ids.
qopci_add_bench(readers_bench
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/readers_bench.cc
  LIBS qopci_readers corvid)
