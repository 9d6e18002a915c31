# The string dictionary's tests, added to dictionaries_tests by the folder's CMakeLists.txt.
list(APPEND QOPCI_DICT_TEST_SOURCES ${CMAKE_CURRENT_LIST_DIR}/khash_test.cc
     ${CMAKE_CURRENT_LIST_DIR}/dict_store_test.cc)
