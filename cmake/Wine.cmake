# Windows programs (tests, the runner) run under wine64 in a prefix that lives
# in the build tree. The prefix is made once, as part of the build, before any
# test runs; deleting build/wineprefix makes the next build create it again.
set(PCP_WINE_PREFIX ${CMAKE_BINARY_DIR}/wineprefix)
set(PCP_WINE_STAMP ${PCP_WINE_PREFIX}/.created)

if(NOT EXISTS /usr/lib/wine/wine64)
  message(FATAL_ERROR "wine64 not found at /usr/lib/wine/wine64 (apt-get install wine64)")
endif()

add_custom_command(OUTPUT ${PCP_WINE_STAMP}
  COMMAND ${CMAKE_SOURCE_DIR}/cmake/wine-prefix.sh ${PCP_WINE_PREFIX} ${PCP_WINE_STAMP}
  COMMENT "Wine prefix"
  USES_TERMINAL)
add_custom_target(wineprefix ALL DEPENDS ${PCP_WINE_STAMP})

# Targets created from here on run through wine-run.sh (add_test, discovery).
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_SOURCE_DIR}/cmake/wine-run.sh ${PCP_WINE_PREFIX})
