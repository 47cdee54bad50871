# Cross build for 32-bit ARM (armhf) against Debian's multiarch -dev packages,
# with tests run under qemu-arm.
#   cmake -S . -B build/armhf -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

# 64-bit d_ino/d_off/off_t as bionic has on 32-bit ARM. Without it glibc's readdir
# fails with EOVERFLOW on the 64-bit directory offsets that a 64-bit host kernel
# hands to an emulated process (time_t stays 32-bit, as on the device).
set(CMAKE_C_FLAGS_INIT "-D_FILE_OFFSET_BITS=64")
set(CMAKE_CXX_FLAGS_INIT "-D_FILE_OFFSET_BITS=64")

# Libraries come from the host's multiarch root (/usr/lib/arm-linux-gnueabihf),
# programs (aidl, ninja) from the host.
set(CMAKE_FIND_ROOT_PATH /)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
list(APPEND CMAKE_PREFIX_PATH /usr/lib/arm-linux-gnueabihf/cmake)

# The loader prefix holds nothing but the armhf 7z.so: the armhf libbacktrace
# finds it through its RUNPATH /usr/lib/p7zip, where a host install may have put the
# amd64 copy. Everything else must come from the multiarch root; pointing -L at
# /usr/arm-linux-gnueabihf mixes two libcs and crashes at the first thread start.
get_property(_qmed_in_try GLOBAL PROPERTY IN_TRY_COMPILE)
if(NOT _qmed_in_try)
  set(QMED_QEMU_PREFIX "${CMAKE_BINARY_DIR}/qemu-arm-root" CACHE PATH "qemu-arm -L prefix")
  set(_qmed_7z "${QMED_QEMU_PREFIX}/usr/lib/p7zip/7z.so")
  if(NOT EXISTS "${_qmed_7z}")
    execute_process(COMMAND "${CMAKE_CURRENT_LIST_DIR}/../scripts/armhf-qemu-prefix.sh"
                            "${QMED_QEMU_PREFIX}" RESULT_VARIABLE _qmed_rc)
    if(NOT _qmed_rc EQUAL 0)
      message(FATAL_ERROR "cannot prepare the qemu-arm prefix (needs p7zip-full:armhf)")
    endif()
  endif()
  # A cross ld ignores the RUNPATH of libraries it links against, so name the
  # directories libbacktrace needs (7z.so, libbase) for the link as well.
  set(_qmed_link "-Wl,-rpath-link,${QMED_QEMU_PREFIX}/usr/lib/p7zip")
  string(APPEND _qmed_link " -Wl,-rpath-link,/usr/lib/arm-linux-gnueabihf/android")
  set(CMAKE_EXE_LINKER_FLAGS_INIT "${_qmed_link}")
  set(CMAKE_SHARED_LINKER_FLAGS_INIT "${_qmed_link}")
  find_program(QMED_QEMU_ARM qemu-arm REQUIRED)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${QMED_QEMU_ARM};-L;${QMED_QEMU_PREFIX}")
endif()
