# shellcheck shell=bash disable=SC2034
# What the scripts share. To be sourced by bash; leaves the caller in the project's folder, with set -eu.
#
#   need_packages PACKAGE...    installs what is missing
#   step NAME COMMAND...        runs a command quietly, prints its name and time; a failure prints its log and ends the
#                               script. The command may be a function, but set -e has no effect in it: join by &&
#   check NAME COMMAND...       the same, but a failure is only noted, and returned as status 1
#   failures                    names of the failed checks, blank-separated
#   slow_factor PRESET          how many times slower than release everything may be
#   sanitizer_options           exports what the sanitizers are told
#   fault_tests PRESET [OPTION...]
#                               runs tests/faults with these options for pytest
#   find_mosquitto              puts the broker into PATH; unpacked in the build folder where it is not installed, because
#                               installed it would start as a service of this machine
#   build PRESET [TARGET...]    configures and builds; to be used with step or check. With CI in the environment warnings are
#                               errors

set -eu

cd "$(dirname "${BASH_SOURCE[0]}")/.."

LOGS=build/logs
JOBS=$(nproc)
ROOMS=(framework common connections ports commands daemon examples tools tests bench)
PYTHON=/usr/bin/python3 # Debian's, which sees Debian's packages; another one may come first in PATH
BUILD_PACKAGES=(g++ cmake ninja-build libgtest-dev libgmock-dev libcli11-dev nlohmann-json3-dev
    libedit-dev libmosquitto-dev libncurses-dev pkg-config python3)
export PYTHONDONTWRITEBYTECODE=1
failures=

mkdir -p "$LOGS"

need_packages()
{
    local package status missing=() root=()
    for package in "$@"; do
        status=$(dpkg-query -W -f '${db:Status-Abbrev}' "$package" 2>/dev/null) || true
        [[ $status == ?i* ]] || missing+=("$package")
    done
    if [ ${#missing[@]} -eq 0 ]; then return; fi
    if [ "$(id -u)" -ne 0 ]; then
        if ! command -v sudo >/dev/null; then
            echo "These Debian packages are missing, and there is no sudo to install them: ${missing[*]}" >&2
            exit 1
        fi
        root=(sudo)
    fi
    root+=(env DEBIAN_FRONTEND=noninteractive)
    echo "Installing Debian packages: ${missing[*]}"
    if ! { "${root[@]}" apt-get -q update &&
               "${root[@]}" apt-get -q -y --no-install-recommends install "${missing[@]}"; } \
        >"$LOGS/packages.log" 2>&1 </dev/null; then
        echo "The packages could not be installed:" >&2
        cat "$LOGS/packages.log" >&2
        exit 1
    fi
}

find_mosquitto()
{
    local unpacked=$PWD/build/mosquitto
    export PATH=$PATH:/usr/sbin
    if command -v mosquitto >/dev/null; then return; fi
    if [ ! -d "$unpacked" ] && ! unpack_mosquitto "$unpacked" >"$LOGS/mosquitto.log" 2>&1 </dev/null; then
        echo "mosquitto is not installed and could not be unpacked:" >&2
        cat "$LOGS/mosquitto.log" >&2
        exit 1
    fi
    export PATH=$PATH:$unpacked/usr/sbin:$unpacked/usr/bin
    LD_LIBRARY_PATH=${LD_LIBRARY_PATH:+$LD_LIBRARY_PATH:}$(find "$unpacked/usr/lib" -maxdepth 1 -type d -name '*-linux-gnu*')
    export LD_LIBRARY_PATH
}

# With those of its libraries that are not installed. The folder is there when all of it is.
unpack_mosquitto()
{
    local archives=$1.archives archive root=()
    if [ "$(id -u)" -ne 0 ]; then root=(sudo); fi
    rm -rf "$archives" "$1.new" && mkdir -p "$archives/partial" "$1.new" && "${root[@]}" apt-get -q update &&
        "${root[@]}" apt-get -q -y --no-install-recommends --download-only -o Dir::Cache::archives="$archives" \
            install mosquitto || return
    for archive in "$archives"/*.deb; do
        dpkg-deb -x "$archive" "$1.new" || return
    done
    rm -rf "$archives" && mv "$1.new" "$1"
}

check()
{
    local name=$1 start=$SECONDS
    local log="$LOGS/${name//[^a-z0-9]/-}.log"
    shift
    printf '%-34s' "$name"
    if ("$@") >"$log" 2>&1 </dev/null; then
        printf '%4d s%s\n' $((SECONDS - start)) "$(summary "$log")"
        return 0
    fi
    printf '%4d s  FAILED\n' $((SECONDS - start))
    # CTest and pytest repeat what matters at the end.
    tail -n 300 "$log"
    echo "--- the whole log of '$name': $log"
    failures="$failures${failures:+, }$name"
    return 1
}

step()
{
    check "$@" || exit 1
}

# What CTest or pytest counted, if that is what ran.
summary()
{
    grep -E '^[0-9]+% tests passed|^=* ?[0-9]+ (passed|failed|skipped|error)' "$1" | tail -n 1 | sed 's/^=* *//; s/ =*$//; s/^/  /'
}

build()
{
    local preset=$1
    shift
    cmake --preset "${CI:+ci-}$preset" --log-level=WARNING &&
        cmake --build --preset "$preset" -j "$JOBS" --target "${@:-all}" -- --quiet
}

slow_factor()
{
    case $1 in
        asan) echo 3 ;;
        tsan) echo 5 ;;
        *) echo 1 ;;
    esac
}

sanitizer_options()
{
    export ASAN_OPTIONS=detect_leaks=1:detect_stack_use_after_return=1:strict_string_checks=1:check_initialization_order=1
    export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
    export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:suppressions=$PWD/tests/tsan.supp
}

# They wait far more than they compute: several run on a processor.
fault_tests()
{
    local preset=$1 run=("$PYTHON" -m pytest -q -p no:cacheprovider tests/faults -n $((4 * JOBS)))
    shift
    sanitizer_options
    export TESSD_BIN_DIR=$PWD/build/$preset/bin TESSD_SLOW_FACTOR
    TESSD_SLOW_FACTOR=$(slow_factor "$preset")
    if [ "$preset" = tsan ]; then
        run+=(--ignore tests/faults/test_faults.py)
        # The thread sanitizer wants its addresses free, which a kernel that scatters widely does not promise.
        if setarch -R true 2>/dev/null; then run=(setarch -R "${run[@]}"); fi
    fi
    "${run[@]}" "$@"
}
