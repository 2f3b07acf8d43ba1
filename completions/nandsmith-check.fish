# Completion of nandsmith-check for fish.

# What was typed of the value of an option.
function __nandsmith_check_value
    string replace -r -- '^--[^=]*=' '' (commandline -ct)
end

# The parts that have a name in every firmware, after those of the list that was typed already.
function __nandsmith_check_parts
    set -l typed (string replace -r -- '[^,]*$' '' (__nandsmith_check_value))
    printf '%s\n' "$typed"{idblock,gpt,parameter,gaps,rest}
end

complete -c nandsmith-check -s i -l in -r -F -d 'firmware update image'
complete -c nandsmith-check -s o -l out -x -a '(__fish_complete_directories (__nandsmith_check_value))' -d 'output directory'
complete -c nandsmith-check -s t -l flash_type -x -a 'emmc spinor spinand slc' -d 'storage type'
complete -c nandsmith-check -s b -l block_size -x -d 'erase block in KB'
complete -c nandsmith-check -s p -l page_size -x -d 'page in KB, without the spare area'
complete -c nandsmith-check -s s -l oob_size -x -d 'spare area of a page in bytes'
complete -c nandsmith-check -s 2 -l 2k_data -d '2 KB of data in a page'
complete -c nandsmith-check -l page_list -d 'list indexes count 0, 1, 2'
complete -c nandsmith-check -s v -l version -d 'print the version'
complete -c nandsmith-check -s h -l help -d 'print the help text'
complete -c nandsmith-check -l only -x -a '(__nandsmith_check_parts)' -d 'these parts alone'
complete -c nandsmith-check -l ignore -x -a '(__nandsmith_check_parts)' -d 'not these parts'
complete -c nandsmith-check -l strict -d 'extra files, a rest and warnings are differences'
complete -c nandsmith-check -l no-second-opinion -d 'compare only'
complete -c nandsmith-check -l at -x -d 'NAME=BLOCK: where a file begins'
complete -c nandsmith-check -l layout -r -F -d 'table of windows'
complete -c nandsmith-check -l bad-blocks -x -d 'blocks that were passed over'
complete -c nandsmith-check -l max-bad-blocks -x -d 'most that are passed over in a file'
complete -c nandsmith-check -l max-flips -x -d 'most flipped bits of a unit'
complete -c nandsmith-check -l warn-flips -x -d 'more flipped bits give a warning'
complete -c nandsmith-check -l dump-spare -x -d 'spare area in the dump of a spinand'
complete -c nandsmith-check -l skip -x -d 'header of the dump in bytes'
complete -c nandsmith-check -l ecc -d 'what the parity says, without a firmware'
complete -c nandsmith-check -l extract -x -a '(__fish_complete_directories (__nandsmith_check_value))' \
    -d 'write the plain data into a directory'
complete -c nandsmith-check -l force -d 'replace existing files'
complete -c nandsmith-check -l holes -f -a 'auto always never' -d 'holes in place of zeros'
complete -c nandsmith-check -l manifest -x -a 'csv json sums' -d 'list of the files with sizes and checksums'
complete -c nandsmith-check -l max-differences -x -d 'places listed for each part, 0 for all'
complete -c nandsmith-check -l json -d 'one JSON document'
complete -c nandsmith-check -l verbose -d 'every part and every place'
complete -c nandsmith-check -s q -l quiet -d 'the exit status alone'
complete -c nandsmith-check -l color -f -a 'auto always never' -d colours
complete -c nandsmith-check -l progress -f -a 'auto always never' -d 'a line on standard error'
complete -c nandsmith-check -l list -d 'what is in the firmware'
