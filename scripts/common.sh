# shellcheck shell=bash
# common.sh - what ./dev and the suites share. Sourced with the top of the tree as current folder.

jobs=$(nproc)

fail() {
    echo "dev: $*" >&2
    exit 1
}

# build PRESET [TARGET...]: configures when that was never done or the presets changed, and builds.
build() {
    local preset=$1 folder=build/$1
    shift
    if [[ ! -f $folder/build.ninja || CMakePresets.json -nt $folder/build.ninja ]]; then
        cmake --preset "$preset" || return
    fi
    ninja -C "$folder" -j "$jobs" "$@"
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
