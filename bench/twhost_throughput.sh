#!/bin/sh
# Offline detection throughput of twhost: how many seconds of 1080p H.264 video one motion
# detector judges per wall-clock second when "twhost detect" replays a file in virtual time.
#
# Usage: twhost_throughput.sh [BUILD_DIR] [RUNS] [DURATION_SECONDS]
#   BUILD_DIR  build tree holding bin/twhost (default: ../build next to this script)
#   RUNS       number of detect runs, the median is reported (default 5)
#   DURATION   length of the clip in seconds (default 30)
#
# The clip is written with "twhost sample" into a temporary directory and removed at exit.
# Besides the speed on the wall clock, each run's CPU time (user + system of the whole
# twhost process, set-up included) is shown: on a shared machine the wall figure drops with
# the load, the CPU figure much less.

set -eu

SCRIPT_DIR=$(cd "$(dirname "$0")" && pwd)
BENCH_NAME=twhost_throughput
. "$SCRIPT_DIR/common.sh"
BUILD_DIR=${1:-"$SCRIPT_DIR/../build"}
RUNS=${2:-5}
DURATION=${3:-30}

case "$RUNS" in
    '' | *[!0-9]* | 0) echo "twhost_throughput: RUNS must be a positive integer, not '$RUNS'" >&2; exit 2 ;;
esac

bench_setup "$BUILD_DIR"
CLIP="$WORK/clip1080p.mp4"

echo "twhost:   $TWHOST"
echo "clip:     1920x1080 H.264, $DURATION s ($CLIP)"
bench_sample "$CLIP" --size 1920x1080 --duration "$DURATION"


# One line per run: video seconds, wall seconds, video seconds per wall second, CPU seconds.
: >"$WORK/runs.txt"
run=1
while [ "$run" -le "$RUNS" ]; do
    bench_mark_cpu
    if ! "$TWHOST" detect "$CLIP" --json >"$WORK/detect.json" 2>"$WORK/detect.err"; then
        echo "twhost_throughput: twhost detect failed on run $run:" >&2
        cat "$WORK/detect.err" >&2
        exit 1
    fi
    bench_take_cpu
    # The summary is the last line holding the three figures.
    summary=$(grep '"wallSeconds"' "$WORK/detect.json" | tail -n 1)
    if [ -z "$summary" ]; then
        echo "twhost_throughput: no summary with wallSeconds in the output of run $run" >&2
        exit 1
    fi
    echo "$summary" | awk -v run="$run" -v cpu="$BENCH_CPU" '
        function field(name,   s) {
            if (!match($0, "\"" name "\":[0-9.eE+-]+")) return "";
            s = substr($0, RSTART, RLENGTH);
            sub(/^[^:]*:/, "", s);
            return s;
        }
        {
            # "t" of the summary is the length of video judged (JsonCpp writes keys in
            # order, and no object before it has a "t").
            video = field("t"); wall = field("wallSeconds"); frames = field("frames");
            if (video == "" || wall == "" || wall + 0 <= 0) { print "bad summary: " $0 > "/dev/stderr"; exit 1 }
            printf "run %d: %.3f s of video in %.3f s wall (%s frames): %.2f video s per wall s; %.2f s CPU\n",
                   run, video, wall, frames, video / wall, cpu > "/dev/stderr";
            printf "%.6f %.6f %.6f %.6f\n", video, wall, video / wall, cpu;
        }' >>"$WORK/runs.txt"
    run=$((run + 1))
done

speedMedian=$(awk '{ print $3 }' "$WORK/runs.txt" | bench_median)
cpuMedian=$(awk '{ print $4 }' "$WORK/runs.txt" | bench_median)
awk -v m="$speedMedian" -v c="$cpuMedian" '
    NR == 1 { min = max = $3 }
    { video = $1; if ($3 < min) min = $3; if ($3 > max) max = $3 }
    END {
        printf "median over %d runs: %.2f video seconds per wall second (min %.2f, max %.2f; %.3f s of video each)\n",
               NR, m, min, max, video;
        if (c > 0) printf "median CPU time of a run: %.2f s, i.e. %.2f video seconds per CPU second\n", c, video / c;
    }' "$WORK/runs.txt"
