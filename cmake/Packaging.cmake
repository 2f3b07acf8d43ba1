# `cmake --install` and `cpack`. The install rules follow the GNU directories. What Debian has in another place or form
# is changed by cmake/package/debian_layout.cmake when a .deb is made.

set(package_directory "${PROJECT_SOURCE_DIR}/cmake/package")

# ---- what is installed ----

set(installed_programs nandsmith)
if(TARGET nandsmith-check)
    list(APPEND installed_programs nandsmith-check)
endif()
install(TARGETS ${installed_programs} RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}")

# The makers of samples stand for a firmware and a chip in the examples of the documents.
install(
    TARGETS make_sample_firmware make_sample_dump
    RUNTIME DESTINATION "${CMAKE_INSTALL_LIBEXECDIR}/nandsmith"
)

# nandsmith_install_text(<file> DESTINATION <directory> [NAME <name>]): installs a file that the source tree has.
function(nandsmith_install_text file)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "DESTINATION;NAME" "")
    if(NOT EXISTS "${PROJECT_SOURCE_DIR}/${file}")
        return()
    endif()
    if(NOT arg_NAME)
        cmake_path(GET file FILENAME arg_NAME)
    endif()
    install(FILES "${PROJECT_SOURCE_DIR}/${file}" DESTINATION "${arg_DESTINATION}" RENAME "${arg_NAME}")
endfunction()

set(completions_directory "${CMAKE_INSTALL_DATADIR}/bash-completion/completions")
foreach(program IN LISTS installed_programs)
    nandsmith_install_text(man/${program}.1 DESTINATION "${CMAKE_INSTALL_MANDIR}/man1")
    nandsmith_install_text(completions/nandsmith.bash DESTINATION "${completions_directory}" NAME ${program})
    nandsmith_install_text(
        completions/${program}.fish DESTINATION "${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d"
    )
endforeach()
nandsmith_install_text(completions/_nandsmith DESTINATION "${CMAKE_INSTALL_DATADIR}/zsh/site-functions")

# The links between these documents stay right, because they lie as in the source tree.
foreach(document README.md CHANGELOG.md CONTRIBUTING.md SECURITY.md LICENSE)
    nandsmith_install_text(${document} DESTINATION "${CMAKE_INSTALL_DOCDIR}")
endforeach()
install(DIRECTORY "${PROJECT_SOURCE_DIR}/docs" DESTINATION "${CMAKE_INSTALL_DOCDIR}")
install(CODE "set(directory \"${CMAKE_INSTALL_DOCDIR}\")")
install(SCRIPT "${package_directory}/unlink_sources.cmake")
install(PROGRAMS "${PROJECT_SOURCE_DIR}/examples/convert-and-check" DESTINATION "${CMAKE_INSTALL_DOCDIR}/examples")

if(EXISTS "${PROJECT_SOURCE_DIR}/LICENSE")
    set(licence "The licence is in the file LICENSE beside this one.")
else()
    set(licence "The owner has not decided on a licence yet.")
endif()
configure_file("${package_directory}/copyright.in" "${PROJECT_BINARY_DIR}/package/copyright" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/package/copyright" DESTINATION "${CMAKE_INSTALL_DOCDIR}")

# ---- every package ----

# A .deb is made where its tools are at home. `cpack -G` asks for others.
set(CPACK_GENERATOR TGZ)
find_program(DPKG dpkg)
mark_as_advanced(DPKG)
if(DPKG)
    list(APPEND CPACK_GENERATOR DEB)
endif()

set(CPACK_PACKAGE_FILE_NAME "${PROJECT_NAME}-${PROJECT_VERSION}-linux-${CMAKE_SYSTEM_PROCESSOR}")
set(CPACK_PACKAGE_VENDOR "nandsmith developers")
set(CPACK_PACKAGE_CONTACT "nandsmith developers <nandsmith@nandsmith.invalid>"
    CACHE STRING "Maintainer of the packages, with an address of mail"
)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "converter of packed firmware update images into flash images")
set(CPACK_STRIP_FILES ON)
set(CPACK_PRE_BUILD_SCRIPTS "${package_directory}/debian_layout.cmake" "${package_directory}/any_umask.cmake")
set(CPACK_POST_BUILD_SCRIPTS "${package_directory}/any_umask_deb.cmake")

set(NANDSMITH_SOURCE_DIR "${PROJECT_SOURCE_DIR}")
configure_file("${package_directory}/cpack_options.cmake.in" "${PROJECT_BINARY_DIR}/package/cpack_options.cmake" @ONLY)
set(CPACK_PROJECT_CONFIG_FILE "${PROJECT_BINARY_DIR}/package/cpack_options.cmake")

# ---- the .deb ----

set(description
    "nandsmith takes one packed firmware update image, which holds a boot loader
and partition images, and makes the raw images that a flash programmer writes
onto blank eMMC, SPI NOR, SPI NAND or SLC NAND."
)
if(TARGET nandsmith-check)
    string(APPEND description "

nandsmith-check tells whether a directory, an image, a block device or the
dump of a chip is what a firmware gives, corrects flipped bits by their parity
and gives the data of a dump back.")
endif()
if(NANDSMITH_KEY_KIND STREQUAL development)
    string(APPEND description "

This build scrambles the boot block with the development key, which no device
has. Images for a real device need a build with the key of its boot ROM.")
else()
    string(APPEND description "

This build scrambles the boot block with the key of a boot ROM. The programs
contain that key: whoever gets the package can read it.")
endif()

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "${description}")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "android-sdk-libsparse-utils, dosfstools, e2fsprogs, mtools")

# ---- the sources ----

# What git has, and nothing else: a build tree may hold the key of a boot ROM.
set(CPACK_SOURCE_GENERATOR External)
set(CPACK_SOURCE_PACKAGE_FILE_NAME "${PROJECT_NAME}-${PROJECT_VERSION}")
set(CPACK_EXTERNAL_PACKAGE_SCRIPT "${package_directory}/source_archive.cmake")

include(CPack)
