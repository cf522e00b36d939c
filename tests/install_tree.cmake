# cmake -DBUILD_DIR=<build> -DWORK_DIR=<staging> -DPREFIX=<prefix> -DMANDIR=<mandir>
#       -DHELPER_DIR=<dir> -DMESSAGES_DIR=<dir> -P install_tree.cmake
#
# A plain install, with the build's own prefix, into the DESTDIR WORK_DIR
# must put down the helper where mount(8) looks, the manual page under the
# prefix, each catalogue once with its other spelling as a link, and
# nothing else. The tree stays for the tests that run what it holds.
cmake_policy(VERSION 3.25)  # GLOB_RECURSE lists links, never follows them
file(REMOVE_RECURSE ${WORK_DIR})
execute_process(
    COMMAND ${CMAKE_COMMAND} -E env DESTDIR=${WORK_DIR} ${CMAKE_COMMAND} --install ${BUILD_DIR}
    OUTPUT_QUIET
    RESULT_VARIABLE status)
if(NOT status EQUAL 0)
    message(FATAL_ERROR "cmake --install failed: ${status}")
endif()

file(GLOB_RECURSE installed LIST_DIRECTORIES false RELATIVE ${WORK_DIR} ${WORK_DIR}/*)
list(SORT installed)
string(REGEX REPLACE "^/" "" messages ${MESSAGES_DIR})
string(REGEX REPLACE "^/" "" helper ${HELPER_DIR}/mount.qeodmfs)
string(REGEX REPLACE "^/" "" page ${PREFIX}/${MANDIR}/man8/mount.qeodmfs.8.gz)
set(expected
    ${messages}/de_DE.UTF-8/KELDodm.cat ${messages}/de_DE.utf8
    ${messages}/en_US.UTF-8/KELDodm.cat ${messages}/en_US.utf8
    ${helper} ${page})
list(SORT expected)
if(NOT installed STREQUAL expected)
    message(FATAL_ERROR "installed: ${installed}\nexpected: ${expected}")
endif()

foreach(locale de_DE en_US)
    file(READ_SYMLINK ${WORK_DIR}/${messages}/${locale}.utf8 target)
    if(NOT target STREQUAL "${locale}.UTF-8")
        message(FATAL_ERROR "${messages}/${locale}.utf8 -> ${target}")
    endif()
endforeach()
file(READ ${WORK_DIR}/${page} magic LIMIT 2 HEX)
if(NOT magic STREQUAL "1f8b")
    message(FATAL_ERROR "the manual page is not gzip-compressed")
endif()
