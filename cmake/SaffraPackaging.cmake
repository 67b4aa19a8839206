# The pkg-config file and the Debian package (cpack -G DEB in the build folder).
#
# The package holds what `cmake --install` installs (the saffra command, the library, its headers
# and CMake package, saffra.pc) and, in the "service" component that a plain install leaves out,
# the systemd unit and its settings file under /etc.

# saffra.pc names the prefix it is installed under, which is known only when installing (cpack
# installs under /usr): the file is written then.
set(SAFFRA_PC_PREFIX "@SAFFRA_PC_PREFIX@")
configure_file(${PROJECT_SOURCE_DIR}/packaging/saffra.pc.in ${PROJECT_BINARY_DIR}/saffra.pc.in @ONLY)
install(CODE "
  set(SAFFRA_PC_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
  configure_file(\"${PROJECT_BINARY_DIR}/saffra.pc.in\" \"${PROJECT_BINARY_DIR}/pkgconfig/saffra.pc\" @ONLY)")
install(FILES ${PROJECT_BINARY_DIR}/pkgconfig/saffra.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

if(TARGET saffra)
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/saffra.service
          DESTINATION /lib/systemd/system COMPONENT service EXCLUDE_FROM_ALL)
  # Readable by root and the service's group only: it holds the API keys.
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/saffra.conf DESTINATION /etc/saffra
          PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ COMPONENT service EXCLUDE_FROM_ALL)
endif()

# cpack packages what the build made: it does not first build every target (tests and
# benchmarks are not in the package). Build before packaging, as before `cmake --install`.
if(NOT DEFINED CMAKE_SKIP_INSTALL_ALL_DEPENDENCY)
  set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON)
endif()

set(CPACK_PACKAGE_NAME saffra)
set(CPACK_PACKAGE_VENDOR "Saffra")
set(CPACK_PACKAGE_CONTACT "Saffra developers <saffra@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Visual regression testing: C++ library, command and service")
string(CONCAT CPACK_PACKAGE_DESCRIPTION
       "The saffra_images C++ client library (headers, CMake package and pkg-config file), the "
       "saffra command that checks PNG files from a shell, and the local service as a systemd "
       "unit.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
# Both the default component and the service one (a plain install leaves the latter out).
set(CPACK_INSTALL_CMAKE_PROJECTS
    "${PROJECT_BINARY_DIR};${PROJECT_NAME};Unspecified;/"
    "${PROJECT_BINARY_DIR};${PROJECT_NAME};service;/")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION devel)
# Run-time libraries come from the binaries (dpkg-shlibdeps); postinst makes the user with adduser.
# Building against the static library needs the development packages its CMake package and
# saffra.pc look for; a machine that only runs the service does without them.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "adduser")
string(CONCAT CPACK_DEBIAN_PACKAGE_RECOMMENDS
       "libcurl4-openssl-dev | libcurl-dev, nlohmann-json3-dev (>= 3.10), zlib1g-dev, uuid-dev, "
       "libspng-dev, libdeflate-dev, pkg-config")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${PROJECT_SOURCE_DIR}/packaging/debian/conffiles ${PROJECT_SOURCE_DIR}/packaging/debian/postinst
    ${PROJECT_SOURCE_DIR}/packaging/debian/prerm ${PROJECT_SOURCE_DIR}/packaging/debian/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
