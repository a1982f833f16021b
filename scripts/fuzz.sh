#!/usr/bin/env bash
# fuzz.sh LIMIT - runs every fuzz target up to that limit of libFuzzer, for example -max_total_time=30 or
# -runs=10000; what it finds stays in build/fuzz/findings.
set -euo pipefail
readonly limit=$1
shopt -s nullglob
targets=(build/fuzz/bin/fuzz-*)
if [[ ${#targets[@]} -eq 0 ]]; then
    echo "no fuzz targets are built"
    exit 1
fi
failed=0
for target in "${targets[@]}"; do
    name=${target##*/fuzz-}
    work=build/fuzz/corpus/$name
    findings=build/fuzz/findings/$name
    seeds=(fuzz/corpus/"$name"/)
    mkdir -p "$work" "$findings"
    log=build/fuzz/$name.log
    if "$target" "$limit" -print_final_stats=1 -artifact_prefix="$findings/" \
        "$work" "${seeds[@]}" >"$log" 2>&1; then
        echo "$name: $(sed -n 's/^stat::number_of_executed_units: *//p' "$log") inputs, nothing found"
    else
        failed=1
        tail -n 40 "$log"
        echo "$name: FAILED, the input is in $findings"
    fi
done
exit "$failed"
