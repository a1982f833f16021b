#!/usr/bin/env bash
# headers.sh - every public header stands by itself, in C99 and in C++17, for the host and for ARM.
set -euo pipefail
cd "$(dirname "$0")/../.."
readonly strict=(-pedantic -Wall -Wextra -Wundef -Werror -fsyntax-only -Iinclude -I.)
failed=0
for header in include/qel/*.h platform/include/*.h; do
    for compiler in "gcc -x c -std=c99" "g++ -x c++ -std=c++17" \
        "arm-linux-gnueabihf-gcc --sysroot=build/sysroot-armhf -x c -std=c99"; do
        read -r -a command <<<"$compiler"
        if [[ $compiler == arm* && ! -d build/sysroot-armhf ]]; then continue; fi
        # Twice: once for itself, once for its guard.
        printf '#include "%s"\n#include "%s"\n' "$header" "$header" | "${command[@]}" "${strict[@]}" - || {
            echo "$header is not valid for $compiler"
            failed=1
        }
    done
done
exit "$failed"
