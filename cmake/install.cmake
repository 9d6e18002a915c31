# Installs the copy-into library, the embedded host kernel and the tool, with an exported
# qopci:: target set for find_package(qopci).
include(CMakePackageConfigHelpers)

set(_qopci_installed)
foreach(t corvid qop_copy_into qopci)
  if(TARGET ${t})
    list(APPEND _qopci_installed ${t})
  endif()
endforeach()

if(_qopci_installed)
  install(TARGETS ${_qopci_installed} EXPORT qopciTargets
          LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
          ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
          RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
          INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/qopci ${PROJECT_SOURCE_DIR}/host/include/corvid
          DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
  install(EXPORT qopciTargets NAMESPACE qopci:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/qopci)
  file(WRITE ${PROJECT_BINARY_DIR}/qopciConfig.cmake.in
       "@PACKAGE_INIT@\ninclude(\"\${CMAKE_CURRENT_LIST_DIR}/qopciTargets.cmake\")\n")
  configure_package_config_file(${PROJECT_BINARY_DIR}/qopciConfig.cmake.in
                                ${PROJECT_BINARY_DIR}/qopciConfig.cmake
                                INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/qopci)
  write_basic_package_version_file(${PROJECT_BINARY_DIR}/qopciConfigVersion.cmake
                                   COMPATIBILITY SameMajorVersion)
  install(FILES ${PROJECT_BINARY_DIR}/qopciConfig.cmake ${PROJECT_BINARY_DIR}/qopciConfigVersion.cmake
          DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/qopci)
endif()
