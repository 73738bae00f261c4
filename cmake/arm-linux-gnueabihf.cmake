# Builds for 32-bit ARM with Debian's cross compiler. The libraries are in the folder that scripts/armhf-root makes;
# programs run under qemu-arm.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

get_filename_component(QM_ARMHF_ROOT ${CMAKE_CURRENT_LIST_DIR}/../build/armhf/root ABSOLUTE)
set(CMAKE_SYSROOT ${QM_ARMHF_ROOT})
# The loader gives up a folder of a program's run path when it lacks the first library looked for there and, asked
# for by the emulator outside the root folder, does not seem to exist. So the platform's is named in full.
set(CMAKE_CROSSCOMPILING_EMULATOR
    qemu-arm -L ${QM_ARMHF_ROOT}
    -E LD_LIBRARY_PATH=${QM_ARMHF_ROOT}/usr/lib/arm-linux-gnueabihf/android)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(ENV{PKG_CONFIG_SYSROOT_DIR} ${QM_ARMHF_ROOT})
set(ENV{PKG_CONFIG_LIBDIR}
    ${QM_ARMHF_ROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${QM_ARMHF_ROOT}/usr/share/pkgconfig)
