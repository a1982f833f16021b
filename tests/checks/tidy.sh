#!/usr/bin/env bash
# tidy.sh BUILD - clang-tidy over our own sources, with the commands of BUILD (made by clang).
#
# A source that was found clean is not looked at again until it, one of our headers that it includes,
# its compile command or .clang-tidy changes.
set -euo pipefail
build=$(realpath "$1")
cd "$(dirname "$0")/../.."
top=$PWD
readonly clean=$build/tidy
mkdir -p "$clean"

# "SOURCE FILE..." for every object: what ninja noted down when it compiled it, our own files only.
inputs() {
    ninja -C "$build" -t deps | awk -v top="$top/" -v build="$build/" '
        function flush() { if (line != "") print line; line = "" }
        /^[^ ]/ { flush(); next }
        NF == 1 {
            file = $1
            if (file !~ /^\//) file = build file
            while (sub(/[^\/]+\/\.\.\//, "", file)) { }
            if (index(file, top) == 1 && index(file, build) != 1) line = line (line == "" ? "" : " ") file
        }
        END { flush() }'
}

check_one() {
    local source=$1 mark
    mark=$clean/$({ cat "$top/.clang-tidy" "$top/tests/.clang-tidy" "$@"; grep -F -B2 -A2 "\"file\": \"$source\"" "$build/compile_commands.json"; } | sha256sum | cut -c1-64)
    [[ ! -e $mark ]] || return 0
    if clang-tidy-14 --quiet -p "$build" "$source" 2>"$mark.err"; then
        rm "$mark.err"
        touch "$mark"
    else
        grep -v 'warnings generated' "$mark.err" >&2 || true
        rm "$mark.err"
        return 1
    fi
}
export -f check_one
export build clean top

# shellcheck disable=SC2016  # expands in the shell that xargs starts
inputs | sort -u | xargs -d '\n' -n 1 -P "$(nproc)" bash -c 'read -r -a files <<<"$1"; check_one "${files[@]}"' _
