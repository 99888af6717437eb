# The Wine prefix of this build. Made once and by one process, before tests that run in parallel would all want to.
set(WINE_PREFIX_STAMP ${CMAKE_BINARY_DIR}/wineprefix.stamp)
set(WINE_WITHOUT_PREFIX ${CMAKE_CROSSCOMPILING_EMULATOR})
list(FILTER WINE_WITHOUT_PREFIX EXCLUDE REGEX "^WINEPREFIX=")
add_custom_command(
    OUTPUT ${WINE_PREFIX_STAMP}
    COMMAND ${CMAKE_CURRENT_LIST_DIR}/make-wine-prefix ${CMAKE_BINARY_DIR}/wineprefix ${WINE_WITHOUT_PREFIX}
            > ${CMAKE_BINARY_DIR}/wineprefix.log 2>&1
    COMMAND ${CMAKE_COMMAND} -E touch ${WINE_PREFIX_STAMP}
    COMMENT "Making the Wine prefix"
    VERBATIM)
add_custom_target(WinePrefix ALL DEPENDS ${WINE_PREFIX_STAMP})
