# `cpack -G DEB`: one Debian package with everything `cmake --install` puts in place,
# installed under /usr. Its Depends are computed from the binaries' shared libraries
# (dpkg-shlibdeps); the development packages of the dependencies are only recommended, as
# only builds against the package (find_package) need them.
set(CPACK_PACKAGE_NAME velmar-mcast)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "Velmar")
set(CPACK_PACKAGE_CONTACT "Velmar switch software <switch-sw@velmar.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "IP-multicast replication tables of a switch chip, a simulated chip and a reference agent")
set(CPACK_PACKAGE_DESCRIPTION
    "Keeps the five hardware tables of a switch chip's IP-multicast replication pipeline in \
software and in step with the chip, with the simulated chip's plug-ins, the mcast_agent \
reference agent, the headers and the CMake package configuration (find_package(VelmarMcast)).")
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "libabsl-dev, libfmt-dev, libboost-dev, nlohmann-json3-dev")
include(CPack)
