qopci_add_bench(queue_bench SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/queue_bench.cc LIBS qopci_queue)
