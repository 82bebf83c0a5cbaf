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

# run_tests FOLDER SECONDS [FILTER]: runs the tests; with SECONDS above 0, starts none after that time.
run_tests() {
    local folder=$1 seconds=$2 options=(--output-on-failure -j2)
    [ -z "${3:-}" ] || options+=(-R "$3" --no-tests=error)
    [ "$seconds" -eq 0 ] || options+=(--stop-time "$(date -d "+$seconds seconds" +%H:%M:%S)")
    (cd "$folder" && "${in_folder[@]}" ctest "${options[@]}")
}

in_folder=(env)

# sanitize PRESET [FILTER] [--seconds N]
sanitize() {
    local preset=$1 seconds=0 filter=""
    shift
    while [ $# -gt 0 ]; do
        case $1 in
        --seconds) seconds=$2 && shift ;;
        *) filter=$1 ;;
        esac
        shift
    done
    need build
    build "$preset"
    export ASAN_OPTIONS=detect_leaks=1:detect_stack_use_after_return=1:strict_string_checks=1
    export UBSAN_OPTIONS=print_stacktrace=1
    export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1
    # ThreadSanitizer of this compiler does not cope with wide address randomisation.
    [ "$preset" != tsan ] || ! setarch -R true 2>/dev/null || in_folder=(setarch -R)
    run_tests "build-$preset" "$seconds" "$filter"
}

# run_benchmarks [FILTER]
run_benchmarks() {
    local program
    for program in build-bench/bench/*_bench; do
        [[ $(basename "$program") == *"$1"* ]] || continue
        echo "== $(basename "$program")"
        "$program" --benchmark_min_time=0.5
    done
}

# run_fuzzers TARGET SECONDS: finds land in build-fuzz/found/, new inputs in build-fuzz/corpus/.
run_fuzzers() {
    local program name ran=0
    for program in build-fuzz/fuzz/*_fuzz; do
        name=$(basename "$program" _fuzz)
        [ -z "$1" ] || [ "$1" = "$name" ] || continue
        mkdir -p "build-fuzz/found/$name" "build-fuzz/corpus/$name"
        echo "== $name, $2 s"
        "$program" -max_total_time="$2" -print_final_stats=1 -timeout=10 -artifact_prefix="build-fuzz/found/$name/" \
            "build-fuzz/corpus/$name" "fuzz/corpus/$name"
        ran=$((ran + 1))
    done
    [ "$ran" -gt 0 ] || fail "no fuzz target '$1'"
}

make_docs() {
    mkdir -p build/docs
    doxygen docs/Doxyfile
    echo "build/docs/html/index.html"
}
