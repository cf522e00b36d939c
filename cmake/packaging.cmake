# Installation and the Debian package.
#
# mount(8) looks for helpers in /sbin, /sbin/fs.d and /sbin/fs alone,
# whatever prefix the rest of the system uses, so a plain install puts the
# helper in /sbin; the manual page follows the prefix, and the catalogues go
# where the helper looks for them (msg/catalog). With DESTDIR all of it lands
# in the staging tree.
#
# The package keeps /usr/sbin, which merged /usr makes /sbin. It takes the
# helper, stripped as Debian strips, from a component of its own that a plain
# install leaves out, together with what Debian requires of every package.
set(ODM_HELPER_DIR /sbin CACHE PATH
    "directory of the installed helper; mount(8) looks in /sbin")

install(TARGETS mount.qeodmfs
    RUNTIME DESTINATION ${ODM_HELPER_DIR}
    COMPONENT helper)

set(ODM_DEB_NAME qeodmfs-mount)
set(ODM_DEB_DOCDIR ${CMAKE_INSTALL_DATAROOTDIR}/doc/${ODM_DEB_NAME})
set(staging ${PROJECT_BINARY_DIR}/packaging)

# What dh_strip leaves: no symbols, no compiler notes, the build ID kept;
# and the changelog, compressed as Debian wants it. Both are made by the
# package's own install step, so that only making a package makes them: a
# build that makes none never strips or compresses anything.
set(stripped ${staging}/mount.qeodmfs)
set(changelog_gz ${staging}/changelog.gz)
install(CODE "
    file(MAKE_DIRECTORY [[${staging}]])
    execute_process(
        COMMAND [[${CMAKE_STRIP}]] --remove-section=.comment --remove-section=.note
                -o [[${stripped}]] [[$<TARGET_FILE:mount.qeodmfs>]]
        COMMAND_ERROR_IS_FATAL ANY)
    file(COPY_FILE [[${PROJECT_SOURCE_DIR}/packaging/changelog]] [[${staging}/changelog]])
    execute_process(COMMAND [[${GZIP}]] -9nf [[${staging}/changelog]] COMMAND_ERROR_IS_FATAL ANY)"
    COMPONENT deb
    EXCLUDE_FROM_ALL)

install(PROGRAMS ${stripped}
    DESTINATION ${CMAKE_INSTALL_SBINDIR}
    COMPONENT deb
    EXCLUDE_FROM_ALL)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/copyright ${changelog_gz}
    DESTINATION ${ODM_DEB_DOCDIR}
    COMPONENT deb
    EXCLUDE_FROM_ALL)
# For systemd: the fstab mount of /dev/odm waits for the module, and /dev/odm
# is made at every boot. Both are applied by the maintainer scripts at once.
install(FILES ${PROJECT_SOURCE_DIR}/packaging/dev-odm.mount.conf
    DESTINATION /lib/systemd/system/dev-odm.mount.d
    RENAME ${ODM_DEB_NAME}.conf
    COMPONENT deb
    EXCLUDE_FROM_ALL)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/tmpfiles.conf
    DESTINATION lib/tmpfiles.d
    RENAME ${ODM_DEB_NAME}.conf
    COMPONENT deb
    EXCLUDE_FROM_ALL)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/lintian-overrides
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides
    RENAME ${ODM_DEB_NAME}
    COMPONENT deb
    EXCLUDE_FROM_ALL)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ${ODM_DEB_NAME})
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "mount helper for the ODM pseudo file system")
set(CPACK_PACKAGE_DESCRIPTION [[
mount.qeodmfs mounts the ODM pseudo file system, type qeodmfs, on /dev/odm.
mount(8) runs it for every mount of that type; it can also be run by hand.

It turns the suboptions cluster, nocluster, exclusive, cluster_bypass,
smartsync, nosmartsync and wait into the mode record that the file
system's kernel module reads, records the mount in /etc/mtab under the
traditional lock, runs the configuration tool when one is installed and
switches cluster operation on. Its messages carry identifiers and come in
English and German.

The kernel module itself is not part of this package.]])
set(CPACK_PACKAGE_CONTACT "qeodmfs maintainers <maintainers@qeodmfs.example>"
    CACHE STRING "Maintainer of the Debian package")
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${CPACK_PACKAGE_CONTACT})
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# Dependencies come from the binary, through dpkg-shlibdeps.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${PROJECT_SOURCE_DIR}/packaging/postinst ${PROJECT_SOURCE_DIR}/packaging/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
# A staging tree under DESTDIR, so that the catalogues' absolute path
# lands in the package and nowhere else.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
# The umask of whoever builds must not leak into the package.
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE
    GROUP_READ GROUP_EXECUTE
    WORLD_READ WORLD_EXECUTE)
# Every time in the package is the commit's (cmake/cpack_options.cmake).
set(CPACK_ODM_SOURCE_DIR ${PROJECT_SOURCE_DIR})
set(CPACK_PROJECT_CONFIG_FILE ${PROJECT_SOURCE_DIR}/cmake/cpack_options.cmake)
# The package must not list /opt, which is not ours to remove.
set(CPACK_POST_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/packaging/leave_opt.cmake)

# One package from the components a plain install does not combine this
# way: the packaged helper, its manual page, the catalogues and Debian's
# files. The plain helper component is left out.
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING ALL_COMPONENTS_IN_ONE)
set(CPACK_COMPONENTS_ALL deb man catalogues)

set(CPACK_SOURCE_GENERATOR "")
include(CPack)
