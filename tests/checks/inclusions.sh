# shellcheck shell=bash
# inclusions.sh - who includes whom among our own files. Sourced, with the top of the tree as folder.

# Every inclusion, as "FILE HEADER" with paths from the top.
inclusions() {
    local -a files
    mapfile -t files < <(find . -mindepth 1 \( -path ./build -o -name '.*' \) -prune -o -type f -name '*.cpp' -printf '%P\n' \
        -o -type f -name '*.[ch]' -printf '%P\n')
    grep -HE '^ *# *include *["<]' -- "${files[@]}" | awk -F '[:"<>]' -v files="${files[*]}" '
        BEGIN { split(files, list, " "); for (i in list) ours[list[i]] = 1 }
        {
            beside = $1
            sub(/[^\/]*$/, "", beside)
            split("|include/|platform/include/|" beside, folders, "|")
            for (i = 1; i <= 4; ++i) if (folders[i] $3 in ours) { print $1, folders[i] $3; next }
        }'
}
