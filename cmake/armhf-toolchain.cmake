# Cross-build for the ARM panel (arm-linux-gnueabihf) against a private sysroot of Debian's
# armhf packages made by scripts/make-armhf-sysroot.sh. Test binaries run under qemu-arm.
# Used by scripts/cross-armhf.sh (Qt 5 from the sysroot) and scripts/cross-armhf-qt4.sh.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
if(NOT ADS_ARMHF_SYSROOT)
  set(ADS_ARMHF_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build-armhf/apt/sysroot")
endif()
get_filename_component(ADS_ARMHF_SYSROOT "${ADS_ARMHF_SYSROOT}" ABSOLUTE)
set(ADS_ARMHF_SYSROOT "${ADS_ARMHF_SYSROOT}" CACHE PATH "armhf sysroot" FORCE)
# No --sysroot: the cross compiler brings its own libc; Qt and GoogleTest come from here.
set(CMAKE_FIND_ROOT_PATH "${ADS_ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(_rpl "-Wl,-rpath-link,${ADS_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf -Wl,-rpath-link,${ADS_ARMHF_SYSROOT}/lib/arm-linux-gnueabihf")
set(CMAKE_EXE_LINKER_FLAGS_INIT "${_rpl}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${_rpl}")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "${_rpl}")
set(CMAKE_CROSSCOMPILING_EMULATOR "qemu-arm;-L;${ADS_ARMHF_SYSROOT}")
# The sysroot's Qt 5 CMake files name ARM moc/qmake/rcc that cannot run here: the root
# CMakeLists.txt points them at the host's (ADS_HOST_QT_BIN). With ADS_QT4=ON, Qt comes from
# the armhf Qt 4.8 prefix instead and the sysroot gives GoogleTest and the C++ runtime only.
set(ADS_CROSS_ARMHF ON CACHE BOOL "Cross-build for armhf (set by cmake/armhf-toolchain.cmake, not by hand)" FORCE)
