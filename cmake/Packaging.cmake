# A Debian package of the installed tree: hustctl, hust-sim, the plug-in, the support library with
# its headers, the man page and the bash completion. `cpack -G DEB` in the build directory.
set(CPACK_PACKAGE_NAME hust-cnc-driver)
set(CPACK_PACKAGE_VENDOR "Hust CNC driver team")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Hust CNC serial driver plug-in for operator panels, with hustctl and hust-sim")
set(CPACK_PACKAGE_DESCRIPTION "The Qt plug-in a panel run-time loads to talk to a Hust CNC controller on a serial line, its support library for drivers, the hustctl commissioning tool and the hust-sim controller simulator.")
set(CPACK_PACKAGE_CONTACT "hust-cnc-driver maintainers <root@localhost>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION devel)
set(CPACK_STRIP_FILES ON)

# The package's architecture is the target's, not the build machine's: a cross build names its
# Debian architecture (HUST_DEB_ARCHITECTURE, or the one its multiarch triplet stands for).
set(HUST_DEB_ARCHITECTURE "" CACHE STRING "Debian architecture of the package (default: the target's)")
if(NOT HUST_DEB_ARCHITECTURE)
  set(triplet_arch_x86_64-linux-gnu amd64)
  set(triplet_arch_aarch64-linux-gnu arm64)
  set(triplet_arch_arm-linux-gnueabihf armhf)
  set(triplet_arch_i386-linux-gnu i386)
  if(CMAKE_CROSSCOMPILING AND DEFINED triplet_arch_${CMAKE_LIBRARY_ARCHITECTURE})
    set(HUST_DEB_ARCHITECTURE ${triplet_arch_${CMAKE_LIBRARY_ARCHITECTURE}})
  else()
    find_program(HUST_DPKG dpkg)
    if(HUST_DPKG)
      execute_process(COMMAND ${HUST_DPKG} --print-architecture
        OUTPUT_VARIABLE HUST_DEB_ARCHITECTURE OUTPUT_STRIP_TRAILING_WHITESPACE)
    endif()
  endif()
endif()
if(HUST_DEB_ARCHITECTURE)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${HUST_DEB_ARCHITECTURE})
endif()

# Every library the programs and the plug-in load, by the package names Debian gives them on
# every architecture (the panel's armhf Qt may be the GLES build of QtGui).
set(CPACK_DEBIAN_PACKAGE_DEPENDS
  "libc6, libstdc++6, libqt5core5a (>= 5.15), libqt5gui5 (>= 5.15) | libqt5gui5-gles (>= 5.15), libqt5widgets5 (>= 5.15), libqt5sql5 (>= 5.15), libqt5sql5-sqlite (>= 5.15)")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "qtbase5-dev")

include(CPack)
