#!/usr/bin/env bash
# Builds the libFuzzer targets and runs each for SECONDS on its own corpus (fuzz/corpus/TARGET,
# copied to a scratch directory so the repository is left as it is) plus any extra seed
# directories. Findings are kept under build/fuzz/findings/TARGET.
#   scripts/fuzz.sh SECONDS [EXTRA_SEED_DIR...]
# FUZZ_TARGETS="decode_table roundtrip" runs only those targets.
set -euo pipefail

if [ $# -lt 1 ] || ! [[ "$1" =~ ^[0-9]+$ ]]; then
    echo "usage: $0 SECONDS [EXTRA_SEED_DIR...]" >&2
    exit 2
fi
seconds=$1
shift
extra=()
for dir in "$@"; do
    [ -d "$dir" ] || { echo "$0: not a directory: $dir" >&2; exit 2; }
    extra+=("$(cd "$dir" && pwd)")
done

root="$(cd "$(dirname "$0")/.." && pwd)"
# clang's libFuzzer and sanitizer runtimes come with libclang-rt-14-dev.
"$root/scripts/setup.sh" clang-14 libclang-rt-14-dev

cc=clang-14
cxx=clang++-14
build="$root/build/fuzz"
cmake -S "$root" -B "$build" -G Ninja \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" \
    -DORVIX_FUZZ=ON -DORVIX_HOSTBUS=ON -DORVIX_WERROR=ON \
    -DORVIX_BUILD_TESTS=OFF -DORVIX_BUILD_EXAMPLES=OFF
all=(decode_table decode_array decode_policy roundtrip daemon_stream)
read -r -a targets <<<"${FUZZ_TARGETS:-${all[*]}}"
for target in "${targets[@]}"; do
    [[ " ${all[*]} " == *" $target "* ]] || { echo "$0: unknown target: $target" >&2; exit 2; }
done
cmake --build "$build" --target "${targets[@]/#/fuzz_}"

scratch="$(mktemp -d)"
trap 'rm -rf "$scratch"' EXIT
report=()
failed=0
for target in "${targets[@]}"; do
    corpus="$scratch/$target"
    findings="$build/findings/$target"
    mkdir -p "$corpus" "$findings"
    cp -R "$root/fuzz/corpus/$target/." "$corpus/"
    log="$build/findings/$target.log"
    echo "== $target: ${seconds}s"
    start=$(date +%s)
    status=0
    "$build/fuzz/fuzz_$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
        -artifact_prefix="$findings/" "$corpus" "${extra[@]}" >"$log" 2>&1 || status=$?
    ran=$(($(date +%s) - start))
    runs=$(sed -n 's/^Done \([0-9]*\) runs.*/\1/p' "$log" | tail -n 1)
    if [ "$status" -eq 0 ]; then
        report+=("$target: ${ran}s, ${runs:-?} runs, nothing found")
    else
        failed=1
        found=$(grep -o "Test unit written to .*" "$log" | sed 's/Test unit written to //' | tail -n 1)
        report+=("$target: ${ran}s, FOUND (exit $status): ${found:-see $log}")
    fi
done

echo
printf '%s\n' "${report[@]}"
exit "$failed"
