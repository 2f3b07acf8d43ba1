# `cmake --install` and `cpack`.

install(TARGETS nandsmith RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}")
foreach(document README.md LICENSE)
    if(EXISTS "${PROJECT_SOURCE_DIR}/${document}")
        install(FILES "${document}" DESTINATION "${CMAKE_INSTALL_DOCDIR}")
    endif()
endforeach()

set(CPACK_GENERATOR TGZ DEB)
set(CPACK_PACKAGE_VENDOR "nandsmith developers")
set(CPACK_PACKAGE_CONTACT "nandsmith developers")
set(CPACK_STRIP_FILES ON)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
# dpkg-shlibdeps finds the libraries that a program needs. It is in dpkg-dev, which may be missing.
find_program(DPKG_SHLIBDEPS dpkg-shlibdeps)
mark_as_advanced(DPKG_SHLIBDEPS)
if(DPKG_SHLIBDEPS)
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
endif()

include(CPack)
