# cmake -DBUILD_DIR=<build> -DWORK_DIR=<scratch> -P install_tree.cmake
#
# A plain install into a DESTDIR must hold the helper and its manual page,
# at the paths where mount(8) and man(1) look, and nothing else.
file(REMOVE_RECURSE ${WORK_DIR})
execute_process(
    COMMAND ${CMAKE_COMMAND} -E env DESTDIR=${WORK_DIR}
            ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix /usr
    RESULT_VARIABLE status)
if(NOT status EQUAL 0)
    message(FATAL_ERROR "cmake --install failed: ${status}")
endif()

file(GLOB_RECURSE installed LIST_DIRECTORIES false RELATIVE ${WORK_DIR} ${WORK_DIR}/*)
list(SORT installed)
set(expected usr/sbin/mount.qeodmfs usr/share/man/man8/mount.qeodmfs.8.gz)
if(NOT installed STREQUAL expected)
    message(FATAL_ERROR "installed: ${installed}\nexpected: ${expected}")
endif()

file(READ ${WORK_DIR}/usr/share/man/man8/mount.qeodmfs.8.gz magic LIMIT 2 HEX)
if(NOT magic STREQUAL "1f8b")
    message(FATAL_ERROR "the manual page is not gzip-compressed")
endif()
execute_process(COMMAND ${WORK_DIR}/usr/sbin/mount.qeodmfs -L RESULT_VARIABLE status)
if(NOT status EQUAL 0)
    message(FATAL_ERROR "the installed helper does not run: ${status}")
endif()
