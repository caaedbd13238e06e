# Manual pages and shell completion.
#
# Each page has one source, docs/man/<page>.md, which go-md2man turns into
# build/man/<page> at build time (the version filled in); it is installed
# gzipped (gzip -9n, as Debian wants): section 1, one page per installed
# program, with that program (kelvorn-sim's and kelvorn-vectors' in the
# kelvorn-sim package); section 7, kelvorn-status, the exit statuses of
# every program, with the programs; section 3, each C API, with its header.
# A line that is only an HTML comment (<!-- not run: ... --> before an
# example that tests/e2e/examples_test.sh must not run) is dropped.
# tests/e2e/docs_test.sh keeps each page's options in step with its
# program's --help. The bash completion, docs/completion/kelvorn, is one script for
# every program, installed under each installed program's name, since
# bash-completion loads a command's completion by the command's name.
find_program(GO_MD2MAN go-md2man)
if(NOT GO_MD2MAN)
  message(FATAL_ERROR "go-md2man makes the manual pages: install it (scripts/deps.sh does)")
endif()

set(KELVORN_PROGRAMS kelvorn kelvorn-play kelvorn-serve kelvorn-chain)
set(KELVORN_MAN_PAGES kelvorn.1 kelvorn-play.1 kelvorn-serve.1 kelvorn-chain.1 kelvorn-status.7 libxilinx.3 libkelvorn.3)
# The simulator and kelvorn-vectors, their pages and completion: the
# kelvorn-sim package's (component sim).
set(KELVORN_SIM_PROGRAMS kelvorn-sim kelvorn-vectors)
list(APPEND KELVORN_MAN_PAGES kelvorn-sim.1 kelvorn-vectors.1)
set(man_outputs)
foreach(page ${KELVORN_MAN_PAGES})
  set(src ${CMAKE_SOURCE_DIR}/docs/man/${page}.md)
  set(out ${CMAKE_BINARY_DIR}/man/${page})
  add_custom_command(
    OUTPUT ${out} ${out}.gz
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/man
    COMMAND sh -c "sed -e 's/@VERSION@/${PROJECT_VERSION}/' -e '/^<!--.*-->$/d' '${src}' | '${GO_MD2MAN}' -out '${out}' && gzip -9n -c '${out}' >'${out}.gz'"
    DEPENDS ${src}
    COMMENT "Manual page ${page}"
    VERBATIM)
  list(APPEND man_outputs ${out} ${out}.gz)
  string(REGEX REPLACE ".*\\." "" section ${page})
  set(component programs)
  string(REGEX REPLACE "\\.[0-9]$" "" program ${page})
  if(program IN_LIST KELVORN_SIM_PROGRAMS)
    set(component sim)
  elseif(page STREQUAL libkelvorn.3)
    set(component kvdev)
  elseif(section STREQUAL 3)
    set(component dev)
  endif()
  install(FILES ${out}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT ${component})
endforeach()
add_custom_target(man ALL DEPENDS ${man_outputs})

foreach(program ${KELVORN_PROGRAMS} ${KELVORN_SIM_PROGRAMS})
  set(component programs)
  if(program IN_LIST KELVORN_SIM_PROGRAMS)
    set(component sim)
  endif()
  install(FILES ${CMAKE_SOURCE_DIR}/docs/completion/kelvorn
          DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME ${program} COMPONENT ${component})
endforeach()
