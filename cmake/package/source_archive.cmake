# Run by cpack in place of a generator: the source archive is what git has at the last commit.

set(archive "${CPACK_PACKAGE_DIRECTORY}/${CPACK_PACKAGE_FILE_NAME}.tar.gz")
set(git git -C "${NANDSMITH_SOURCE_DIR}")

if(NOT EXISTS "${NANDSMITH_SOURCE_DIR}/.git")
    message(FATAL_ERROR "A source archive is made from a clone of the repository, and this is not one")
endif()
execute_process(
    COMMAND ${git} status --porcelain --untracked-files=no OUTPUT_VARIABLE changes COMMAND_ERROR_IS_FATAL ANY
)
if(NOT changes STREQUAL "")
    message(WARNING "Changes that are not committed are not in the source archive")
endif()
execute_process(
    COMMAND ${git} archive --format=tar.gz "--prefix=${CPACK_PACKAGE_FILE_NAME}/" "--output=${archive}" HEAD
    COMMAND_ERROR_IS_FATAL ANY
)
set(CPACK_EXTERNAL_BUILT_PACKAGES "${archive}")
