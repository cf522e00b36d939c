# Installation and the Debian package.
#
# A plain `cmake --install` puts down the helper and its manual page and
# nothing else. The package adds only what Debian requires of every
# package, the copyright file and the changelog, through a component that a
# plain install leaves out.

install(TARGETS mount.qeodmfs
    RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR}
    COMPONENT helper)

set(ODM_DEB_NAME qeodmfs-mount)
set(ODM_DEB_DOCDIR ${CMAKE_INSTALL_DATAROOTDIR}/doc/${ODM_DEB_NAME})

set(changelog_gz ${PROJECT_BINARY_DIR}/packaging/changelog.gz)
add_custom_command(OUTPUT ${changelog_gz}
    COMMAND ${CMAKE_COMMAND} -E copy ${PROJECT_SOURCE_DIR}/packaging/changelog
            ${PROJECT_BINARY_DIR}/packaging/changelog
    COMMAND ${GZIP} -9nf ${PROJECT_BINARY_DIR}/packaging/changelog
    DEPENDS ${PROJECT_SOURCE_DIR}/packaging/changelog
    VERBATIM)
add_custom_target(odm_deb_docs ALL DEPENDS ${changelog_gz})

install(FILES ${PROJECT_SOURCE_DIR}/packaging/copyright ${changelog_gz}
    DESTINATION ${ODM_DEB_DOCDIR}
    COMPONENT deb_docs
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
switches cluster operation on. Its messages carry identifiers and can be
translated through XPG message catalogues.

The kernel module itself is not part of this package.]])
set(CPACK_PACKAGE_CONTACT "qeodmfs maintainers <maintainers@qeodmfs.example>"
    CACHE STRING "Maintainer of the Debian package")
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${CPACK_PACKAGE_CONTACT})
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# Dependencies come from the binary, through dpkg-shlibdeps.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
# The umask of whoever builds must not leak into the package.
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE
    GROUP_READ GROUP_EXECUTE
    WORLD_READ WORLD_EXECUTE)

# One package from two components; anything installed without a component
# is kept out of it.
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING ALL_COMPONENTS_IN_ONE)
set(CPACK_COMPONENTS_ALL helper deb_docs)

set(CPACK_SOURCE_GENERATOR "")
include(CPack)
