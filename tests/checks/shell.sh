#!/usr/bin/env bash
# shell.sh - every shell script of the tree through shellcheck.
set -euo pipefail
mapfile -d '' -t scripts < <(
    find . -path ./build -prune -o -path ./.git -prune -o -type f -print0 |
        xargs -0 grep -lIZE -m1 '^#!.*\b(ba)?sh\b|^# shellcheck shell='
)
shellcheck -x "${scripts[@]}"
echo "${#scripts[@]} scripts"
