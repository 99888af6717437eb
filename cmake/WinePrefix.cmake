# The Wine prefix of this build. Made once and by one process, before tests that run in parallel would all want to.
set(WINE_PREFIX_STAMP ${CMAKE_BINARY_DIR}/wineprefix.stamp)
add_custom_command(
    OUTPUT ${WINE_PREFIX_STAMP}
    COMMAND ${CMAKE_CROSSCOMPILING_EMULATOR} wineboot -i > ${CMAKE_BINARY_DIR}/wineprefix.log 2>&1
    COMMAND ${CMAKE_COMMAND} -E touch ${WINE_PREFIX_STAMP}
    COMMENT "Making the Wine prefix"
    VERBATIM)
add_custom_target(WinePrefix ALL DEPENDS ${WINE_PREFIX_STAMP})
