# Run after the documents are installed, with `directory` set to where they are. A link to the source code leads nowhere
# there, so its text stays alone.

cmake_path(ABSOLUTE_PATH directory BASE_DIRECTORY "${CMAKE_INSTALL_PREFIX}")
string(PREPEND directory "$ENV{DESTDIR}")

file(GLOB_RECURSE documents "${directory}/*.md")
foreach(document IN LISTS documents)
    file(READ "${document}" before)
    string(REGEX REPLACE "\\[([^]]*)\\]\\((\\.\\./)*(src|check|tests|bench|scripts|cmake)/[^)]*\\)" "\\1" after "${before}")
    if(NOT after STREQUAL before)
        file(WRITE "${document}" "${after}")
    endif()
endforeach()
