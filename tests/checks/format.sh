#!/usr/bin/env bash
# format.sh [--fix] - our sources stand as .clang-format says.
set -euo pipefail
mode=(--dry-run -Werror)
if [[ ${1:-} == --fix ]]; then mode=(-i); fi
find . -path ./build -prune -o -type f \( -name '*.cpp' -o -name '*.c' -o -name '*.h' \) -print0 |
    xargs -0 -P "$(nproc)" -n 8 clang-format-14 "${mode[@]}"
