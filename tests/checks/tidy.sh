#!/usr/bin/env bash
# tidy.sh BUILD - clang, its thread-safety analysis and clang-tidy over our own sources, with the compile
# commands of BUILD (configured for clang, it need not be built).
#
# A source that was found clean is not looked at again until it, one of our headers that it includes,
# its compile command or a .clang-tidy changes.
set -euo pipefail
build=$(realpath "$1")
cd "$(dirname "$0")/../.."
source tests/checks/inclusions.sh
top=$PWD
readonly clean=$build/tidy
mkdir -p "$clean"

# "SOURCE HEADER..." for every source of BUILD, with all files of ours that it reaches. Sources that are
# compiled as one unit are looked at as that unit, whose list of them the build wrote.
inputs() {
    sed -n 's/^ *"file": "\(.*\)".*/\1/p' "$build/compile_commands.json" | sort -u | awk -v top="$top/" '
        function reach(file,    list, count, i) {
            if (file in seen) return
            seen[file] = 1
            line = line " " file
            count = split(includes[file], list, " ")
            for (i = 1; i <= count; ++i) reach(list[i])
        }
        function reach_unit(unit,    text) {
            line = " " substr(unit, length(top) + 1)
            while ((getline text <unit) > 0)
                if (text ~ /^#include "/) reach(substr(text, length(top) + 11, length(text) - length(top) - 11))
        }
        NR == FNR { includes[$1] = includes[$1] " " $2; next }
        index($0, top) != 1 || (index($0, top "build/") == 1 && $0 !~ /\/Unity\//) { next }
        {
            split("", seen)
            line = ""
            if ($0 ~ /\/Unity\//) reach_unit($0)
            else reach(substr($0, length(top) + 1))
            print substr(line, 2)
        }' <(inclusions) -
}

check_one() {
    local source=$1 mark
    mark=$clean/$({
        cat .clang-tidy tests/.clang-tidy "$@"
        grep -F -B2 "\"file\": \"$top/$source\"" "$build/compile_commands.json"
    } | sha256sum | cut -c1-64)
    [[ ! -e $mark ]] || return 0
    local -a options=()
    # A unit is made of includes of sources: what looks odd elsewhere.
    [[ $source != */Unity/* ]] || options=(--checks=-bugprone-suspicious-include)
    if clang-tidy-14 --quiet "${options[@]}" -p "$build" "$source" 2>"$mark.err"; then
        rm -f "$mark.err"
        touch "$mark"
    else
        grep -v 'warnings\? generated' "$mark.err" >&2 || true
        rm -f "$mark.err"
        return 1
    fi
}
export -f check_one
export build clean top

# shellcheck disable=SC2016  # expands in the shell that xargs starts
inputs | xargs -d '\n' -n 1 -P "$(nproc)" bash -c 'read -r -a files <<<"$1"; check_one "${files[@]}"' _
