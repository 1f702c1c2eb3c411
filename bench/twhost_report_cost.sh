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
BUILD_DIR=${1:-"$SCRIPT_DIR/../build"}
RUNS=${2:-5}
DURATION=${3:-30}

TWHOST="$BUILD_DIR/bin/twhost"
if [ ! -x "$TWHOST" ]; then
    echo "twhost_report_cost: no twhost binary at $TWHOST (build the twhost_tool target, or pass the build directory)" >&2
    exit 2
fi
case "$RUNS" in
    '' | *[!0-9]* | 0) echo "twhost_report_cost: RUNS must be a positive integer, not '$RUNS'" >&2; exit 2 ;;
esac

WORK=$(mktemp -d "${TMPDIR:-/tmp}/twhost_report_cost.XXXXXX")
trap 'rm -rf "$WORK"' EXIT INT TERM
CLIP="$WORK/clip1080p.mp4"

echo "twhost:   $TWHOST"
echo "clip:     1920x1080 H.264, $DURATION s"
"$TWHOST" sample "$CLIP" --size 1920x1080 --duration "$DURATION" >"$WORK/sample.log" 2>&1 || {
    echo "twhost_report_cost: twhost sample failed:" >&2
    cat "$WORK/sample.log" >&2
    exit 1
}

# CPU seconds of this shell's finished children so far, from the second line of "times".
# "times" must run in this shell (see run), with its output in a file: in a command
# substitution it would run in a subshell, which has no finished children.
children_cpu() {
    awk 'NR == 2 {
        total = 0;
        for (i = 1; i <= 2; ++i) { split($i, t, /[ms]/); total += t[1] * 60 + t[2] }
        printf "%.3f\n", total;
    }' "$WORK/times.txt"
}

# run VARIANT ARGS...: one detect run; appends its CPU seconds to $WORK/VARIANT.txt.
run() {
    variant=$1; shift
    times >"$WORK/times.txt"
    before=$(children_cpu)
    if ! "$TWHOST" detect "$CLIP" --json "$@" >"$WORK/detect.json" 2>"$WORK/detect.err"; then
        echo "twhost_report_cost: twhost detect $* failed:" >&2
        cat "$WORK/detect.err" >&2
        exit 1
    fi
    times >"$WORK/times.txt"
    after=$(children_cpu)
    cpu=$(echo "$before $after" | awk '{ printf "%.3f", $2 - $1 }')
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

median() {
    sort -n "$1" | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'
}
plain=$(median "$WORK/plain.txt")
report=$(median "$WORK/report.txt")
size=$(wc -c <"$WORK/report.html")
awk -v p="$plain" -v r="$report" -v n="$RUNS" -v size="$size" 'BEGIN {
    printf "median CPU time over %d runs each: %.2f s without --report, %.2f s with --report --snapshots\n", n, p, r;
    printf "ratio with / without: %.3f (+%.1f %%); the page: %d bytes\n", r / p, (r / p - 1) * 100, size;
}'
