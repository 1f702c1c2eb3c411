#!/bin/sh
# What "twhost detect --report" costs: CPU time (user + system of the whole twhost process)
# of detect on a 1080p H.264 clip without and with --report (and --snapshots), run in turns
# so that both see the same load. CPU time, not wall time: on a shared machine the wall
# clock measures the neighbours as much as twhost.
#
# Usage: twhost_report_cost.sh [BUILD_DIR] [RUNS] [DURATION_SECONDS]
#   BUILD_DIR  build tree holding bin/twhost (default: ../build next to this script)
#   RUNS       runs of each variant, the medians are compared (default 5)
#   DURATION   length of the clip in seconds (default 30)

set -eu

SCRIPT_DIR=$(cd "$(dirname "$0")" && pwd)
BENCH_NAME=twhost_report_cost
. "$SCRIPT_DIR/common.sh"
BUILD_DIR=${1:-"$SCRIPT_DIR/../build"}
RUNS=${2:-5}
DURATION=${3:-30}

case "$RUNS" in
    '' | *[!0-9]* | 0) echo "twhost_report_cost: RUNS must be a positive integer, not '$RUNS'" >&2; exit 2 ;;
esac

bench_setup "$BUILD_DIR"
CLIP="$WORK/clip1080p.mp4"

echo "twhost:   $TWHOST"
echo "clip:     1920x1080 H.264, $DURATION s"
bench_sample "$CLIP" --size 1920x1080 --duration "$DURATION"


# run VARIANT ARGS...: one detect run; appends its CPU seconds to $WORK/VARIANT.txt.
run() {
    variant=$1; shift
    bench_mark_cpu
    if ! "$TWHOST" detect "$CLIP" --json "$@" >"$WORK/detect.json" 2>"$WORK/detect.err"; then
        echo "twhost_report_cost: twhost detect $* failed:" >&2
        cat "$WORK/detect.err" >&2
        exit 1
    fi
    bench_take_cpu
    cpu=$BENCH_CPU
    intervals=$(grep '"type":"summary"' "$WORK/detect.json" | grep -o '"start"' | wc -l)
    echo "$cpu" >>"$WORK/$variant.txt"
    echo "$variant: $cpu s CPU ($intervals motion intervals)" >&2
}

: >"$WORK/plain.txt"
: >"$WORK/report.txt"
i=1
while [ "$i" -le "$RUNS" ]; do
    run plain
    run report --report "$WORK/report.html" --snapshots "$WORK/shots" -y
    i=$((i + 1))
done

plain=$(bench_median <"$WORK/plain.txt")
report=$(bench_median <"$WORK/report.txt")
size=$(wc -c <"$WORK/report.html")
awk -v p="$plain" -v r="$report" -v n="$RUNS" -v size="$size" 'BEGIN {
    printf "median CPU time over %d runs each: %.2f s without --report, %.2f s with --report --snapshots\n", n, p, r;
    printf "ratio with / without: %.3f (+%.1f %%); the page: %d bytes\n", r / p, (r / p - 1) * 100, size;
}'
