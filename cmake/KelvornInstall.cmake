# What `cmake --install` puts under the prefix (GNU directory names):
#   bin/kelvorn and the other tools given to kelvorn_install_tool()
#   bin/kelvorn-sim, bin/kelvorn-vectors     the simulator (sim/CMakeLists.txt)
#   share/kelvorn/bsdl/                       kelvorn-chain's BSDL directory, with the simulated parts' files
#   lib/libxilinx.so.<version> with its SONAME and development links, lib/libxilinx.a
#   lib/libkelvorn.so.<version>, lib/libkelvorn-sim.so.<version>, each with its SONAME and link
#   include/kelvorn/XilIntfC.h, include/kelvorn/kelvorn.h
#   lib/pkgconfig/xilinx.pc                   pkg-config --cflags --libs xilinx
#   lib/pkgconfig/kelvorn.pc, kelvorn-sim.pc  pkg-config --cflags --libs kelvorn (or kelvorn-sim)
#   lib/cmake/kelvorn/                        find_package(kelvorn): kelvorn::xilinx, kelvorn::xilinx_static,
#                                             and with libkelvorn kelvorn::kelvorn, kelvorn::kelvorn_sim
#   lib/python3/dist-packages/kelvorn         the Python package
#   lib/systemd/system/kelvorn-serve@.{socket,service}
#   share/man, share/bash-completion (cmake/KelvornDocs.cmake)
# Every path is relative to the prefix given at install time (--prefix, the
# Debian package's /usr). Each file belongs to one of the components, the
# Debian packages (cmake/KelvornPackage.cmake): lib, libxilinx under its
# SONAME; dev, what building against it takes; programs, the tools with
# their pages, completion and units; sim, the simulator and kelvorn-vectors
# with their pages, completion and BSDL files; kvlib and kvsim, libkelvorn and
# libkelvorn-sim under their SONAMEs; kvdev, what building against those
# takes; python, the Python package.
include(CMakePackageConfigHelpers)

# Installs command-line tools: one call per tool.
function(kelvorn_install_tool)
  install(TARGETS ${ARGN} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT programs)
endfunction()

set(KELVORN_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/kelvorn)
set(KELVORN_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(TARGETS xilinx xilinx_static EXPORT kelvornTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT lib NAMELINK_COMPONENT dev
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev
        PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kelvorn COMPONENT dev)

install(EXPORT kelvornTargets NAMESPACE kelvorn:: DESTINATION ${KELVORN_CMAKE_DIR} COMPONENT dev)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/kelvornConfig.cmake.in
                              ${CMAKE_BINARY_DIR}/kelvornConfig.cmake INSTALL_DESTINATION ${KELVORN_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/kelvornConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/kelvornConfig.cmake ${CMAKE_BINARY_DIR}/kelvornConfigVersion.cmake
        DESTINATION ${KELVORN_CMAKE_DIR} COMPONENT dev)

# libkelvorn's and libkelvorn-sim's rules are in libkelvorn/CMakeLists.txt, beside the targets.

# The pkg-config files name the prefix, which `cmake --install --prefix` and
# CPack choose at install time: their first line is written then.
function(kelvorn_pkgconfig name libs component description)
  set(KELVORN_PC_NAME ${name})
  set(KELVORN_PC_LIBS ${libs})
  set(KELVORN_PC_DESCRIPTION ${description})
  set(KELVORN_PC_PRIVATE ${ARGN})
  configure_file(${CMAKE_CURRENT_FUNCTION_LIST_DIR}/kelvorn.pc.in ${CMAKE_BINARY_DIR}/${name}.pc.body @ONLY)
  install(CODE "
    file(READ \"${CMAKE_BINARY_DIR}/${name}.pc.body\" body)
    file(WRITE \"${CMAKE_BINARY_DIR}/pkgconfig/${name}.pc\" \"prefix=\${CMAKE_INSTALL_PREFIX}\\n\${body}\")
    file(INSTALL \"${CMAKE_BINARY_DIR}/pkgconfig/${name}.pc\"
         DESTINATION \"\${CMAKE_INSTALL_PREFIX}/${KELVORN_PKGCONFIG_DIR}\")"
    COMPONENT ${component})
endfunction()
kelvorn_pkgconfig(xilinx -lxilinx dev "${PROJECT_DESCRIPTION}" "Libs.private: -lstdc++")
kelvorn_pkgconfig(kelvorn -lkelvorn kvdev "A whole JTAG chain from C: discovery, shifts, SVF and XSVF players")
kelvorn_pkgconfig(kelvorn-sim -lkelvorn-sim kvdev "libkelvorn with the simulated board behind it")

# The Python package, where Debian's python3 finds packages under any prefix.
install(DIRECTORY ${CMAKE_SOURCE_DIR}/python/kelvorn DESTINATION lib/python3/dist-packages COMPONENT python
        FILES_MATCHING PATTERN "*.py" PATTERN "py.typed" PATTERN "__pycache__" EXCLUDE)

# The BSDL directory kelvorn-chain searches by default (share/kelvorn/bsdl
# beside bin/): the kelvorn package makes it; vendors' files go there.
install(DIRECTORY DESTINATION ${CMAKE_INSTALL_DATADIR}/kelvorn/bsdl COMPONENT programs)

# kelvorn-serve's socket-activated units.
install(FILES ${CMAKE_SOURCE_DIR}/serve/systemd/kelvorn-serve@.socket ${CMAKE_SOURCE_DIR}/serve/systemd/kelvorn-serve@.service
        DESTINATION lib/systemd/system COMPONENT programs)
