# Builds in FOLDER against declarations of the decoder library that foreign.py makes, and runs the handler's tests.
# SOURCE is the checkout. With TESTS, a program of this build's, the handler and its decoder are built, and the program
# copied beside them asks them (EMULATOR runs it). Without it everything is built from a copy of the checkout that does
# not have our own declarations, and its tests are run.
cmake_minimum_required(VERSION 3.25)
function(run)
    execute_process(COMMAND ${ARGV} COMMAND_ERROR_IS_FATAL ANY)
endfunction()
function(configure)
    run(${CMAKE_COMMAND} -S ${SOURCE} -B ${FOLDER}/build -G Ninja --log-level=ERROR -Wno-dev
        -DCMAKE_TOOLCHAIN_FILE=${SOURCE}/cmake/mingw-w64-x86_64.cmake -DCMAKE_BUILD_TYPE=None
        -DCLIPFORGE_DECODER_INCLUDE=${FOLDER}/declarations ${ARGV})
endfunction()

run(python3 ${CMAKE_CURRENT_LIST_DIR}/foreign.py ${SEED} ${DIALECT} ${FOLDER}/declarations)
if(NOT TESTS)
    file(REMOVE_RECURSE ${FOLDER}/source)
    file(COPY ${SOURCE}/ DESTINATION ${FOLDER}/source
        REGEX "/(build|\\.git)$" EXCLUDE PATTERN BlackmagicRawAPI.h EXCLUDE)
    set(SOURCE ${FOLDER}/source)
    configure(-DCLIPFORGE_TESTS=ON)
    run(${CMAKE_COMMAND} --build ${FOLDER}/build
        --target WinePrefix ThumbnailProviderTests ManagerTests ReferenceDecoderTests)
    run(ctest --test-dir ${FOLDER}/build --output-on-failure --no-tests=error
        -R "^(ThumbnailProvider|Manager|ReferenceDecoder)Tests$")
    return()
endif()

# Files compiled several at a time, for speed; where their names clash, one at a time.
set(build ${CMAKE_COMMAND} --build ${FOLDER}/build --target Clipforge_Thumbnails BlackmagicRawAPI_Reference)
if(NOT EXISTS ${FOLDER}/build/build.ninja)
    configure(-DCLIPFORGE_TESTS=OFF -DCMAKE_UNITY_BUILD=ON)
endif()
execute_process(COMMAND ${build} RESULT_VARIABLE failed)
if(failed)
    configure(-DCLIPFORGE_TESTS=OFF -DCMAKE_UNITY_BUILD=OFF)
    run(${build})
endif()
file(COPY ${TESTS} DESTINATION ${FOLDER}/build/Tests/ThumbnailProvider)
cmake_path(GET TESTS FILENAME program)
run(${EMULATOR} ${FOLDER}/build/Tests/ThumbnailProvider/${program} --gtest_brief=1 --gtest_filter=Picture.*)
