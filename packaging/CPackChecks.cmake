# Read by cpack before it packs. The program looks for its sounds under the prefix it was configured with, so a
# package must install under that same prefix, and Debian's is /usr.
if(CPACK_GENERATOR STREQUAL "DEB" AND NOT CPACK_PACKAGING_INSTALL_PREFIX STREQUAL "/usr")
  message(FATAL_ERROR "Debian packages need the /usr prefix, this build has '${CPACK_PACKAGING_INSTALL_PREFIX}': "
                      "configure with -DCMAKE_INSTALL_PREFIX=/usr (make package does)")
endif()
