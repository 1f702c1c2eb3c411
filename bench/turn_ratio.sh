#!/bin/sh
# One detector turn on a 1080p H.264 key frame against its bare decode, as a ratio: the
# whole IsDetected turn (decode, scale to 120 x 67, grey, blur, judgement) over the decode
# alone, both from detector_bench on the painted scene (ordinary camera detail). The two
# move with the machine by a few per cent from one run to the next, so the ratio is taken
# in RUNS separate processes (each timing both benchmarks interleaved, REPS repetitions
# each, medians) and the median of the runs' ratios is the figure to quote.
#
# Each run then also times TurnOverDecode: bare decodes, turns, and turns whose pictures
# are decoded whole instead of into the ring, on one decoder, in runs of ten, for as long
# as MIN_TIME seconds (default 5). Its ratios move less, since the kinds share the decoder
# and its tables and are compared cycle by cycle, and the script quotes their medians too.
#
# Usage: [MIN_TIME=S] turn_ratio.sh [BUILD_DIR] [RUNS] [REPS]
#   BUILD_DIR  build tree holding bin/detector_bench (default: ../build next to this script)
#   RUNS       separate runs (default 6)
#   REPS       repetitions of each benchmark in a run, at least 2 (default 5)
#   MIN_TIME   seconds of TurnOverDecode in a run (default 5)

set -eu

SCRIPT_DIR=$(cd "$(dirname "$0")" && pwd)
BENCH_NAME=turn_ratio
. "$SCRIPT_DIR/common.sh"
BUILD_DIR=${1:-"$SCRIPT_DIR/../build"}
RUNS=${2:-6}
REPS=${3:-5}
bench_positive RUNS "$RUNS"
bench_positive REPS "$REPS"
if [ "$REPS" -lt 2 ]; then
    # detector_bench reports medians only of repeated benchmarks.
    echo "$BENCH_NAME: REPS must be at least 2, not $REPS" >&2
    exit 2
fi
MIN_TIME=${MIN_TIME:-5}
bench_positive MIN_TIME "$MIN_TIME"
BENCH="$BUILD_DIR/bin/detector_bench"
if [ ! -x "$BENCH" ]; then
    echo "$BENCH_NAME: no detector_bench at $BENCH (configure with -DTW_BUILD_BENCH=ON)" >&2
    exit 2
fi
bench_workdir

# detector_bench with these options, its JSON in $WORK/run.txt; ends the script if it fails.
run_bench() {
    "$BENCH" "$@" --benchmark_format=json >"$WORK/run.txt" 2>"$WORK/err.txt" ||
        { echo "$BENCH_NAME: detector_bench failed:" >&2; cat "$WORK/run.txt" "$WORK/err.txt" >&2; exit 1; }
}

: >"$WORK/ratios.txt"
: >"$WORK/one_decoder.txt"
: >"$WORK/one_decoder_whole.txt"
run=1
while [ "$run" -le "$RUNS" ]; do
    # JSON: the times with all their digits (the console rounds them to three, a third of a
    # per cent of a 3 ms decode). Google Benchmark writes one key a line.
    run_bench --benchmark_filter='H264_(Decode|Whole)/scene:0' --benchmark_repetitions="$REPS" \
        --benchmark_enable_random_interleaving=true --benchmark_report_aggregates_only=true
    #   "name": "BM_Turn_H264_Decode/scene:0/process_time/real_time_median",
    #   ...
    #   "real_time": 3.1023442238938324e+00,
    #   ...
    #   "time_unit": "ms",
    line=$(awk '/"name":/ { name = $2; real = ""; next }
                /"real_time":/ { real = $2; sub(/,$/, "", real); next }
                /"time_unit": "ms"/ && name ~ /_median",$/ {
                    if (name ~ /H264_Decode\//) decode = real + 0; else if (name ~ /H264_Whole\//) whole = real + 0
                }
                END { if (decode > 0 && whole > 0) printf "%.4f %.3f %.3f\n", whole / decode, decode, whole }' "$WORK/run.txt")
    if [ -z "$line" ]; then
        echo "$BENCH_NAME: no Decode and Whole medians in detector_bench's output:" >&2
        cat "$WORK/run.txt" "$WORK/err.txt" >&2
        exit 1
    fi
    set -- $line
    echo "run $run: decode $2 ms, whole turn $3 ms, ratio $1"
    echo "$1" >>"$WORK/ratios.txt"

    run_bench --benchmark_filter='H264_TurnOverDecode' --benchmark_min_time="$MIN_TIME"
    #   "decode_us": 3.1094e+03,
    #   "ratio": 1.0353e+00,
    #   "turn_us": 3.2191e+03,
    #   "whole_ratio": 1.0321e+00,
    line=$(awk '/"decode_us":/ { d = $2; sub(/,$/, "", d); d += 0 }
                /"ratio":/ { r = $2; sub(/,$/, "", r); r += 0 }
                /"turn_us":/ { t = $2; sub(/,$/, "", t); t += 0 }
                /"whole_ratio":/ { w = $2; sub(/,$/, "", w); w += 0 }
                END { if (d > 0 && r > 0 && t > 0 && w > 0) printf "%.4f %.3f %.3f %.4f\n", r, d / 1000, t / 1000, w }' "$WORK/run.txt")
    if [ -z "$line" ]; then
        echo "$BENCH_NAME: no TurnOverDecode ratio in detector_bench's output:" >&2
        cat "$WORK/run.txt" "$WORK/err.txt" >&2
        exit 1
    fi
    set -- $line
    echo "run $run, one decoder: decode $2 ms, whole turn $3 ms, ratio $1; pictures decoded whole: ratio $4"
    echo "$1" >>"$WORK/one_decoder.txt"
    echo "$4" >>"$WORK/one_decoder_whole.txt"
    run=$((run + 1))
done
echo "median ratio of $RUNS runs: $(bench_median <"$WORK/ratios.txt")"
echo "median ratio of $RUNS runs on one decoder: $(bench_median <"$WORK/one_decoder.txt")"
echo "median ratio of $RUNS runs on one decoder, pictures decoded whole: $(bench_median <"$WORK/one_decoder_whole.txt")"
