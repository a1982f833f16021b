#!/bin/bash
# The names libqel.so exports: what the public headers mark with QEL_API, and its defaults of the
# cross-chip channel calls. packaging/exports.txt keeps the list; the version script is made from it.
#
#   exports.sh --update          writes the list anew from the headers
#   exports.sh --check LIBRARY   the list, the headers and the built library agree, or says where not
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
list=$root/packaging/exports.txt
export LC_ALL=C

usage() {
    sed -n '2,7s/^# \{0,1\}//p' "${BASH_SOURCE[0]}" >&2
    exit 2
}

# What stands before the first "(", "[" or ";" of each marked declaration ends in its name.
declared() {
    {
        sed '/^#define/d' "$root"/include/qel/*.h | tr '\n' ' ' | grep -oE '\bQEL_API [^;([]+[;([]' |
            sed -E 's/ *[;([]$//; s/.*[ *]//'
        grep -oE '\bXCC_[a-z][A-Za-z]*\(' "$root/platform/include/xcc.h" | tr -d '('
    } | sort -u
}

exported_by() {
    ${NM:-nm} -D --defined-only --extern-only "$1" | awk '$2 != "A" { sub(/@.*/, "", $3); print $3 }' | sort -u
}

# differences WHAT NAMES: fails when NAMES are not the list.
differences() {
    local only_listed only_there
    only_listed=$(comm -23 "$list" - <<<"$2")
    only_there=$(comm -13 "$list" - <<<"$2")
    [ -z "$only_listed$only_there" ] && return 0
    [ -z "$only_listed" ] || printf 'in %s but not in %s:\n%s\n' "$list" "$1" "$only_listed" >&2
    [ -z "$only_there" ] || printf 'in %s but not in %s:\n%s\n' "$1" "$list" "$only_there" >&2
    return 1
}

case ${1:-} in
    --update)
        [ $# -eq 1 ] || usage
        declared >"$list.new"
        mv "$list.new" "$list"
        ;;
    --check)
        [ $# -eq 2 ] || usage
        [ -r "$2" ] || { echo "exports.sh: no library $2; build it first" >&2; exit 2; }
        status=0
        differences "the headers" "$(declared)" || status=1
        differences "$2" "$(exported_by "$2")" || status=1
        exit "$status"
        ;;
    *) usage ;;
esac
