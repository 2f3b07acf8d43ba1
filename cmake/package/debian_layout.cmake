# Run by cpack before it packs. For a .deb it brings the installed tree into the form of Debian: compressed manual pages,
# a changelog of its own form, and the directory of zsh for packages.

if(NOT CPACK_GENERATOR STREQUAL DEB)
    return()
endif()

set(share "${CPACK_TEMPORARY_DIRECTORY}/usr/share")

function(compress_file file)
    # -n leaves the time and the name out, which differ from build to build.
    execute_process(COMMAND gzip -9n "${file}" COMMAND_ERROR_IS_FATAL ANY)
    file(CHMOD "${file}.gz" PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
endfunction()

file(GLOB pages "${share}/man/man1/*.1")
foreach(page IN LISTS pages)
    compress_file("${page}")
endforeach()

# SOURCE_DATE_EPOCH decides the time.
string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
set(changelog "${share}/doc/nandsmith/changelog")
file(
    WRITE "${changelog}"
    "nandsmith (${CPACK_PACKAGE_VERSION}) unstable; urgency=medium\n\n"
    "  * The changes are in CHANGELOG.md beside this file.\n\n"
    " -- ${CPACK_PACKAGE_CONTACT}  ${date}\n"
)
compress_file("${changelog}")

if(EXISTS "${share}/zsh/site-functions")
    file(RENAME "${share}/zsh/site-functions" "${share}/zsh/vendor-completions")
endif()
