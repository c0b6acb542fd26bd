# Debian packages made by CPack from the install components:
#   libqor1     runtime: libqor.so.1, libqor_msg.so.1, the catalogue
#   libqor-dev  dev:     headers, the .so links, libqor.a, pkg-config files,
#                        the CMake package
#   qor-tools   tools:   the qor command and its manual page
# Build them with scripts/package (a Release build for /usr, then cpack);
# docs/packaging.md tells the policy and what lintian says.

# Every package carries the licence as its copyright file and the project's
# changelog, where Debian's tools look for them.
# Debian wants its own changelog beside it (changelog.Debian.gz): one entry
# per package revision, pointing at the project's.
set(_doc ${CMAKE_INSTALL_DATAROOTDIR}/doc)
set(_changelog_gz ${CMAKE_CURRENT_BINARY_DIR}/deb/changelog.gz)
set(_debian_changelog ${CMAKE_CURRENT_BINARY_DIR}/deb/changelog.Debian)
file(WRITE ${_debian_changelog}
"qor (${PROJECT_VERSION}-1) unstable; urgency=medium

  * Release ${PROJECT_VERSION}; see changelog.gz for what it holds.

 -- libqor developers <libqor@lists.example.org>  Wed, 25 Nov 2026 00:00:00 +0000
")
add_custom_command(OUTPUT ${_changelog_gz} ${_debian_changelog}.gz
  COMMAND gzip -9nc ${CMAKE_CURRENT_SOURCE_DIR}/CHANGELOG.md > ${_changelog_gz}
  COMMAND gzip -9nc ${_debian_changelog} > ${_debian_changelog}.gz
  DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/CHANGELOG.md VERBATIM)
add_custom_target(qor_changelog ALL
  DEPENDS ${_changelog_gz} ${_debian_changelog}.gz)

set(_packages runtime libqor1 dev libqor-dev tools qor-tools)
while(_packages)
  list(POP_FRONT _packages _component _package)
  if(_component STREQUAL "tools" AND NOT QOR_BUILD_TOOLS)
    continue()
  endif()
  install(FILES LICENSE DESTINATION ${_doc}/${_package}
    RENAME copyright COMPONENT ${_component})
  install(FILES ${_changelog_gz} ${_debian_changelog}.gz
    DESTINATION ${_doc}/${_package} COMPONENT ${_component})
  string(TOUPPER ${_component} _c)
  set(CPACK_DEBIAN_${_c}_PACKAGE_NAME ${_package})
  set(CPACK_DEBIAN_${_c}_FILE_NAME DEB-DEFAULT)
endwhile()

set(CPACK_PACKAGE_NAME qor)
set(CPACK_PACKAGE_VENDOR "the libqor developers")
set(CPACK_PACKAGE_CONTACT "libqor developers <libqor@lists.example.org>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY ${PROJECT_DESCRIPTION})
set(CPACK_RESOURCE_FILE_LICENSE ${CMAKE_CURRENT_SOURCE_DIR}/LICENSE)
set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev)
if(QOR_BUILD_TOOLS)
  list(APPEND CPACK_COMPONENTS_ALL tools)
endif()
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)

set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The library package declares its libraries (shlibs, so packages built
# against it depend on libqor1 >= this version) and has the loader's cache
# refreshed through dpkg's ldconfig trigger rather than maintainer scripts.
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/deb/shlibs
  "libqor 1 libqor1 (>= ${PROJECT_VERSION})\n"
  "libqor_msg 1 libqor1 (>= ${PROJECT_VERSION})\n")
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/deb/triggers
  "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_BINARY_DIR}/deb/shlibs
    ${CMAKE_CURRENT_BINARY_DIR}/deb/triggers)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
"portability and storage services (shared libraries)
libqor gives programs one vocabulary for what a POSIX host offers:
checked memory and pooled allocators, status codes and messages, hash
tables, a path namespace mapped onto the host, an object store, text and
binary files with a crash-safe save protocol, and process services.
.
This package holds libqor, libqor_msg and the message catalogue.")
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libqor1 (= ${PROJECT_VERSION}-1)")
set(CPACK_DEBIAN_DEV_DESCRIPTION
"portability and storage services (development files)
libqor gives programs one vocabulary for what a POSIX host offers.
.
This package holds the C headers, the static library, the pkg-config
files qor.pc and qor_msg.pc, and the CMake package.")
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
# dpkg-shlibdeps cannot see libqor1's libraries from here (CPack stages
# each package apart), so the command's dependencies are written out: the
# matching libqor1, and libc6 as libqor1 itself needs it.
set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS
    "libqor1 (= ${PROJECT_VERSION}-1), libc6 (>= 2.34)")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION
"portability and storage services (the qor command)
libqor gives programs one vocabulary for what a POSIX host offers.
.
This package holds qor, a command that explains status codes, translates
qor paths and works on objects of the store.")
include(CPack)
