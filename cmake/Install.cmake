# The install tree: header, library, find_package(tilvarcm) and pkg-config.

include(CMakePackageConfigHelpers)

install(TARGETS tilvarcm EXPORT tilvarcm
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
if(TARGET webhost)
  install(TARGETS webhost RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()
install(EXPORT tilvarcm NAMESPACE tilvarcm:: FILE tilvarcm-targets.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tilvarcm)

file(WRITE ${PROJECT_BINARY_DIR}/tilvarcm-config.cmake "include(\${CMAKE_CURRENT_LIST_DIR}/tilvarcm-targets.cmake)\n")
write_basic_package_version_file(${PROJECT_BINARY_DIR}/tilvarcm-config-version.cmake COMPATIBILITY SameMajorVersion)
# Found from its own place, so that the tree may be installed anywhere (cmake --install --prefix).
file(RELATIVE_PATH TILVARCM_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(packaging/tilvarcm.pc.in ${PROJECT_BINARY_DIR}/tilvarcm.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tilvarcm-config.cmake ${PROJECT_BINARY_DIR}/tilvarcm-config-version.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tilvarcm)
install(FILES ${PROJECT_BINARY_DIR}/tilvarcm.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# One archive of that tree: cpack --config BUILD/CPackConfig.cmake
if(WIN32)
  set(CPACK_GENERATOR ZIP)
else()
  set(CPACK_GENERATOR TGZ)
endif()
set(CPACK_PACKAGE_FILE_NAME tilvarcm-${PROJECT_VERSION}-${CMAKE_SYSTEM_NAME}-${CMAKE_SYSTEM_PROCESSOR})
include(CPack)
