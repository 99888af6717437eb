# The manners that a decoder may have and the reference decoder has only when asked (see ReferenceDecoderManners): each
# line makes a library of another kind.
set(UNFRIENDLY_MANNERS
    "resourceManagerHoldsCodec,lateCompletions,changingThreads,otherSuccessCodes"
    "lastReleaseDoesNotWait,threadsDoNotHoldLibrary,submitCompletesFirst,shuffledResolutions"
    "buffersNeedMore,callbackIsNotCounted,ascendingResolutions,changingThreads,threadsDoNotHoldLibrary,sizeBeforeTurning")

# clipforge_add_unfriendly_tests(NAME COMMAND...): the test NAME once more with each of them, as `ctest -C proof`.
function(clipforge_add_unfriendly_tests name)
    set(number 0)
    foreach(manners IN LISTS UNFRIENDLY_MANNERS)
        math(EXPR number "${number} + 1")
        add_test(NAME ${name}.unfriendly${number} CONFIGURATIONS proof COMMAND ${ARGN})
        set_tests_properties(${name}.unfriendly${number} PROPERTIES
            LABELS proof TIMEOUT 1800 RESOURCE_LOCK registry ENVIRONMENT "REFERENCE_DECODER=${manners}")
    endforeach()
endfunction()
