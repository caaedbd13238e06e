# `cpack -G DEB` in the build directory: a package "kelvorn" holding exactly
# what `cmake --install` installs, under /usr. Its Depends come from
# dpkg-shlibdeps on the tool and the library (dpkg-dev), and it carries a
# shlibs file for packages that link libxilinx.so.1.
set(CPACK_PACKAGE_NAME kelvorn)
set(CPACK_PACKAGE_VENDOR "kelvorn developers")
set(CPACK_PACKAGE_CONTACT "kelvorn developers <kelvorn-dev@example.org>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
string(CONCAT CPACK_PACKAGE_DESCRIPTION
       "kelvorn drives the JTAG port of an FPGA or CPLD on a network-equipment board\n"
       "by bit-banging GPIO pins of another chip on the board: an AMD embedded SoC,\n"
       "an AMD SB820 southbridge, Intel Cave Creek and Cedar Fork PCHs, PLX PEX\n"
       "8600/8700 and Pericom PCIe switches or an Intel GbE controller. The package\n"
       "holds libxilinx (shared and static) with its C header, pkg-config file and\n"
       "CMake package, for JTAG players that link it, and the kelvorn bring-up tool.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION electronics)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_GENERATOR DEB)
include(CPack)
