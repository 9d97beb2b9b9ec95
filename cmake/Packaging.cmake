# One Debian package, importer-hf, of everything that `cmake --install` installs:
#
#   cpack -G DEB --config build/CPackConfig.cmake -B build/packages
#
# tests/package builds it, has lintian look at it, and works with it.
if(NOT PROJECT_IS_TOP_LEVEL OR NOT OKV2_RUNS_AT_BUILD_TIME)
  return()
endif()

set(OKV2_DEB_REVISION 1)
set(OKV2_DEB_MAINTAINER "importer_hf authors <maintainers@importer-hf.example>")
string(TIMESTAMP OKV2_DEB_DATE "%a, %d %b %Y 00:00:00 +0000" UTC)  # honours SOURCE_DATE_EPOCH
configure_file(cmake/deb/changelog.in ${CMAKE_BINARY_DIR}/deb/changelog @ONLY)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME importer-hf)
set(CPACK_PACKAGE_VENDOR "importer_hf authors")
set(CPACK_PACKAGE_CONTACT "${OKV2_DEB_MAINTAINER}")
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_MONOLITHIC_INSTALL ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${OKV2_DEB_REVISION})
set(CPACK_DEBIAN_PACKAGE_SECTION science)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "parallel, python3-numpy")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "importer of HuggingFace model directories into OKV2 containers")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
"A shared-library plug-in that turns a model directory, with its
configuration, tokenizer and weights, into one container file, and the
command okv2 around it, which tells what an import loses, imports, lists,
verifies and compares.
.
The C header for authors of hosts and a Python reader of containers are
included.")

# Copyright, changelogs, compressed pages and dependencies, the way Debian wants them.
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/deb/arrange.cmake)
set(CPACK_OKV2_DEB_CHANGELOG ${CMAKE_BINARY_DIR}/deb/changelog)
set(CPACK_OKV2_DEB_SOURCES ${PROJECT_SOURCE_DIR}/cmake/deb)
include(CPack)
