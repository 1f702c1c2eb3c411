#!/bin/sh
# Verdict agreement between the detector's default decoding (H.264/HEVC without the in-loop
# deblocking filter) and exact decoding ("twhost detect --exact-decode"), turn by turn.
#
# Usage: decode_agreement.sh [BUILD_DIR] [BENCH_SECONDS]
#   BUILD_DIR      build tree holding bin/twhost (default: ../build next to this script)
#   BENCH_SECONDS  length of the 1080p bench clip (default 60)
#
# The clips are made with "twhost sample" into a temporary directory, removed at exit: the
# codecs and sizes the tests make their clips in (MJPEG, MPEG-4 and H.264 at 320x180, H.264
# at 640x360 as "twhost sample" and "twhost detect" without a source use it, HEVC at
# 640x360, all with a key frame every 6 frames), and a 1920x1080 H.264 clip with a key frame
# a second as cameras send them, at constant quality (grainy, key frames of about 520 KiB)
# and at a camera's 4 Mbit/s in H.264 and HEVC. Each is judged twice with --json; a turn's
# verdict agrees when both runs give the same motion flag at the same time, its value when
# the detection value is the same too. Prints, per clip, the turns, the share of turns whose
# verdicts agree, the share whose values also agree, and whether the motion intervals of
# the two summaries are the same. Exit status 1 when a clip's verdicts agree on fewer than
# 99.5 % of its turns or its intervals differ.

set -eu

SCRIPT_DIR=$(cd "$(dirname "$0")" && pwd)
BENCH_NAME=decode_agreement
. "$SCRIPT_DIR/common.sh"
BUILD_DIR=${1:-"$SCRIPT_DIR/../build"}
BENCH_SECONDS=${2:-60}


bench_setup "$BUILD_DIR"

# name codec size gop duration file
CLIPS="mjpeg_320x180 mjpeg 320x180 6 20 avi -
mpeg4_320x180 mpeg4 320x180 6 20 mp4 -
h264_320x180 h264 320x180 6 20 mp4 -
h264_640x360 h264 640x360 6 20 mp4 -
hevc_640x360 hevc 640x360 6 20 mp4 -
h264_1920x1080_gop25 h264 1920x1080 25 $BENCH_SECONDS mp4 -
h264_1080p_4mbit h264 1920x1080 25 $BENCH_SECONDS mp4 4000
hevc_1080p_4mbit hevc 1920x1080 25 $BENCH_SECONDS mp4 4000"

# "t motion value" per status line, in order.
statuses() {
    awk '/"type":"status"/ {
        t = $0; sub(/.*"t":/, "", t); sub(/[,}].*/, "", t);
        m = $0; sub(/.*"motion":/, "", m); sub(/[,}].*/, "", m);
        v = $0; sub(/.*"value":/, "", v); sub(/[,}].*/, "", v);
        print t, m, v }' "$1"
}

# The summary's intervals as they stand in the JSON text.
intervals() {
    awk '/"type":"summary"/ { s = $0; sub(/.*"intervals":/, "", s); sub(/\].*/, "]", s); print s }' "$1"
}

status=0
printf '%-22s %7s %9s %9s %s\n' clip turns verdicts values intervals
echo "$CLIPS" | while read -r name codec size gop duration ext rate; do
    clip="$WORK/$name.$ext"
    if ! "$TWHOST" sample "$clip" --codec "$codec" --size "$size" --gop "$gop" --duration "$duration" $( [ "$rate" = - ] || echo "--bitrate $rate") \
        >"$WORK/sample.log" 2>&1; then
        echo "decode_agreement: twhost sample failed for $name:" >&2
        cat "$WORK/sample.log" >&2
        exit 1
    fi
    for mode in default exact; do
        extra=""
        [ "$mode" = exact ] && extra="--exact-decode"
        # shellcheck disable=SC2086  # extra is one flag or nothing
        if ! "$TWHOST" detect "$clip" --json $extra >"$WORK/$name.$mode.json" 2>"$WORK/$name.$mode.err"; then
            echo "decode_agreement: twhost detect ($mode) failed on $name:" >&2
            cat "$WORK/$name.$mode.err" >&2
            exit 1
        fi
        statuses "$WORK/$name.$mode.json" >"$WORK/$name.$mode.turns"
    done
    result=$(paste -d' ' "$WORK/$name.default.turns" "$WORK/$name.exact.turns" | awk '
        { n++; if (NF == 6 && $1 == $4 && $2 == $5) { verdict++; if ($3 == $6) value++ } }
        END { if (n == 0) { print 0, "0.00", "0.00"; exit }
              printf "%d %.2f %.2f\n", n, 100.0 * verdict / n, 100.0 * value / n }')
    turnsA=$(wc -l <"$WORK/$name.default.turns")
    turnsB=$(wc -l <"$WORK/$name.exact.turns")
    turns=${result%% *}
    rest=${result#* }
    share=${rest% *}
    valueShare=${rest#* }
    if [ "$(intervals "$WORK/$name.default.json")" = "$(intervals "$WORK/$name.exact.json")" ]; then
        same="same"
    else
        same="DIFFERENT: $(intervals "$WORK/$name.default.json") vs $(intervals "$WORK/$name.exact.json")"
    fi
    note=""
    [ "$turnsA" -ne "$turnsB" ] && note=" (turns: $turnsA default, $turnsB exact)"
    printf '%-22s %7s %8s%% %8s%% %s%s\n' "$name" "$turns" "$share" "$valueShare" "$same" "$note"
    if [ "$same" != same ] || [ "$turnsA" -ne "$turnsB" ] ||
        awk -v s="$share" 'BEGIN { exit !(s < 99.5) }'; then
        echo "below the bar" >"$WORK/failed"
    fi
done
[ -e "$WORK/failed" ] && status=1
exit $status
