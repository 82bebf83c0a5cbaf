# Configuring, building and running what was built; sourced by ./dev.
# shellcheck shell=bash

# configure PRESET: makes or refreshes the preset's build folder.
configure() {
    local options=()
    command -v ccache >/dev/null && options=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
    cmake --preset "$1" "${options[@]}" --log-level=WARNING >/dev/null
}

# build PRESET [ARGUMENT...]: brings the preset's build folder up to date.
build() {
    local preset=$1
    shift
    configure "$preset"
    cmake --build --preset "$preset" "$@"
}

# run_tests FOLDER [FILTER]
run_tests() {
    local options=(--output-on-failure -j2)
    [ -z "${2:-}" ] || options+=(-R "$2" --no-tests=error)
    (cd "$1" && "${launcher[@]}" ctest "${options[@]}")
}

# run_tests_until SECONDS FOLDER: the tests folder by folder; starts none once this shell is SECONDS old.
run_tests_until() {
    local label choice ran=() left=() failed=()
    for label in $(cd "$2" && ctest --print-labels | sed -n 's/^  //p') unlabelled; do
        choice=(-L "^$label\$")
        [ "$label" != unlabelled ] || choice=(-LE .)
        if [ "$SECONDS" -ge "$1" ]; then
            left+=("$label")
            continue
        fi
        ran+=("$label")
        (cd "$2" && "${launcher[@]}" ctest --output-on-failure -j2 "${choice[@]}") || failed+=("$label")
    done
    echo "$2: ran ${ran[*]:-nothing}; failed: ${failed[*]:-none}; out of time for: ${left[*]:-none}"
    [ ${#ran[@]} -gt 0 ] && [ ${#failed[@]} -eq 0 ]
}

launcher=(env)

# sanitize PRESET [FILTER | --seconds N]
sanitize() {
    local preset=$1
    need build
    build "$preset"
    export ASAN_OPTIONS=detect_leaks=1:detect_stack_use_after_return=1:strict_string_checks=1
    export UBSAN_OPTIONS=print_stacktrace=1
    export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1
    # ThreadSanitizer of this compiler does not cope with wide address randomisation.
    if [ "$preset" = tsan ] && setarch -R true 2>/dev/null; then launcher=(setarch -R); fi
    if [ "${2:-}" = --seconds ]; then
        run_tests_until "$3" "build-$preset"
    else
        run_tests "build-$preset" "${2:-}"
    fi
}

# run_benchmarks [FILTER]: the programs whose name matches, then the comparison of echo servers when that matches.
run_benchmarks() {
    local program programs=()
    for program in build-bench/bench/*_bench; do
        [[ $(basename "$program" _bench) != *"$1"* ]] || programs+=("$program")
    done
    [ ${#programs[@]} -eq 0 ] || python3 bench/micro.py "${programs[@]}"
    local whole=echo
    [[ $whole != *"$1"* ]] || python3 bench/echo.py build-bench/bench/echo
}

# run_fuzzers TARGET SECONDS: finds land in build-fuzz/found/, new inputs in build-fuzz/corpus/.
run_fuzzers() {
    local program name count=0
    for program in build-fuzz/fuzz/*_fuzz; do
        name=$(basename "$program" _fuzz)
        [ -z "$1" ] || [ "$1" = "$name" ] || continue
        mkdir -p "build-fuzz/found/$name" "build-fuzz/corpus/$name"
        echo "== $name, $2 s"
        "$program" -max_total_time="$2" -print_final_stats=1 -timeout=10 -artifact_prefix="build-fuzz/found/$name/" \
            "build-fuzz/corpus/$name" "fuzz/corpus/$name"
        count=$((count + 1))
    done
    [ "$count" -gt 0 ] || fail "no fuzz target '$1'"
}

make_docs() {
    mkdir -p build/docs
    { cat docs/Doxyfile; echo "INPUT = README.md CONTRIBUTING.md CHANGELOG.md docs $(sed -n 's/#include <\(.*\)>/\1/p' vel/vel.h | xargs)"; } |
        doxygen -
    echo "build/docs/html/index.html"
}
