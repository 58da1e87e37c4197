# Toolchain file of the 32-bit Intel (i386) build on an amd64 Debian machine with multiarch:
#   bash .ci/install-deps.sh i386
#   cmake -S . -B build-i386 -DCMAKE_TOOLCHAIN_FILE=cmake/i386.cmake
# The native gcc/g++ with -m32 (g++-multilib) link the i386 libraries of /usr/lib/i386-linux-gnu
# (libcurl4-openssl-dev:i386 and the others); the programs run here natively. Used by .ci/i386.sh.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)

set(CMAKE_C_COMPILER gcc)
set(CMAKE_CXX_COMPILER g++)
set(CMAKE_C_FLAGS_INIT -m32)
set(CMAKE_CXX_FLAGS_INIT -m32)
foreach(kind EXE SHARED MODULE)
  set(CMAKE_${kind}_LINKER_FLAGS_INIT -m32)
endforeach()

# Libraries, packages and pkg-config files come from the i386 multiarch directories only, never from
# the amd64 ones beside them.
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
set_property(GLOBAL PROPERTY FIND_LIBRARY_USE_LIB64_PATHS OFF)
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/i386-linux-gnu/pkgconfig:/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")

# Debian packages made from this tree are i386 packages.
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE i386)
