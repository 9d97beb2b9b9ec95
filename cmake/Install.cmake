# What hosts need: the plug-in, its C header (the only one), the okv2 command, and both ways of finding them.
# Everything finds everything else by relative paths, so an installed prefix may be moved.
include(CMakePackageConfigHelpers)

# The layout that tools/okv2 counts on as well: <libdir>/importer_hf/importer_hf.so.
set(OKV2_INSTALL_PLUGINDIR ${CMAKE_INSTALL_LIBDIR}/importer_hf)

install(TARGETS importer_hf LIBRARY DESTINATION ${OKV2_INSTALL_PLUGINDIR})
install(FILES src/plugin/host_abi.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/importer_hf)
if(TARGET okv2)
  install(TARGETS okv2 RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()
install(FILES README.md CHANGELOG.md LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY docs/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/docs FILES_MATCHING
  PATTERN "*.md" PATTERN "media/*")
install(DIRECTORY examples/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
install(FILES python/okv2.py DESTINATION ${CMAKE_INSTALL_DATADIR}/importer_hf/python)

# importer_hf::host_abi carries the include directory.
add_library(importer_hf_host_abi INTERFACE)
set_target_properties(importer_hf_host_abi PROPERTIES EXPORT_NAME host_abi)
target_include_directories(importer_hf_host_abi INTERFACE $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
install(TARGETS importer_hf_host_abi EXPORT importer_hfTargets)

set(OKV2_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/importer_hf)
install(EXPORT importer_hfTargets NAMESPACE importer_hf:: DESTINATION ${OKV2_INSTALL_CMAKEDIR})
configure_package_config_file(cmake/importer_hfConfig.cmake.in ${CMAKE_BINARY_DIR}/importer_hfConfig.cmake
  INSTALL_DESTINATION ${OKV2_INSTALL_CMAKEDIR}
  PATH_VARS OKV2_INSTALL_PLUGINDIR
  NO_CHECK_REQUIRED_COMPONENTS_MACRO)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/importer_hfConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(
  FILES ${CMAKE_BINARY_DIR}/importer_hfConfig.cmake ${CMAKE_BINARY_DIR}/importer_hfConfigVersion.cmake
  DESTINATION ${OKV2_INSTALL_CMAKEDIR})

# pkg-config: the prefix is counted from the .pc file's own folder.
file(RELATIVE_PATH OKV2_PC_TO_PREFIX
  ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" OKV2_PC_TO_PREFIX "${OKV2_PC_TO_PREFIX}")
configure_file(cmake/importer_hf.pc.in ${CMAKE_BINARY_DIR}/importer_hf.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/importer_hf.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
