# `cpack -G DEB` (make package): a Debian package of what `cmake --install`
# installs, under /usr. dpkg-shlibdeps reads its dependencies (libplist, the
# C++ runtime, the C library) off the binaries themselves; CoreUtils, which
# the package carries in its private folder, is found there through the
# binaries' run paths and asks for no other package.
set(CPACK_PACKAGE_NAME implvm)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "The ImplVirtualMachine developers")
set(CPACK_PACKAGE_CONTACT "The ImplVirtualMachine developers")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "inventory and drive the VMs of a Mac's hypervisors (implvm, libImplVirtualMachine)")
set(CPACK_PACKAGE_DESCRIPTION
    "implvm loads libImplVirtualMachine, a plug-in module of Mac management hosts, and \
calls it: it inventories the VMs of Parallels Desktop, VMware Fusion and VirtualBox, \
starts, stops, suspends, pauses and resumes them, handles VMware snapshots and tells \
whether the Mac is itself a VM; with --root it works on a simulated Mac's folder. \
The package also carries the module's header and its support library CoreUtils \
with its KALDO headers, a CMake package and a pkg-config file for building hosts.")
set(CPACK_RESOURCE_FILE_LICENSE ${CMAKE_SOURCE_DIR}/LICENSE)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_GENERATOR DEB)
# Debug information stays in the build; the package is what users run.
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
include(CPack)
