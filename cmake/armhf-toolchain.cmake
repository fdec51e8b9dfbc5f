# Cross-build for the ARM panels: 32-bit ARM hard-float Linux, Debian's cross toolchain
# (crossbuild-essential-armhf), Qt 5 from Debian's armhf packages unpacked into a sysroot by
# scripts/armhf-sysroot.sh. Built programs run under qemu-arm-static, so ctest runs the armhf
# tests on the build machine.
#
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/armhf-toolchain.cmake \
#         [-DHUST_ARMHF_SYSROOT=DIR]        (default: the build tree's sysroot/)

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_C_COMPILER ${CMAKE_LIBRARY_ARCHITECTURE}-gcc)
set(CMAKE_CXX_COMPILER ${CMAKE_LIBRARY_ARCHITECTURE}-g++)

set(HUST_ARMHF_SYSROOT "${CMAKE_BINARY_DIR}/sysroot" CACHE PATH "Unpacked armhf packages to build against")
# The compiler checks build in projects of their own; they need the same sysroot.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES HUST_ARMHF_SYSROOT)
if(NOT EXISTS "${HUST_ARMHF_SYSROOT}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/cmake/Qt5")
  message(FATAL_ERROR "No armhf Qt in ${HUST_ARMHF_SYSROOT}: run scripts/armhf-sysroot.sh ${HUST_ARMHF_SYSROOT}")
endif()

# Libraries, headers and packages come only from the sysroot (the C and C++ run-times from the
# toolchain itself); programs run during the build come from the build machine.
set(CMAKE_FIND_ROOT_PATH "${HUST_ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Debian keeps libraries in both /lib and /usr/lib. The linker follows the Qt libraries'
# own dependencies through them, and the emulated loader finds them there.
set(_hust_armhf_libdirs
  "${HUST_ARMHF_SYSROOT}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}"
  "${HUST_ARMHF_SYSROOT}/lib/${CMAKE_LIBRARY_ARCHITECTURE}")
string(JOIN ":" _hust_armhf_libpath ${_hust_armhf_libdirs})
foreach(kind EXE SHARED MODULE)
  set(CMAKE_${kind}_LINKER_FLAGS_INIT "-Wl,-rpath-link,${_hust_armhf_libpath}")
endforeach()

# Qt's code generators run on the build machine. Qt's package configuration creates these
# targets from the armhf packages unless they exist already, so they are created here first,
# from the build machine's Qt of the same version (qtbase5-dev-tools). qmake is never run, but
# the configuration insists that it exists.
set(HUST_HOST_QT_BINDIR "/usr/lib/qt5/bin" CACHE PATH "The build machine's Qt 5 tools")
foreach(tool qmake moc rcc uic)
  if(NOT TARGET Qt5::${tool})
    add_executable(Qt5::${tool} IMPORTED)
    set_target_properties(Qt5::${tool} PROPERTIES IMPORTED_LOCATION "${HUST_HOST_QT_BINDIR}/${tool}")
  endif()
endforeach()

# ctest starts every test program through the emulator, with the toolchain's C and C++
# run-times, the sysroot's libraries and its Qt plug-ins (the SQLite driver, the offscreen
# platform).
find_program(HUST_QEMU_ARM qemu-arm-static REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR
  "${HUST_QEMU_ARM}" -L "/usr/${CMAKE_LIBRARY_ARCHITECTURE}"
  -E "LD_LIBRARY_PATH=${_hust_armhf_libpath}"
  -E "QT_PLUGIN_PATH=${HUST_ARMHF_SYSROOT}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/qt5/plugins")
