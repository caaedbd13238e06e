# `cpack -G DEB` in the build directory: eight packages under /usr, split as
# Debian splits a library, from the install components
# (cmake/KelvornInstall.cmake):
#   libxilinx1      the shared library under its SONAME, with a shlibs file
#                   and the ldconfig trigger
#   libxilinx-dev   headers, the unversioned link, the static library,
#                   pkg-config and CMake files, the section 3 page
#   kelvorn         the programs, their pages, bash completion, the
#                   kelvorn-serve units, the BSDL directory kelvorn-chain
#                   searches (empty)
#   kelvorn-sim     the simulator and kelvorn-vectors, their pages and
#                   completion, and BSDL files of simulated parts in that
#                   directory; apart, so that a board's image has no
#                   simulator and no made-up part on kelvorn-chain's path
#   libkelvorn1     libkelvorn under its SONAME (shlibs, ldconfig trigger)
#   libkelvorn-sim1 libkelvorn-sim under its SONAME
#   libkelvorn-dev  kelvorn.h, the two links, pkg-config and CMake files,
#                   the section 3 page; it needs libxilinx-dev, whose
#                   CMake package (find_package(kelvorn)) it extends
#   python3-kelvorn the Python package, over libkelvorn with ctypes
# Each has its copyright file and changelog; binaries are stripped, their
# debug symbols in a -dbgsym package each (when the build has them). Depends
# come from dpkg-shlibdeps (dpkg-dev). The maintainer is KELVORN_MAINTAINER.
set(KELVORN_MAINTAINER "kelvorn developers <kelvorn-dev@example.org>"
    CACHE STRING "The packages' maintainer, as \"Name <address>\"")

set(CPACK_PACKAGE_NAME kelvorn)
set(CPACK_PACKAGE_VENDOR "kelvorn developers")
set(CPACK_PACKAGE_CONTACT "${KELVORN_MAINTAINER}")
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${KELVORN_MAINTAINER}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL lib dev programs sim kvlib kvsim kvdev python)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION electronics)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON)

# Each package's description: the project's one-line summary, then what
# follows (CPack indents the lines; an empty line separates paragraphs).
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(about_boards
    "kelvorn drives the JTAG port of an FPGA or CPLD on a network-equipment\n"
    "board by bit-banging GPIO pins of another chip on the board: an AMD\n"
    "embedded SoC, an AMD SB820 southbridge, Intel Cave Creek and Cedar Fork\n"
    "PCHs, PLX PEX 8600/8700 and Pericom PCIe switches or an Intel GbE\n"
    "controller.\n"
    "\n")

set(CPACK_DEBIAN_LIB_PACKAGE_NAME libxilinx1)
set(CPACK_DEBIAN_LIB_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIB_PACKAGE_CONTROL_EXTRA ${CMAKE_BINARY_DIR}/package/lib/triggers)
string(CONCAT CPACK_DEBIAN_LIB_DESCRIPTION ${about_boards}
       "This package holds the shared library, libxilinx: the plain-named C\n"
       "functions that drive the device's pins.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libxilinx-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEV_DEPENDS lib)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
string(CONCAT CPACK_DEBIAN_DEV_DESCRIPTION ${about_boards}
       "This package holds what building against libxilinx takes: the C\n"
       "header, the static library, pkg-config and CMake package files and the\n"
       "manual page of the C functions.")

set(CPACK_DEBIAN_PROGRAMS_PACKAGE_NAME kelvorn)
string(CONCAT CPACK_DEBIAN_PROGRAMS_DESCRIPTION ${about_boards}
       "This package holds the programs: the kelvorn bring-up tool, the\n"
       "kelvorn-play SVF and XSVF player and kelvorn-serve, which serves the\n"
       "pins to OpenOCD over remote_bitbang or to XVC clients, with its systemd\n"
       "units.")

set(CPACK_DEBIAN_SIM_PACKAGE_NAME kelvorn-sim)
set(CPACK_DEBIAN_SIM_PACKAGE_RECOMMENDS kelvorn)
string(CONCAT CPACK_DEBIAN_SIM_DESCRIPTION ${about_boards}
       "This package holds kelvorn-sim, which runs the kelvorn tools on a\n"
       "simulated board: register-level models of every GPIO chip above and a\n"
       "JTAG chain of made-up or BSDL-described devices on their pins, nothing\n"
       "of the machine's hardware touched; kelvorn-vectors, which writes the\n"
       "SVF and XSVF files that program the simulated device; and the BSDL\n"
       "files of the simulated parts, in the directory kelvorn-chain searches.")

set(about_library
    "libkelvorn is a C library for a whole JTAG chain on such a board: it\n"
    "finds the devices on the chain, shifts instructions and data of one\n"
    "device with the others in BYPASS, plays SVF and XSVF files and samples\n"
    "a device's pins from its BSDL file.\n"
    "\n")

set(CPACK_DEBIAN_KVLIB_PACKAGE_NAME libkelvorn1)
set(CPACK_DEBIAN_KVLIB_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_KVLIB_PACKAGE_CONTROL_EXTRA ${CMAKE_BINARY_DIR}/package/lib/triggers)
string(CONCAT CPACK_DEBIAN_KVLIB_DESCRIPTION ${about_boards} ${about_library}
       "This package holds the shared library, libkelvorn.")

set(CPACK_DEBIAN_KVSIM_PACKAGE_NAME libkelvorn-sim1)
set(CPACK_DEBIAN_KVSIM_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_KVSIM_PACKAGE_CONTROL_EXTRA ${CMAKE_BINARY_DIR}/package/lib/triggers)
string(CONCAT CPACK_DEBIAN_KVSIM_DESCRIPTION ${about_boards} ${about_library}
       "This package holds libkelvorn-sim: the same functions and ABI with a\n"
       "simulated board behind them, so that a program runs unchanged against\n"
       "the simulator when it loads this library instead.")

set(CPACK_DEBIAN_KVDEV_PACKAGE_NAME libkelvorn-dev)
set(CPACK_DEBIAN_KVDEV_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_KVDEV_DEPENDS kvlib kvsim dev)
string(CONCAT CPACK_DEBIAN_KVDEV_DESCRIPTION ${about_boards} ${about_library}
       "This package holds what building against libkelvorn takes: the C\n"
       "header, pkg-config and CMake files and the manual page.")

set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-kelvorn)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "python3:any")
set(CPACK_COMPONENT_PYTHON_DEPENDS kvlib)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SUGGESTS libkelvorn-sim1)
string(CONCAT CPACK_DEBIAN_PYTHON_DESCRIPTION ${about_boards} ${about_library}
       "This package holds the Python 3 module kelvorn, which drives libkelvorn\n"
       "(or libkelvorn-sim) through ctypes.")

# The per-package files: /usr/share/doc/<package>/{copyright,changelog.gz},
# and the library's trigger for ldconfig.
configure_file(${CMAKE_CURRENT_LIST_DIR}/package/copyright.in ${CMAKE_BINARY_DIR}/package/copyright @ONLY)
configure_file(${CMAKE_CURRENT_LIST_DIR}/package/changelog.in ${CMAKE_BINARY_DIR}/package/changelog @ONLY)
file(WRITE ${CMAKE_BINARY_DIR}/package/lib/triggers "activate-noawait ldconfig\n")
add_custom_command(
  OUTPUT ${CMAKE_BINARY_DIR}/package/changelog.gz
  COMMAND sh -c "gzip -9n -c '${CMAKE_BINARY_DIR}/package/changelog' >'${CMAKE_BINARY_DIR}/package/changelog.gz'"
  DEPENDS ${CMAKE_BINARY_DIR}/package/changelog
  COMMENT "Package changelog"
  VERBATIM)
add_custom_target(package_changelog ALL DEPENDS ${CMAKE_BINARY_DIR}/package/changelog.gz)
foreach(component ${CPACK_COMPONENTS_ALL})
  string(TOUPPER ${component} upper)
  install(FILES ${CMAKE_BINARY_DIR}/package/copyright ${CMAKE_BINARY_DIR}/package/changelog.gz
          DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME} COMPONENT ${component})
endforeach()

# CPack gives a package with a shared library under /usr/lib a postinst and
# postrm that run ldconfig; Debian runs it from the trigger above instead.
set(CPACK_POST_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/package/DropLdconfigScripts.cmake)

include(CPack)
