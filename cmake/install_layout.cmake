# Names the installation folders. Installed files refer to each other by relative paths, so that the tree can be moved.
#
#   runtime      the libraries
#   client       the program, its manual page and completions
#   development  the public header, pkg-config and CMake files, examples
#   contract     the headers of the platform contract, for another platform
include(GNUInstallDirs)
set(PACKAGE_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/screenrecord)
set(PACKAGE_PKGCONFIGDIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
# The host layer's libraries have no version, since they fit only the library of the same build. So they lie in a
# private folder. The build tree has all libraries in one folder.
set(PRIVATE_LIBDIR ${CMAKE_INSTALL_LIBDIR}/screenrecord)
# A separate folder, since some of these headers replace Android's of the same name.
set(CONTRACT_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/screenrecord-contract)
file(RELATIVE_PATH LIBDIR_FROM_BINDIR ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
file(RELATIVE_PATH PREFIX_FROM_PKGCONFIGDIR ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
