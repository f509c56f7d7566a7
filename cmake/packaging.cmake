# Packages made with CPack (scripts/package): a Debian package on Linux, a zip on Windows. Both
# hold only the `kalvoren` install component: the command line, the library and its fronts.

if(NOT WIN32)
  install(FILES ${CMAKE_SOURCE_DIR}/README.md DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/kalvoren
    COMPONENT kalvoren)
else()
  install(FILES ${CMAKE_SOURCE_DIR}/cmake/README-windows.txt DESTINATION . RENAME README.txt
    COMPONENT kalvoren)
endif()

set(CPACK_PACKAGE_NAME kalvoren)
set(CPACK_PACKAGE_VENDOR "Kalvoren")
set(CPACK_PACKAGE_CONTACT "Kalvoren developers <kalvoren@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "records the EGL and OpenGL ES calls of a program into a trace")
set(CPACK_PACKAGE_DESCRIPTION
  "kalvoren record runs a program with front libraries in place of its EGL and OpenGL ES drivers:\n"
  "every call is forwarded to the real driver and written, with the data it reads, into a trace\n"
  "that kalvoren info, dump and replay read back. The front libraries live in a private folder and\n"
  "are loaded only by programs started through kalvoren record.")
# Only what users run: the tests and third-party sources built along install nothing of theirs.
set(CPACK_INSTALL_CMAKE_PROJECTS "${CMAKE_BINARY_DIR};Kalvoren;kalvoren;/")
set(CPACK_STRIP_FILES ON)

if(WIN32)
  set(CPACK_GENERATOR ZIP)
  set(CPACK_PACKAGE_FILE_NAME kalvoren-${PROJECT_VERSION}-windows-x64)
else()
  set(CPACK_GENERATOR DEB)
  set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
  set(CPACK_DEBIAN_PACKAGE_SECTION devel)
  # The Debian packages of the libraries it links (zlib, jsoncpp, libpng, the C++ runtime), as
  # dpkg-shlibdeps finds them in the built files.
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  # The fronts link the library next to them, which no other package provides.
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR}/lib)
  # Recording needs a real EGL and OpenGL ES driver; the library opens it when a program starts.
  set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "libegl1, libgles2")
endif()

include(CPack)
