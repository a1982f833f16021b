#!/usr/bin/env bash
# demo.sh - the library at work on two virtual boards. Fails when any of it does.
set -euo pipefail
cd "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")/.."
readonly programs=build/release/bin
failed=()

# show BOARD WHAT: the tour on one board, in the role of the camera's main application.
show() {
    local board=$1
    printf '\n== Board "%s": %s\n\n' "$board" "$2"
    OSA_LOG=info "$programs/qelboard" run "$board" --as vesta -- "$programs/qel-tour" || failed+=("$board")
}

show dome "a pan-tilt dome with one chip"
show twin "two chips, a call goes from one to the other and back"

printf '\n== Summary\n\n'
if [[ ${#failed[@]} -gt 0 ]]; then
    echo "It did not work on: ${failed[*]}. The lines above say what failed."
    exit 1
fi
cat <<'TEXT'
It all worked. libqel.so was loaded on the virtual boards "dome" and "twin", told which boards they
are, and on "twin" a call was forwarded to the second chip and answered from there.

Next: build/release/bin/qelboard run dome --as vesta -- build/release/bin/qelctl info
      README.md has a tour of ten minutes.
TEXT
