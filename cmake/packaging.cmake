# Installation and the Debian package: the tools go to bin/, their manual pages to
# share/man/man1/. `cpack -G DEB` in the build directory makes the package.

# A tool that isn't built (yet) is left out; vdxdecrypt joins as soon as its target exists.
foreach(tool vdxindex vdx2dump vdxdecrypt)
  if(TARGET ${tool})
    install(TARGETS ${tool} RUNTIME DESTINATION bin)
  endif()
endforeach()
# Every page of man/, so that a new tool's page is installed with it.
file(GLOB manual_pages CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/man/*.1)
install(FILES ${manual_pages} DESTINATION share/man/man1)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vdxindex)
set(CPACK_PACKAGE_VERSION 3.1.6)  # the indexer's own version, as its banner says
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "MPEG-2 transport stream indexer for seeking and trick play")
# CPack puts the summary first and indents these lines below it.
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
    "vdxindex reads a recorded MPEG-2 transport stream in one pass, finds the frames
of its MPEG-2 or H.264 video at which play can start, rewrites them to play on
their own and writes a VDX2 or VDX index of them. vdx2dump shows such an index,
as text or JSON, finds the entry point for a play time, checks an index against
its recording and replays the indexed frames. vdxdecrypt lists the key list of
an encrypted copy and deciphers it with a recipient's private key.")
set(VDX_PACKAGE_MAINTAINER
    "vdxindex maintainers <maintainers@users.noreply.c-seed-748c8376.example>"
    CACHE STRING "Maintainer of the Debian package")
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${VDX_PACKAGE_MAINTAINER}")
set(CPACK_DEBIAN_PACKAGE_SECTION video)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_STRIP_FILES ON)
# The shared libraries the tools link, as dpkg-shlibdeps finds them, and libcrypto's package
# by name, which the encryption links.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libssl3")
include(CPack)
