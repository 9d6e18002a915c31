# The string dictionary (KHash) and its LevelDB store, added to qopci_dictionaries by the
# folder's CMakeLists.txt. LevelDB is used through its C interface.
find_path(QOPCI_LEVELDB_INCLUDE_DIR leveldb/c.h REQUIRED)
find_library(QOPCI_LEVELDB_LIBRARY leveldb REQUIRED)
list(APPEND QOPCI_DICT_SOURCES ${CMAKE_CURRENT_LIST_DIR}/khash.cc
     ${CMAKE_CURRENT_LIST_DIR}/dict_store.cc)
list(APPEND QOPCI_DICT_LINK ${QOPCI_LEVELDB_LIBRARY})
