# Completion of nandsmith for fish.

# What was typed of the value of an option.
function __nandsmith_value
    string replace -r -- '^--[^=]*=' '' (commandline -ct)
end

complete -c nandsmith -f
complete -c nandsmith -s i -l in -r -F -d 'firmware update image'
complete -c nandsmith -s o -l out -x -a '(__fish_complete_directories (__nandsmith_value))' -d 'output directory'
complete -c nandsmith -s t -l flash_type -x -a 'emmc spinor spinand slc' -d 'storage type'
complete -c nandsmith -s b -l block_size -x -d 'erase block in KB'
complete -c nandsmith -s p -l page_size -x -d 'page in KB, without the spare area'
complete -c nandsmith -s s -l oob_size -x -d 'spare area of a page in bytes'
complete -c nandsmith -s 2 -l 2k_data -d '2 KB of data in a page'
complete -c nandsmith -l page_list -d 'list indexes count 0, 1, 2'
complete -c nandsmith -s v -l version -d 'print the version'
complete -c nandsmith -s h -l help -d 'print the help text'
