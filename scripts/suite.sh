#!/usr/bin/env bash
# suite.sh NAME - runs one suite of ./dev test and leaves its counts in build/results/NAME, one line
# each: "passed N", "failed N", "skipped N", "lacks TEXT" (why something could not be tested here).
set -euo pipefail
cd "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")/.."
source scripts/common.sh

readonly suite=$1
mkdir -p build/results
readonly results=$PWD/build/results/$suite
: >"$results"

tally() { echo "$*" >>"$results"; }

# check WHAT COMMAND...: one counted check; the suite goes on when it fails.
check() {
    local what=$1
    shift
    echo "--- $what"
    if "$@"; then
        tally passed 1
    else
        tally failed 1
        echo "FAILED: $what"
    fi
}

launcher=()

# run_tests PRESET [CTEST ARGUMENTS...]: counts every test. A test may skip only what this machine
# truly lacks, with a text that starts "this machine lacks" or "this machine has no"; any other skip is a failure.
run_tests() {
    local preset=$1 report=$PWD/build/results/$1.xml status=0
    shift
    rm -f "$report"
    "${launcher[@]}" ctest --preset "$preset" -j "$jobs" --no-tests=error --output-junit "$report" "$@" || status=$?
    [[ -f $report ]] || return 1
    local counted
    counted=$(awk -f scripts/count-tests.awk "$report")
    echo "$counted" >>"$results"
    sed -n 's/^complaint /FAILED: /p' <<<"$counted"
    if [[ $status -ne 0 ]] && ! grep -q '^failed [1-9]' <<<"$counted"; then tally failed 1; fi
}

suite_release() { # the release build with g++, warnings as errors
    check "release build" build release
}

suite_style() { # formatting, layers and circles, the one door to the kernel, shell scripts
    build release
    check "formatting" bash tests/checks/format.sh
    check "structure" bash tests/checks/structure.sh build/release
    check "shell scripts" bash tests/checks/shell.sh
}

suite_package() { # exported names, headers as C and C++, install, programs of others built against it
    build release
    check "exported names" bash packaging/exports.sh --check build/release/lib/libqel.so
    check "headers by themselves" bash tests/checks/headers.sh
    check "install and use" bash tests/package/run.sh build/release
}

suite_docs() { # the commands that the documentation shows
    build release
    check "commands of the documentation" bash scripts/run-docs.sh README.md docs/*.md
}

suite_asan() { # every test with the address and undefined-behaviour sanitizers
    build asan
    run_tests asan
}

suite_cuts() { # the power goes in the middle of every device write, as docs/power-cuts.md tells
    build cuts powercut_test storage_writer_test
    local output=build/log/cuts-output.log
    run_tests cuts | tee "$output"
    sed -nE 's/.*power cuts[a-z ]*: ([0-9]+).*/\1/p' "$output" |
        awk '{ sum += $1 } END { print "says", sum + 0, "power cuts tried" }' >>"$results"
}

suite_tsan() { # the tests of concurrency with the thread sanitizer
    build tsan concurrency_tests
    # Some kernels place mappings where the thread sanitizer of this compiler does not expect them.
    if setarch -R true; then launcher=(setarch -R); fi
    run_tests tsan
}

suite_arm() { # 32-bit ARM: every test but those that emulation cannot run
    bash cmake/armhf-sysroot.sh build/sysroot-armhf
    build armhf
    run_tests armhf
}

suite_fuzz() { # every fuzz target, from its seeds on, for a short fixed count of inputs
    build fuzz fuzz_targets
    check "fuzz targets" bash scripts/fuzz.sh -runs=20000
}

suite_tidy() { # clang with its thread-safety analysis, and clang-tidy, over every source
    cmake --preset clang  # sources may have come or gone, and nothing is built that would notice
    check "clang-tidy" bash tests/checks/tidy.sh build/clang
}

"suite_$suite"
