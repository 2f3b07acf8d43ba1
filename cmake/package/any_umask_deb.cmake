# Run by cpack after it has packed. The three members of a .deb have modes too, which the umask decides. They are put
# together again with fixed modes and times.

if(NOT CPACK_GENERATOR STREQUAL DEB)
    return()
endif()

set(work "${CPACK_TEMPORARY_DIRECTORY}.members")
foreach(package IN LISTS CPACK_PACKAGE_FILES)
    file(REMOVE_RECURSE "${work}")
    file(MAKE_DIRECTORY "${work}")
    execute_process(COMMAND ar x "${package}" WORKING_DIRECTORY "${work}" COMMAND_ERROR_IS_FATAL ANY)
    file(REMOVE "${package}")
    execute_process(
        COMMAND ar qcSD "${package}" debian-binary control.tar.gz data.tar.gz
        WORKING_DIRECTORY "${work}" COMMAND_ERROR_IS_FATAL ANY
    )
endforeach()
file(REMOVE_RECURSE "${work}")
