# Cross build for the ARM routers with Debian's cross toolchain and multiarch libraries
# (scripts/cross installs both) for the GNU triplet in NK_CROSS_TRIPLET, e.g.
# aarch64-linux-gnu or arm-linux-gnueabihf. Tests run through qemu-user.
set(triplet $ENV{NK_CROSS_TRIPLET})
if(NOT triplet)
  message(FATAL_ERROR "set NK_CROSS_TRIPLET (scripts/cross does)")
endif()
string(REGEX MATCH "^[^-]+" processor ${triplet})
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${processor})
set(CMAKE_C_COMPILER ${triplet}-gcc)
set(CMAKE_CXX_COMPILER ${triplet}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${triplet})
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-${processor})
if(processor STREQUAL "arm")
  # GCC notes that 32-bit ARM passes some std::map iterators differently since GCC 7.1; all of
  # this program is built by one compiler, so the note says nothing here.
  set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")
endif()
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
# The target's libraries come from the machine's multiarch packages, or from a root directory
# of the target's Debian packages in NK_CROSS_SYSROOT where multiarch cannot be installed.
set(sysroot $ENV{NK_CROSS_SYSROOT})
if(sysroot)
  set(CMAKE_SYSROOT ${sysroot})
  set(CMAKE_FIND_ROOT_PATH ${sysroot})
  set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
  set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
  set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
  set(ENV{PKG_CONFIG_SYSROOT_DIR} ${sysroot})
endif()
# pkg-config sees the target's libraries only.
set(ENV{PKG_CONFIG_LIBDIR} ${sysroot}/usr/lib/${triplet}/pkgconfig:${sysroot}/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")
