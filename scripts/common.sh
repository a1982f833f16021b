# shellcheck shell=bash
# common.sh - what ./dev and the suites share. Sourced with the top of the tree as current folder.

jobs=$(nproc)

fail() {
    echo "dev: $*" >&2
    exit 1
}

# configure PRESET: when that was never done, or the presets changed since.
configure() {
    if [[ ! -f build/$1/build.ninja || CMakePresets.json -nt build/$1/build.ninja ]]; then
        cmake --preset "$1"
    fi
}

# build PRESET [TARGET...]
build() {
    configure "$1" && ninja -C "build/$1" -j "$jobs" "${@:2}"
}

# build_quietly PRESET [TARGET...]: the same, one line long unless it fails.
build_quietly() {
    local preset=$1 log=build/log/$1.log started=$SECONDS
    mkdir -p build/log
    if ! build "$@" >"$log" 2>&1; then
        cat "$log" >&2
        fail "the $preset build failed (the log above is $log)"
    fi
    echo "built build/$preset in $((SECONDS - started)) s"
}
