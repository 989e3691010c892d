# ./test --fuzz, sourced by test: builds the fuzz programs and runs them, two at a time.
# Expects what prepare.sh gives.

FUZZ_SECONDS=${FUZZ_SECONDS:-60}
PACKAGES+=(clang libclang-rt-14-dev)

# What a run learned (learned/), said (NAME.log) and found (findings/) lies below build/fuzz/.
fuzz_place=$top/build/fuzz

fuzz_targets() { sed -n 's/^velmora_fuzz(\([a-z0-9_]*\).*/\1/p' "$top/CMakeLists.txt"; }

# Inputs up to 4096 bytes: longer ones only slow the search down. Ten seconds for one input are a finding.
fuzz_one() {
    local name=$1
    mkdir -p "$fuzz_place/learned/$name" "$fuzz_place/findings"
    "$fuzz_place/bin/fuzz_$name" -max_total_time="$FUZZ_SECONDS" -timeout=10 -rss_limit_mb=2048 -max_len=4096 \
        -artifact_prefix="$fuzz_place/findings/$name-" "$fuzz_place/learned/$name" "$top/fuzz/corpus/$name" \
        >"$fuzz_place/$name.log" 2>&1 </dev/null
}

# Says how a run ended; false if it found something.
fuzz_result() {
    local name=$1 status=$2 log=$fuzz_place/$1.log input
    if [ "$status" -eq 0 ]; then
        say "  $name: nothing found. $(grep '^Done' "$log"), $(grep -o 'cov: [0-9]*' "$log" | tail -n 1)"
        return 0
    fi
    tail -n 40 "$log" >&2
    input=$(sed -n 's/.*Test unit written to //p' "$log" | tail -n 1)
    say "  $name: FAILED. All of its output: ${log#"$top"/}" \
        "    the input that shows it: ${input#"$top"/}" \
        "    once more: build/fuzz/bin/fuzz_$name ${input#"$top"/}" \
        "    when it is mended, keep the input as fuzz/corpus/$name/found-..., so that ./test runs it from then on"
    return 1
}

# fuzz [NAME]: all targets, or the one with that name.
fuzz() {
    local targets=() running=() name failed=0 status
    mapfile -t targets < <(fuzz_targets)
    if [ $# -gt 0 ]; then
        fuzz_targets | grep -qx -- "$1" || fail "no fuzz target is called $1; there are: ${targets[*]}"
        targets=("$1")
    fi
    build fuzz "${targets[@]/#/fuzz_}"
    say "Fuzzing for $FUZZ_SECONDS seconds each: ${targets[*]}"
    set -- "${targets[@]}"
    while [ $# -gt 0 ]; do
        running=()
        for name in "${@:1:2}"; do
            fuzz_one "$name" &
            running+=("$name $!")
        done
        shift ${#running[@]}
        for name in "${running[@]}"; do
            wait "${name#* }"
            status=$?
            fuzz_result "${name% *}" "$status" || failed=1
        done
    done
    return "$failed"
}
