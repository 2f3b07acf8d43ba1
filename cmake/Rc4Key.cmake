# The key that scrambles the boot block. A device boots only from images made with the key of its boot ROM, so the
# configuration prints which key is used.

set(NANDSMITH_RC4_KEY "" CACHE STRING "RC4 key of the boot block, 32 hex digits; empty: development key")

if("${NANDSMITH_RC4_KEY}" STREQUAL "")
    message(STATUS "RC4 key: built-in development key \"nandsmith-devkey\"")
    message(STATUS "RC4 key: images for a real device need the key of its boot ROM, see NANDSMITH_RC4_KEY")
else()
    string(LENGTH "${NANDSMITH_RC4_KEY}" key_length)
    if(NOT key_length EQUAL 32 OR NOT "${NANDSMITH_RC4_KEY}" MATCHES "^[0-9A-Fa-f]+$")
        message(
            FATAL_ERROR
            "NANDSMITH_RC4_KEY must be exactly 32 hexadecimal digits (16 bytes), or empty for the "
            "development key; it is \"${NANDSMITH_RC4_KEY}\" (${key_length} characters)"
        )
    endif()
    message(STATUS "RC4 key: ${NANDSMITH_RC4_KEY}, from NANDSMITH_RC4_KEY")
    message(STATUS "RC4 key: images for a real device need the key of its boot ROM, be sure this is it")
endif()

# PUBLIC, because tests that expect scrambled bytes need the key too.
function(nandsmith_define_rc4_key target)
    if(NOT "${NANDSMITH_RC4_KEY}" STREQUAL "")
        target_compile_definitions(${target} PUBLIC "NANDSMITH_RC4_KEY=\"${NANDSMITH_RC4_KEY}\"")
    endif()
endfunction()
