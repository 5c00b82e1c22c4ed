# shellcheck shell=bash
# Sourced by scripts/endurance, scripts/chaos and scripts/soak, from the top of the tree: builds the
# stress program and runs it.

# run_stress NAME USAGE ARGUMENT...
run_stress()
{
    local name=$1 usage=$2
    shift 2
    local build=build/release arguments=()
    while [ $# -gt 0 ]; do
        case "$1" in
        -h | --help)
            echo "$usage"
            return 0
            ;;
        --build-dir)
            build=${2:?"--build-dir needs a directory"}
            shift
            ;;
        *)
            arguments+=("$1")
            ;;
        esac
        shift
    done

    if [ ! -f "$build/CMakeCache.txt" ]; then
        ./scripts/setup build test
        cmake --preset release -B "$build"
    fi
    cmake --build "$build" --target vlx_stress
    echo
    "$build/stress/vlx_stress" "$name" "${arguments[@]}"
}
