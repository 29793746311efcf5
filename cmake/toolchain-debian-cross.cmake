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
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
# pkg-config sees the target's libraries only.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/${triplet}/pkgconfig:/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")
