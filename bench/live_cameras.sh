#!/bin/sh
# Many live cameras in one process: "twhost detect CLIP CLIP ... --realtime" runs one motion
# detector per copy of a 1080p H.264 clip (GOP 1 s), each with its own FIFO, pump and thread,
# as a recorder runs its cameras. For each number of cameras it reports the CPU per camera
# (% of one core) and how late the detectors' turns started after their 300 ms slots.
# It also puts one live camera beside the same clip judged offline in virtual time: the same
# key frames decoded and compared, without any pacing, which is what the live camera's
# pacing costs on top of.
#
# Usage: live_cameras.sh [BUILD_DIR] [COUNTS] [SECONDS]
#   BUILD_DIR  build tree holding bin/twhost (default: ../build next to this script)
#   COUNTS     numbers of cameras, quoted, e.g. "1 8 16 32 80" (default "1 8 16 32")
#   SECONDS    length of the clip, i.e. of each run in step (default 20); a run apart
#              lasts twice that
#
# The clip is written with "twhost sample" into a temporary directory and removed at exit.
# CPU figures are the user + system time of the whole twhost process, set-up included.
# Each count runs twice:
# - in step: the cameras start one after another over one second (--stagger 1, the clip's
#   GOP), each from the clip's start. Copies of one file started together would have their
#   key frames, and so their decodes, in lock-step; STAGGER=0 in the environment starts
#   them so, the worst case. Even staggered, all show the same second of the clip at once,
#   and the seconds with its largest key frames ask every camera for its costliest decode
#   together, which no set of real cameras on different scenes does.
# - apart: each camera loops the clip (--loop) and they start over its whole length
#   (--stagger SECONDS), so each shows a different second of it; every camera then runs
#   for SECONDS (--duration), the last SECONDS of the run with all of them at once.
# BITRATE (kbit/s, default 4000, as a camera set for 1080p
# sends) sets the clip's bit rate; BITRATE= (empty) keeps the sample's grain at constant
# quality, key frames of about 520 KiB.

set -eu

SCRIPT_DIR=$(cd "$(dirname "$0")" && pwd)
BENCH_NAME=live_cameras
. "$SCRIPT_DIR/common.sh"
BUILD_DIR=${1:-"$SCRIPT_DIR/../build"}
COUNTS=${2:-"1 8 16 32"}
SECONDS_=${3:-20}
STAGGER=${STAGGER:-1}
BITRATE=${BITRATE-4000}
RATE_TEXT=${BITRATE:+$BITRATE kbit/s}
RATE_TEXT=${RATE_TEXT:-constant quality}

for n in $COUNTS; do
    case "$n" in
        '' | *[!0-9]* | 0) echo "live_cameras: COUNTS must hold positive integers, not '$n'" >&2; exit 2 ;;
    esac
done

bench_setup "$BUILD_DIR"
CLIP="$WORK/clip1080p.mp4"

echo "twhost:   $TWHOST"
echo "clip:     1920x1080 H.264, 25 fps, a key frame every second, $SECONDS_ s, $RATE_TEXT"
echo "stagger:  the cameras start over $STAGGER s"
echo "machine:  $(nproc) cores, load average $(cut -d' ' -f1-3 /proc/loadavg) at the start"
bench_sample "$CLIP" --size 1920x1080 --gop 25 --duration "$SECONDS_" ${BITRATE:+--bitrate "$BITRATE"}


# Runs twhost detect with the given arguments, its JSON lines into $WORK/out.json; sets
# RUN_CPU to the CPU seconds it used.
run_detect() {
    bench_mark_cpu
    if ! "$TWHOST" detect "$@" --json >"$WORK/out.json" 2>"$WORK/err.txt"; then
        echo "live_cameras: twhost detect failed:" >&2
        cat "$WORK/err.txt" >&2
        exit 1
    fi
    bench_take_cpu
    RUN_CPU=$BENCH_CPU
}

# One live camera against the same clip offline.
run_detect "$CLIP"
cpuOffline=$RUN_CPU
run_detect "$CLIP" --realtime
cpuLive=$RUN_CPU
echo
echo "one camera, the same $SECONDS_ s clip:"
awk -v off="$cpuOffline" -v live="$cpuLive" -v s="$SECONDS_" 'BEGIN {
    printf "  offline (virtual time, no pacing): %.2f s CPU\n", off;
    printf "  live (--realtime):                 %.2f s CPU = %.2f %% of a core; %.2fx the offline run\n",
           live, 100 * live / s, live / off;
}'

echo
# One row of a table: n cameras; in step (MODE=step) or apart (MODE=apart).
run_count() {
    n=$1
    mode=$2
    set --
    i=0
    while [ "$i" -lt "$n" ]; do
        set -- "$@" "$CLIP"
        i=$((i + 1))
    done
    if [ "$n" -eq 1 ]; then
        run_detect "$@" --realtime
        camSeconds=0
    elif [ "$mode" = step ]; then
        run_detect "$@" --realtime --stagger "$STAGGER"
        camSeconds=0
    else
        # Camera k of n starts k/n of the clip's length after the first and all run until
        # the last has had its SECONDS_: n * SECONDS_ + SECONDS_ * (n - 1) / 2 camera-seconds.
        run_detect "$@" --realtime --loop --stagger "$SECONDS_" --duration "$SECONDS_"
        camSeconds=$(awk -v n="$n" -v s="$SECONDS_" 'BEGIN { print n * s + s * (n - 1) / 2 }')
    fi
    cpu=$RUN_CPU
    grep '"type":"summary"' "$WORK/out.json" | awk -v n="$n" -v cpu="$cpu" -v camSeconds="$camSeconds" '
        function field(line, name,   s) {
            if (!match(line, "\"" name "\":[0-9.eE+-]+")) return "";
            s = substr(line, RSTART, RLENGTH);
            sub(/^[^:]*:/, "", s);
            return s + 0;
        }
        {
            ++cams;
            wall = field($0, "wallSeconds");
            if (!match($0, /"lateness":\{[^}]*\}/)) { print "live_cameras: a summary without lateness: " $0 > "/dev/stderr"; exit 1 }
            late = substr($0, RSTART, RLENGTH);
            turns += field(late, "turns");
            over += field(late, "over100Ms");
            p = field(late, "p99Ms"); if (p > p99) p99 = p;
            m = field(late, "maxMs"); if (m > max) max = m;
        }
        END {
            if (cams != n) { printf "live_cameras: %d summaries for %d cameras\n", cams, n > "/dev/stderr"; exit 1 }
            if (camSeconds <= 0) camSeconds = wall * n;
            perCam = 100 * cpu / camSeconds;
            printf "%7d  %25.2f  %12.0f  %5d  %20.1f ms  %6.1f ms  %13d\n", n, perCam, 100 / perCam, turns, p99, max, over;
        }'
}

HEADER="cameras  CPU/camera (% of a core)  cameras/core  turns  late p99 (worst camera)  late max  turns >100 ms"
echo
echo "copies in step: the cameras start over $STAGGER s, each at the clip's start, so at any moment"
echo "they all show the same second of it, its largest key frames included"
echo "$HEADER"
for n in $COUNTS; do
    run_count "$n" step
done

echo
echo "copies apart: each camera plays the clip over and over (--loop) and they start over its"
echo "$SECONDS_ s, so at any moment they show different seconds of it, as cameras on different"
echo "scenes do; all run until the last has had $SECONDS_ s (CPU per camera-second)"
echo "$HEADER"
for n in $COUNTS; do
    [ "$n" -gt 1 ] || continue
    run_count "$n" apart
done
