# Toolchain of the presets armhf and arm64: Debian's cross compiler, the target's libraries in build/sysroot-ARCH, which
# scripts/cross creates, and QEMU to run the programs and tests.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ZEPTFEM_ARCH)
set(CMAKE_SYSTEM_NAME Linux)
if(ZEPTFEM_ARCH STREQUAL armhf)
  set(CMAKE_SYSTEM_PROCESSOR armv7l)
  set(triplet arm-linux-gnueabihf)
  # QEMU passes the host address of a fault to the guest's signal handler. With this guest base, the low 32 bits equal
  # the guest address.
  set(qemu qemu-arm-static -B 0x200000000)
  # ARMv7-A with VFPv3 but without NEON, which is optional.
  set(CMAKE_C_FLAGS_INIT "-march=armv7-a -mfpu=vfpv3-d16 -mfloat-abi=hard")
  set(CMAKE_CXX_FLAGS_INIT "-march=armv7-a -mfpu=vfpv3-d16 -mfloat-abi=hard")
else()
  set(CMAKE_SYSTEM_PROCESSOR aarch64)
  set(triplet aarch64-linux-gnu)
  set(qemu qemu-aarch64-static)
endif()
set(CMAKE_C_COMPILER ${triplet}-gcc)
set(CMAKE_CXX_COMPILER ${triplet}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${triplet})
set(CMAKE_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/sysroot-${ZEPTFEM_ARCH})
file(REAL_PATH ${CMAKE_SYSROOT} CMAKE_SYSROOT)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_CROSSCOMPILING_EMULATOR ${qemu} -L ${CMAKE_SYSROOT})
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${ZEPTFEM_ARCH})
