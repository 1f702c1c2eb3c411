# Shared by the benchmark scripts (sourced, never run): finding twhost, a scratch folder,
# the clip, CPU seconds of finished child processes and medians.
#
# Before sourcing, a script sets BENCH_NAME (its name in messages) and SCRIPT_DIR.

# bench_workdir: sets WORK, a scratch folder removed when the script ends.
bench_workdir() {
    WORK=$(mktemp -d "${TMPDIR:-/tmp}/$BENCH_NAME.XXXXXX")
    trap 'rm -rf "$WORK"' EXIT INT TERM
}

# bench_setup BUILD_DIR: sets TWHOST (exit 2 when the build has none) and WORK.
bench_setup() {
    TWHOST="$1/bin/twhost"
    if [ ! -x "$TWHOST" ]; then
        echo "$BENCH_NAME: no twhost binary at $TWHOST (build the twhost_tool target, or pass the build directory)" >&2
        exit 2
    fi
    bench_workdir
}

# bench_positive NAME VALUE: exit 2 unless VALUE is a positive integer.
bench_positive() {
    case "$2" in
        '' | *[!0-9]* | 0) echo "$BENCH_NAME: $1 must be a positive integer, not '$2'" >&2; exit 2 ;;
    esac
}

# bench_sample CLIP [twhost sample options...]: writes the clip or ends the script with
# what twhost sample said.
bench_sample() {
    clip=$1
    shift
    "$TWHOST" sample "$clip" "$@" >"$WORK/sample.log" 2>&1 || {
        echo "$BENCH_NAME: twhost sample failed:" >&2
        cat "$WORK/sample.log" >&2
        exit 1
    }
}

# CPU seconds (user + system) of this shell's finished children, from the second line of
# what "times" last wrote into $WORK/times.txt. "times" itself must run in the script's own
# shell (bench_mark_cpu), never in a command substitution: that is a fresh subshell, which
# has no finished children.
children_cpu() {
    awk 'NR == 2 {
        total = 0;
        for (i = 1; i <= 2; ++i) { split($i, t, /[ms]/); total += t[1] * 60 + t[2] }
        printf "%.3f\n", total;
    }' "$WORK/times.txt"
}

# bench_mark_cpu notes the children's CPU seconds so far; bench_take_cpu then sets
# BENCH_CPU to the seconds used since. Both must run in the script's own shell (not inside
# $(...)), for the reason above.
bench_mark_cpu() {
    times >"$WORK/times.txt"
    BENCH_CPU_MARK=$(children_cpu)
}
bench_take_cpu() {
    times >"$WORK/times.txt"
    BENCH_CPU=$(awk -v a="$(children_cpu)" -v b="$BENCH_CPU_MARK" 'BEGIN { printf "%.3f\n", a - b }')
}

# The median of the numbers on standard input, one a line.
bench_median() {
    sort -n | awk '{ v[NR] = $1 } END { if (NR % 2) print v[(NR + 1) / 2]; else printf "%.3f\n", (v[NR / 2] + v[NR / 2 + 1]) / 2 }'
}
