# 32-bit ARM with hardware floating point: Debian's cross compiler, a private root of Debian's armhf
# packages (armhf-sysroot.sh) and user-mode emulation for everything that is run.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
# Everything C++ here comes from one compiler: how GCC 7 changed its calls concerns nobody.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")

set(QEL_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/sysroot-armhf CACHE PATH "Root of the armhf packages")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES QEL_SYSROOT)
cmake_path(NORMAL_PATH QEL_SYSROOT OUTPUT_VARIABLE sysroot)
if(NOT EXISTS ${sysroot}/usr/include)
  message(FATAL_ERROR "No armhf packages in ${sysroot}: run cmake/armhf-sysroot.sh ${sysroot}")
endif()

set(CMAKE_SYSROOT ${sysroot})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Both -L and LD_LIBRARY_PATH: with only one of them a process can end up with the libraries of two
# C libraries, and crashes in fork().
set(multiarch lib/arm-linux-gnueabihf)
set(CMAKE_CROSSCOMPILING_EMULATOR
  "qemu-arm;-L;${sysroot};-E;LD_LIBRARY_PATH=${sysroot}/${multiarch}:${sysroot}/usr/${multiarch}")
