# Run by cpack between the installation to its staging directory and the making of the package: moves what
# `cmake --install` installs to where Debian keeps it.
cmake_minimum_required(VERSION 3.22)
set(root ${CPACK_TEMPORARY_INSTALL_DIRECTORY})
set(usr ${root}${CPACK_PACKAGING_INSTALL_PREFIX})
set(doc ${usr}/share/doc/importer-hf)

function(gzip)
  execute_process(COMMAND gzip -9n -f ${ARGN} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

file(RENAME ${usr}/share/doc/importer_hf ${doc})
file(REMOVE ${doc}/LICENSE)  # the copyright file has it
file(COPY ${CPACK_OKV2_DEB_SOURCES}/copyright DESTINATION ${doc})
file(RENAME ${doc}/CHANGELOG.md ${doc}/changelog)
configure_file(${CPACK_OKV2_DEB_CHANGELOG} ${doc}/changelog.Debian COPYONLY)
file(MAKE_DIRECTORY ${usr}/share/lintian/overrides)
configure_file(${CPACK_OKV2_DEB_SOURCES}/lintian-overrides ${usr}/share/lintian/overrides/importer-hf COPYONLY)
file(GLOB_RECURSE pages ${usr}/share/man/*.[1-9])
gzip(${pages} ${doc}/changelog ${doc}/changelog.Debian)

# Debian's zsh looks for packages' functions here.
file(MAKE_DIRECTORY ${usr}/share/zsh/vendor-completions)
file(RENAME ${usr}/share/zsh/site-functions/_okv2 ${usr}/share/zsh/vendor-completions/_okv2)
file(REMOVE_RECURSE ${usr}/share/zsh/site-functions)

# A file for pkg-config that serves every architecture has its place outside /usr/lib; the way up is the same.
if(EXISTS ${usr}/lib/pkgconfig)
  file(RENAME ${usr}/lib/pkgconfig ${usr}/share/pkgconfig)
endif()

# Whatever the umask of whoever runs this. A module is loaded, not executed.
file(GLOB_RECURSE files LIST_DIRECTORIES false ${usr}/share/* ${usr}/include/* ${usr}/lib/*)
file(CHMOD ${files} PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
file(GLOB_RECURSE directories LIST_DIRECTORIES true ${root}/*)
foreach(path ${usr} ${directories})
  if(IS_DIRECTORY ${path})
    file(CHMOD ${path} PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE
      GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
  endif()
endforeach()

# cpack would call dpkg-shlibdeps itself, but then takes any module below /usr/lib for a public library and
# adds scripts that call ldconfig.
file(GLOB modules ${usr}/lib/importer_hf/*.so ${usr}/lib/*/importer_hf/*.so)
set(scratch ${root}.shlibdeps)
file(MAKE_DIRECTORY ${scratch}/debian)
file(WRITE ${scratch}/debian/control "")  # dpkg-shlibdeps wants one to be there
execute_process(COMMAND dpkg-shlibdeps -O ${usr}/bin/okv2 ${modules}
  WORKING_DIRECTORY ${scratch} OUTPUT_VARIABLE dependencies ERROR_VARIABLE errors COMMAND_ERROR_IS_FATAL ANY)
if(NOT dependencies MATCHES "^shlibs:Depends=(.+)\n$")
  message(FATAL_ERROR "dpkg-shlibdeps: ${dependencies}${errors}")
endif()
set(CPACK_DEBIAN_PACKAGE_DEPENDS "${CMAKE_MATCH_1}")
