# Debian packages of the install components, made by CPack in an existing build tree:
#   cpack -G DEB            (or: cmake --build build --target package)
#   libvelto1     runtime   the shared library (SONAME libVelto.so.1)
#   libvelto-dev  dev       headers, libVelto.so link, CMake package, velto.pc; needs libvelto1 of its version
#   velto-tools   tools     velto-collector and velto-decode; needs libvelto1 of its version
# Library dependencies are computed by dpkg-shlibdeps (package dpkg-dev). The packages install under /usr.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME velto)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR Velto)
if(NOT CPACK_PACKAGE_CONTACT)
  set(CPACK_PACKAGE_CONTACT "Velto maintainers <maintainers@velto.invalid>")
endif()
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)  # the build's debugging information stays in the build tree

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev)
if(VELTO_BUILD_TOOLS)
  list(APPEND CPACK_COMPONENTS_ALL tools)
endif()
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)

set(VELTO_RUNTIME_PACKAGE libvelto${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${VELTO_RUNTIME_PACKAGE})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# A shlibs file for packages built against the library (any later 1.x will do) and ldconfig runs at
# installation; only the runtime package holds a shared library.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "usage analytics library for desktop applications
libVelto records what happens in a desktop application, keeps the records in a
file of its own and uploads them to a collection server.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libvelto-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "${VELTO_RUNTIME_PACKAGE} (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_DEV_DESCRIPTION "usage analytics library for desktop applications - development files
The C headers, the CMake package (find_package(Velto), target Velto::Velto) and
the pkg-config file (velto) for building applications against libVelto.")

# The tools carry the decoders in themselves; the dependency keeps them at the version of the library
# whose files and uploads they read.
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME velto-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${VELTO_RUNTIME_PACKAGE} (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "usage analytics library for desktop applications - developer tools
velto-collector, a local collection server that prints every record it
receives, and velto-decode, which shows what the library keeps on disk.")

include(CPack)
