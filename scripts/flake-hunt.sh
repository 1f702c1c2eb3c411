#!/usr/bin/env bash
# Hunts flaky tests: runs every test of the suite N times (ctest --repeat until-fail:N),
# four tests at a time on however few cores there are, so that each also runs under the
# load of the others, in the normal and the ASan+UBSan build, and prints per build how many
# tests passed all N runs and which failed.
#
#   scripts/flake-hunt.sh N [extra ctest arguments...]
#
# e.g. scripts/flake-hunt.sh 10
#      scripts/flake-hunt.sh 5 -R 'FileOutputTest|ExecutorTest' -LE slow
#
# Environment: FLAKE_BUILDS (default "build build-asan") names the build trees, relative
# to the source tree; FLAKE_JOBS (default 4) the tests run at once; TW_SHM_KEY_BASE the
# first shared-memory key base (each build gets its own, 0x100000 apart). A build tree
# that does not exist is reported and skipped. Exit status 0 when every test passed all
# its runs in every build, 1 when a test failed, 2 on bad usage.
set -uo pipefail
cd "$(dirname "$0")/.."

usage() {
    sed -n '2,16p' "$0" | sed 's/^# \{0,1\}//' >&2
    exit 2
}

(($# >= 1)) || usage
case "$1" in
    -h | --help) usage ;;
esac
if ! [[ "$1" =~ ^[1-9][0-9]*$ ]]; then
    echo "flake-hunt: the number of repetitions must be a positive integer, not '$1'" >&2
    exit 2
fi
REPEAT=$1
shift
JOBS=${FLAKE_JOBS:-4}
if ! [[ "$JOBS" =~ ^[1-9][0-9]*$ ]]; then
    echo "flake-hunt: FLAKE_JOBS must be a positive integer, not '$JOBS'" >&2
    exit 2
fi
read -r -a BUILDS <<<"${FLAKE_BUILDS:-build build-asan}"
KEY_BASE=$((${TW_SHM_KEY_BASE:-0x54870000}))

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

LOG_DIR=$(mktemp -d /tmp/flake-hunt.XXXXXX)
status=0
summary=()
index=0
for build in "${BUILDS[@]}"; do
    keyBase=$(printf '0x%x' $((KEY_BASE + index * 0x100000)))
    index=$((index + 1))
    if [[ ! -f "$build/CTestTestfile.cmake" ]]; then
        echo "flake-hunt: no configured build tree at '$build'; skipped" >&2
        summary+=("$build: skipped (no build tree)")
        status=1
        continue
    fi
    log="$LOG_DIR/$(basename "$build").log"
    echo "== $build: every test up to $REPEAT times until it fails, $JOBS at a time, key base $keyBase"
    # --repeat until-fail:N runs each test N times unless it fails first, so a test that
    # passes here passed N times in a row, under the load of the others around it.
    (cd "$build" && TW_SHM_KEY_BASE=$keyBase ctest -j"$JOBS" --output-on-failure \
        --repeat until-fail:"$REPEAT" --timeout 600 "$@") >"$log" 2>&1
    rc=$?
    total=$(sed -n 's/^.* tests passed, \([0-9]\+\) tests failed out of \([0-9]\+\)$/\2/p' "$log" | tail -1)
    failures=$(sed -n 's/^.* tests passed, \([0-9]\+\) tests failed out of \([0-9]\+\)$/\1/p' "$log" | tail -1)
    if [[ -z "$total" ]]; then
        # ctest ended before its summary (no tests matched, a configuration error).
        line="$build: no result (ctest exit $rc); see $log"
        tail -5 "$log" >&2
        status=1
    else
        line="$build: $((total - failures)) of $total tests passed $REPEAT times in a row, $failures failed"
        if ((failures > 0 || rc != 0)); then
            status=1
            mapfile -t names < <(sed -n 's/^[[:space:]]*[0-9]\+ - \(.*\) (.*)$/\1/p' "$log")
            ((${#names[@]})) && line+=": ${names[*]}"
        fi
    fi
    echo "   $line"
    summary+=("$line")
done

echo "== summary (logs in $LOG_DIR)"
printf '%s\n' "${summary[@]}"
exit $status
