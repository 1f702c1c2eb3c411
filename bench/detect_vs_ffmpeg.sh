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
BUILD_DIR=${1:-"$SCRIPT_DIR/../build"}
RUNS=${2:-5}
DURATION=${3:-60}
GOP=${4:-25}
BITRATE=${BITRATE-4000}
RATE_TEXT=${BITRATE:+$BITRATE kbit/s}
RATE_TEXT=${RATE_TEXT:-constant quality}

TWHOST="$BUILD_DIR/bin/twhost"
if [ ! -x "$TWHOST" ]; then
    echo "detect_vs_ffmpeg: no twhost binary at $TWHOST (build the twhost_tool target, or pass the build directory)" >&2
    exit 2
fi
if ! command -v ffmpeg >/dev/null 2>&1; then
    echo "detect_vs_ffmpeg: needs the ffmpeg program; install it with: apt-get install ffmpeg" >&2
    exit 2
fi
case "$RUNS" in
    '' | *[!0-9]* | 0) echo "detect_vs_ffmpeg: RUNS must be a positive integer, not '$RUNS'" >&2; exit 2 ;;
esac

WORK=$(mktemp -d "${TMPDIR:-/tmp}/detect_vs_ffmpeg.XXXXXX")
trap 'rm -rf "$WORK"' EXIT INT TERM
CLIP="$WORK/clip1080p.mp4"
"$TWHOST" sample "$CLIP" --size 1920x1080 --duration "$DURATION" --gop "$GOP" ${BITRATE:+--bitrate "$BITRATE"} >"$WORK/sample.log" 2>&1 || {
    echo "detect_vs_ffmpeg: twhost sample failed:" >&2
    cat "$WORK/sample.log" >&2
    exit 1
}
echo "clip: 1920x1080 H.264, $DURATION s, key frame every $GOP frames at 25 fps, $RATE_TEXT ($(wc -c <"$CLIP") bytes)"

# Seconds of CPU used by this shell's finished children so far (second line of "times").
children_cpu() {
    awk 'NR == 2 {
        total = 0;
        for (i = 1; i <= 2; ++i) { split($i, t, /[ms]/); total += t[1] * 60 + t[2] }
        printf "%.3f\n", total;
    }' "$WORK/times.txt"
}

# CPU seconds of one run of the command given as arguments.
cpu_of() {
    times >"$WORK/times.txt"
    before=$(children_cpu)
    "$@" >"$WORK/out.txt" 2>&1 || { echo "detect_vs_ffmpeg: failed: $*" >&2; cat "$WORK/out.txt" >&2; exit 1; }
    times >"$WORK/times.txt"
    after=$(children_cpu)
    awk -v a="$after" -v b="$before" 'BEGIN { printf "%.3f\n", a - b }'
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

median() { sort -n "$1" | awk '{ v[NR] = $1 } END { if (NR % 2) print v[(NR + 1) / 2]; else printf "%.3f\n", (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }
F=$(median "$WORK/ffmpeg.txt")
D=$(median "$WORK/detect.txt")
E=$(median "$WORK/exact.txt")
echo "median CPU seconds over $RUNS runs each (taken in turns):"
echo "  ffmpeg -threads 1 -skip_frame nokey   $F"
echo "  twhost detect                          $D   ($(awk -v d="$D" -v f="$F" 'BEGIN { printf "%.2fx", d / f }') ffmpeg)"
echo "  twhost detect --exact-decode           $E   ($(awk -v d="$E" -v f="$F" 'BEGIN { printf "%.2fx", d / f }') ffmpeg)"
