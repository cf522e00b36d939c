# Run by cpack on each package it has made (CPACK_POST_BUILD_SCRIPTS).
#
# No package owns /opt: base-files makes it in its postinst. CPack writes an
# entry for every parent directory of what it packs, and dpkg removes each
# directory a package lists once it is empty, so removing the package would
# take /opt with it. This drops that one entry from the data archive. The
# directories from /opt/KELD down stay listed: they are ours, and dpkg
# removes them only when nothing else is left in them.
find_program(AR ar REQUIRED)
find_program(TAR tar REQUIRED)
find_program(GZIP gzip REQUIRED)
find_program(DPKG_DEB dpkg-deb REQUIRED)

foreach(deb IN LISTS CPACK_PACKAGE_FILES)
    set(work ${deb}.parts)
    file(REMOVE_RECURSE ${work})
    file(MAKE_DIRECTORY ${work})
    execute_process(COMMAND ${AR} t ${deb}
        OUTPUT_VARIABLE members OUTPUT_STRIP_TRAILING_WHITESPACE
        COMMAND_ERROR_IS_FATAL ANY)
    string(REPLACE "\n" ";" members "${members}")
    if(NOT members STREQUAL "debian-binary;control.tar.gz;data.tar.gz")
        message(FATAL_ERROR "${deb}: unexpected members ${members}")
    endif()
    execute_process(COMMAND ${AR} x ${deb} debian-binary control.tar.gz
        WORKING_DIRECTORY ${work}
        COMMAND_ERROR_IS_FATAL ANY)
    execute_process(COMMAND ${DPKG_DEB} --fsys-tarfile ${deb}
        OUTPUT_FILE ${work}/data.tar
        COMMAND_ERROR_IS_FATAL ANY)
    execute_process(COMMAND ${TAR} -tf data.tar
        WORKING_DIRECTORY ${work}
        OUTPUT_VARIABLE entries
        COMMAND_ERROR_IS_FATAL ANY)
    string(REPLACE "\n" ";" entries "${entries}")
    list(REMOVE_ITEM entries ./opt/ "")
    list(JOIN entries "\n" entries)
    file(WRITE ${work}/entries "${entries}\n")
    # Written anew from its own list, in its own order: GNU tar's --delete
    # can shift the members after the one it drops and so tear the helper.
    file(MAKE_DIRECTORY ${work}/tree)
    execute_process(COMMAND ${TAR} -xpf ../data.tar
        WORKING_DIRECTORY ${work}/tree
        COMMAND_ERROR_IS_FATAL ANY)
    set(times)
    if(DEFINED ENV{SOURCE_DATE_EPOCH})
        set(times --mtime=@$ENV{SOURCE_DATE_EPOCH} --clamp-mtime)
    endif()
    execute_process(COMMAND ${TAR} -cf ../data.tar --format=gnu --no-recursion
            --owner=root:0 --group=root:0 ${times} -T ../entries
        WORKING_DIRECTORY ${work}/tree
        COMMAND_ERROR_IS_FATAL ANY)
    execute_process(COMMAND ${GZIP} -9n data.tar
        WORKING_DIRECTORY ${work}
        COMMAND_ERROR_IS_FATAL ANY)
    # D: no times, owners or modes of the build machine in the archive.
    file(REMOVE ${deb})
    execute_process(COMMAND ${AR} rcD ${deb} debian-binary control.tar.gz data.tar.gz
        WORKING_DIRECTORY ${work}
        COMMAND_ERROR_IS_FATAL ANY)
    file(REMOVE_RECURSE ${work})
endforeach()
