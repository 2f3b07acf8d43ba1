# The key that scrambles the boot block. A device boots only from images made with the key of its boot ROM, so the
# configuration says which kind of key is used. It never prints the key. NANDSMITH_RC4_KEY stays in CMakeCache.txt, what
# is in the file of NANDSMITH_RC4_KEY_FILE does not.

set(NANDSMITH_RC4_KEY "" CACHE STRING "RC4 key of the boot block, 32 hex digits; empty: development key")
set(NANDSMITH_RC4_KEY_FILE "" CACHE FILEPATH "File with the RC4 key of the boot block, in place of NANDSMITH_RC4_KEY")

# Stops unless KEY is one. SOURCE says where it came from.
function(nandsmith_require_rc4_key key source)
    string(LENGTH "${key}" length)
    if(NOT length EQUAL 32 OR NOT key MATCHES "^[0-9A-Fa-f]+$")
        message(
            FATAL_ERROR
            "The RC4 key in ${source} must be exactly 32 hexadecimal digits (16 bytes). What is there has ${length} "
            "characters and is not shown."
        )
    endif()
endfunction()

# Reads the key from a file; white space around it is left out. A change of the file configures the build again.
function(nandsmith_read_rc4_key file result)
    if(NOT EXISTS "${file}" OR IS_DIRECTORY "${file}")
        message(FATAL_ERROR "NANDSMITH_RC4_KEY_FILE is not a file: ${file}")
    endif()
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${file}")
    file(READ "${file}" key)
    string(STRIP "${key}" key)
    nandsmith_require_rc4_key("${key}" "${file}")
    set(${result} "${key}" PARENT_SCOPE)
endfunction()

set(rc4_key "${NANDSMITH_RC4_KEY}")
if(NOT NANDSMITH_RC4_KEY STREQUAL "" AND NOT NANDSMITH_RC4_KEY_FILE STREQUAL "")
    message(FATAL_ERROR "Both NANDSMITH_RC4_KEY and NANDSMITH_RC4_KEY_FILE are set; only one of them may be")
elseif(NOT NANDSMITH_RC4_KEY_FILE STREQUAL "")
    nandsmith_read_rc4_key("${NANDSMITH_RC4_KEY_FILE}" rc4_key)
elseif(NOT NANDSMITH_RC4_KEY STREQUAL "")
    nandsmith_require_rc4_key("${NANDSMITH_RC4_KEY}" NANDSMITH_RC4_KEY)
endif()

string(TOLOWER "${rc4_key}" rc4_key)
string(HEX "nandsmith-devkey" development_key)
if(rc4_key STREQUAL "" OR rc4_key STREQUAL development_key)
    set(NANDSMITH_KEY_KIND development)
    message(STATUS "RC4 key: development")
    message(STATUS "RC4 key: images for a real device need the key of its boot ROM, see NANDSMITH_RC4_KEY_FILE")
else()
    set(NANDSMITH_KEY_KIND own)
    message(STATUS "RC4 key: own")
    message(STATUS "RC4 key: images for a real device need the key of its boot ROM, be sure this is it")
endif()

# nandsmith_define_rc4_key(SOURCE): gives the key to the one source that needs it. On a command line the key would be
# in compile_commands.json and in the list of processes, so it is in a header that only its owner can read.
function(nandsmith_define_rc4_key source)
    if(NOT EXISTS "${CMAKE_CURRENT_SOURCE_DIR}/${source}")
        message(FATAL_ERROR "The source that holds the RC4 key is missing: ${source}")
    endif()
    set(directory "${PROJECT_BINARY_DIR}/rc4_key")
    set(header "${directory}/own_rc4_key.h")
    if(NANDSMITH_KEY_KIND STREQUAL development)
        file(REMOVE "${header}")
        return()
    endif()

    file(MAKE_DIRECTORY "${directory}")
    file(CHMOD "${directory}" PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)
    file(
        GENERATE OUTPUT "${header}"
        CONTENT "#define NANDSMITH_RC4_KEY \"${rc4_key}\"\n"
        FILE_PERMISSIONS OWNER_READ OWNER_WRITE
    )
    set_source_files_properties("${source}" PROPERTIES COMPILE_OPTIONS "-include;${header}" OBJECT_DEPENDS "${header}")
endfunction()
