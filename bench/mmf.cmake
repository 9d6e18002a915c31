qopci_add_bench(mmf_bench SOURCES ${CMAKE_CURRENT_LIST_DIR}/mmf_bench.cc LIBS qopci_mmf)
