#!/bin/sh
# CPU of "twhost detect FILE" against ffmpeg decoding the same file's key frames only
# ("ffmpeg -threads 1 -skip_frame nokey -i FILE -f null -"): the detector decodes one key
# frame per 300 ms turn, so a key-frame-only decode is the floor of what it has to do.
# With --exact-decode too, to show what skipping the H.264 loop filter saves.
#
# Usage: detect_vs_ffmpeg.sh [BUILD_DIR] [RUNS] [DURATION_SECONDS] [GOP_FRAMES]
#   BUILD_DIR  build tree holding bin/twhost (default: ../build next to this script)
#   RUNS       runs of each command, taken in turns; medians are compared (default 5)
#   DURATION   length of the clip in seconds (default 60)
#   GOP        key-frame interval in frames at 25 fps (default 25: one key frame a second)
#
# The clip is "twhost sample" at 1920x1080 H.264: a textured scene with per-pixel grain
# (sensor noise) in which a bright square moves twice; written into a temporary directory
# and removed at exit. CPU is user + system time of each whole process, set-up included.
# BITRATE (kbit/s, default 4000, as a camera set for 1080p sends) sets the clip's bit rate;
# BITRATE= (empty) keeps the sample's grain at constant quality, key frames of about 520 KiB.
# Needs the ffmpeg program (Debian package "ffmpeg": apt-get install ffmpeg).

set -eu

SCRIPT_DIR=$(cd "$(dirname "$0")" && pwd)
BENCH_NAME=detect_vs_ffmpeg
. "$SCRIPT_DIR/common.sh"
BUILD_DIR=${1:-"$SCRIPT_DIR/../build"}
RUNS=${2:-5}
DURATION=${3:-60}
GOP=${4:-25}
BITRATE=${BITRATE-4000}
RATE_TEXT=${BITRATE:+$BITRATE kbit/s}
RATE_TEXT=${RATE_TEXT:-constant quality}

if ! command -v ffmpeg >/dev/null 2>&1; then
    echo "detect_vs_ffmpeg: needs the ffmpeg program; install it with: apt-get install ffmpeg" >&2
    exit 2
fi
case "$RUNS" in
    '' | *[!0-9]* | 0) echo "detect_vs_ffmpeg: RUNS must be a positive integer, not '$RUNS'" >&2; exit 2 ;;
esac

bench_setup "$BUILD_DIR"
CLIP="$WORK/clip1080p.mp4"
bench_sample "$CLIP" --size 1920x1080 --duration "$DURATION" --gop "$GOP" ${BITRATE:+--bitrate "$BITRATE"}
echo "clip: 1920x1080 H.264, $DURATION s, key frame every $GOP frames at 25 fps, $RATE_TEXT ($(wc -c <"$CLIP") bytes)"

# CPU seconds of one run of the command given as arguments.
cpu_of() {
    bench_mark_cpu
    "$@" >"$WORK/out.txt" 2>&1 || { echo "detect_vs_ffmpeg: failed: $*" >&2; cat "$WORK/out.txt" >&2; exit 1; }
    bench_take_cpu
    echo "$BENCH_CPU"
}

: >"$WORK/ffmpeg.txt"
: >"$WORK/detect.txt"
: >"$WORK/exact.txt"
run=1
while [ "$run" -le "$RUNS" ]; do
    cpu_of ffmpeg -nostdin -hide_banner -loglevel error -threads 1 -skip_frame nokey -i "$CLIP" -f null - >>"$WORK/ffmpeg.txt"
    cpu_of "$TWHOST" detect "$CLIP" --json >>"$WORK/detect.txt"
    cpu_of "$TWHOST" detect "$CLIP" --json --exact-decode >>"$WORK/exact.txt"
    run=$((run + 1))
done

F=$(bench_median <"$WORK/ffmpeg.txt")
D=$(bench_median <"$WORK/detect.txt")
E=$(bench_median <"$WORK/exact.txt")
echo "median CPU seconds over $RUNS runs each (taken in turns):"
echo "  ffmpeg -threads 1 -skip_frame nokey   $F"
echo "  twhost detect                          $D   ($(awk -v d="$D" -v f="$F" 'BEGIN { printf "%.2fx", d / f }') ffmpeg)"
echo "  twhost detect --exact-decode           $E   ($(awk -v d="$E" -v f="$F" 'BEGIN { printf "%.2fx", d / f }') ffmpeg)"
