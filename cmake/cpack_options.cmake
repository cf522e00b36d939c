# Read by cpack. Every time in the package, file times included, is the
# commit's unless SOURCE_DATE_EPOCH says otherwise, so that two builds of
# one commit give the same bytes.
if(NOT DEFINED ENV{SOURCE_DATE_EPOCH})
    execute_process(
        COMMAND git -C ${CPACK_ODM_SOURCE_DIR} log -1 --format=%ct
        OUTPUT_VARIABLE epoch
        OUTPUT_STRIP_TRAILING_WHITESPACE
        RESULT_VARIABLE status
        ERROR_QUIET)
    if(status EQUAL 0 AND epoch)
        set(ENV{SOURCE_DATE_EPOCH} ${epoch})
    endif()
endif()
