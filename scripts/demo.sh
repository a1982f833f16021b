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

# A question and its answer at the speed of the wire, and what the trace of the board has of them.
show_line() {
    local trace
    trace=$(mktemp)
    printf '\n== Board "dome": a frame on an RS-485 line\n\n'
    # shellcheck disable=SC2016  # expands in the shell on the board
    PATH=$PWD/$programs:$PATH qelboard run dome --as vesta --trace "$trace" -- sh -c '
        qelboard poke /dev/ttyS2 timed 1 >/dev/null && qel-rs485 2 "are you there?"' || failed+=("dome, port 2")
    echo
    # From the direction that turns to transmit until it turns back.
    "$programs/qelboard" trace read "$trace" |
        awk 'NR == 1 || /SET_RS485_DIRECTION .*01000000$/ { on = 1 } on; NR == 1 || /DIRECTION .*00000000$/ { on = 0 }'
    rm "$trace"
}

show dome "a pan-tilt dome with one chip"
show twin "two chips, a call goes from one to the other and back"
show_line

printf '\n== Summary\n\n'
if [[ ${#failed[@]} -gt 0 ]]; then
    echo "It did not work on: ${failed[*]}. The lines above say what failed."
    exit 1
fi
cat <<'TEXT'
It all worked. libqel.so was loaded on the virtual boards "dome" and "twin", told which boards they
are, on "twin" a call was forwarded to the second chip and answered from there, and a frame on the
RS-485 line of "dome" was sent whole before the line turned round to hear the answer.

Next: build/release/bin/qelboard run dome --as vesta -- build/release/bin/qelctl info
      README.md has a tour of ten minutes.
TEXT
