# Read by cpack at its start.

# dpkg-shlibdeps, which looks for the packages of the shared libraries, goes by this variable (dpkg-architecture(1)).
if(CPACK_DEBIAN_PACKAGE_ARCHITECTURE)
  set(ENV{DEB_HOST_ARCH} ${CPACK_DEBIAN_PACKAGE_ARCHITECTURE})
endif()
