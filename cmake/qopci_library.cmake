# qopci_add_library(<name> <alias> SOURCES ... LINK ...): one static library of the plugin's
# layers. Everything in it is compiled position-independent (the root sets that) and
# hidden, so that libqop_copy_into.so exports only its qopci_ functions.
function(qopci_add_library name alias)
  cmake_parse_arguments(L "" "" "SOURCES;LINK" ${ARGN})
  add_library(${name} STATIC ${L_SOURCES})
  add_library(qopci::${alias} ALIAS ${name})
  target_include_directories(${name} PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>)
  target_link_libraries(${name} PUBLIC ${L_LINK})
  set_target_properties(${name} PROPERTIES CXX_VISIBILITY_PRESET hidden
                                           VISIBILITY_INLINES_HIDDEN ON)
endfunction()
