# What `cmake --install` puts under the prefix (GNU directory names):
#   bin/kelvorn and the other tools given to kelvorn_install_tool()
#   lib/libxilinx.so.<version> with its SONAME and development links, lib/libxilinx.a
#   include/kelvorn/XilIntfC.h
#   lib/pkgconfig/kelvorn.pc                  pkg-config --cflags --libs kelvorn
#   lib/cmake/kelvorn/                        find_package(kelvorn): kelvorn::xilinx, kelvorn::xilinx_static
#   lib/systemd/system/kelvorn-serve@.{socket,service}
#   share/man, share/bash-completion (cmake/KelvornDocs.cmake)
# Every path is relative to the prefix given at install time (--prefix, the
# Debian package's /usr). Each file belongs to one of three components, the
# three Debian packages (cmake/KelvornPackage.cmake): lib, the shared
# library under its SONAME; dev, what building against it takes; programs,
# the tools with their pages, completion and units.
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

# The pkg-config file names the prefix, which `cmake --install --prefix` and
# CPack choose at install time: its first line is written then.
configure_file(${CMAKE_CURRENT_LIST_DIR}/kelvorn.pc.in ${CMAKE_BINARY_DIR}/kelvorn.pc.body @ONLY)
install(CODE "
  file(READ \"${CMAKE_BINARY_DIR}/kelvorn.pc.body\" body)
  file(WRITE \"${CMAKE_BINARY_DIR}/pkgconfig/kelvorn.pc\" \"prefix=\${CMAKE_INSTALL_PREFIX}\\n\${body}\")
  file(INSTALL \"${CMAKE_BINARY_DIR}/pkgconfig/kelvorn.pc\"
       DESTINATION \"\${CMAKE_INSTALL_PREFIX}/${KELVORN_PKGCONFIG_DIR}\")"
  COMPONENT dev)

# kelvorn-serve's socket-activated units.
install(FILES ${CMAKE_SOURCE_DIR}/serve/systemd/kelvorn-serve@.socket ${CMAKE_SOURCE_DIR}/serve/systemd/kelvorn-serve@.service
        DESTINATION lib/systemd/system COMPONENT programs)
