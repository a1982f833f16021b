#!/usr/bin/env bash
# run-docs.sh FILE... - runs the commands that the documentation shows.
#
# A block of ```sh after a line "<!-- run -->" is run with bash -e in an empty folder of its file (kept
# from block to block), with the programs of the release build on PATH, and has to succeed. When the
# line is "<!-- run: output -->", the next block of ```text is what it prints; there "..." stands for
# anything, within a line or as a line of its own for any lines.
set -euo pipefail
top=$PWD
export PATH=$top/build/release/bin:$PATH QEL_SOURCE=$top
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

# blocks FILE FOLDER: writes FOLDER/LINE.sh for each block to run, and LINE.out for what it prints.
blocks() {
    awk -v folder="$2" '
        /^<!-- run(: output)? -->$/ { wanted = 1; with_output = /output/; next }
        /^```/ && block != "" { close(block); block = ""; next }
        /^```sh$/ && wanted { block = sprintf("%s/%05d.sh", folder, NR); script = block; wanted = 0; printf "" >block; next }
        /^```text$/ && with_output && script != "" {
            block = script; sub(/sh$/, "out", block); with_output = 0; printf "" >block; next
        }
        block != "" { print >block; next }
        /^```/ { wanted = 0 }' "$1"
}

# matches EXPECTED ACTUAL: compares with "..." for anything.
matches() {
    local pattern
    pattern=$(<"$1")
    pattern=$(printf '%s' "$pattern" | sed 's/[][\\*?]/\\&/g; s/\.\.\./*/g')
    # shellcheck disable=SC2053  # a pattern on purpose
    [[ $(<"$2") == $pattern ]]
}

failed=0 count=0
for file in "$@"; do
    [[ -f $file ]] || continue
    found=$scratch/blocks work=$scratch/work
    rm -rf "$found" "$work"
    mkdir -p "$found" "$work"
    blocks "$file" "$found"
    for script in "$found"/*.sh; do
        [[ -f $script ]] || continue
        count=$((count + 1))
        line=$((10#$(basename "$script" .sh)))
        printed=$scratch/printed
        if ! (cd "$work" && timeout 300 bash -euo pipefail "$script") >"$printed" 2>&1 </dev/null; then
            failed=1
            echo "$file:$line: this fails:"
            sed 's/^/    /' "$script" "$printed"
        elif [[ -f ${script%.sh}.out ]] && ! matches "${script%.sh}.out" "$printed"; then
            failed=1
            echo "$file:$line: what it prints is not what the documentation shows:"
            diff "${script%.sh}.out" "$printed" | sed 's/^/    /' || true
        fi
    done
done
echo "$count blocks of commands"
exit "$failed"
