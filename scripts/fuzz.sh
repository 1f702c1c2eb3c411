#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (everything instrumented: libFuzzer coverage,
# AddressSanitizer, UndefinedBehaviorSanitizer) into build-fuzz/ and runs each target for a
# bounded time on a copy of its seeds, so the repository is not modified. The targets: the
# live-cam stream parser, the WAV chunk walk, the motion detector's turn on H.264, HEVC,
# MPEG-4 and MJPEG frames (decode, scale, grey, judgement), the region string, the mobile-
# daemon emulator's script and the requests of "twhost ioaction". Prints per target the
# number of executions and the coverage, then a summary; exits non-zero when a target
# crashed, leaked, timed out or tripped a sanitizer, leaving the reproducer in
# <build dir>/fuzz-artifacts/ (the other targets still run).
#
#   scripts/fuzz.sh [-t SECONDS] [-b BUILD_DIR] [-o TARGET]... [-- extra libFuzzer flags]
#
# SECONDS (per target) defaults to 60 (also settable as TW_FUZZ_SECONDS); BUILD_DIR to
# build-fuzz. -o runs only the named target (repeatable; e.g. -o region_fuzz).
set -euo pipefail
cd "$(dirname "$0")/.."

SECONDS_TO_RUN=${TW_FUZZ_SECONDS:-60}
BUILD_DIR=build-fuzz
ALL_TARGETS=(livecam_stream_fuzz wav_parser_fuzz detect_h264_fuzz detect_hevc_fuzz detect_mpeg4_fuzz
             detect_mjpeg_fuzz region_fuzz mobiled_script_fuzz ioaction_request_fuzz)
ONLY=()

usage() { sed -n '2,17s/^# \{0,1\}//p' "$0"; }
while (($#)); do
  case "$1" in
    -t) [[ $# -ge 2 ]] || { echo "fuzz.sh: -t needs a number of seconds" >&2; exit 2; }
        SECONDS_TO_RUN=$2; shift 2 ;;
    -b) [[ $# -ge 2 ]] || { echo "fuzz.sh: -b needs a build directory" >&2; exit 2; }
        BUILD_DIR=$2; shift 2 ;;
    -o) [[ $# -ge 2 ]] || { echo "fuzz.sh: -o needs a target name" >&2; exit 2; }
        [[ " ${ALL_TARGETS[*]} " == *" $2 "* ]] || {
          echo "fuzz.sh: unknown target '$2' (known: ${ALL_TARGETS[*]})" >&2; exit 2; }
        ONLY+=("$2"); shift 2 ;;
    -h|--help) usage; exit 0 ;;
    --) shift; break ;;
    *) echo "fuzz.sh: unknown argument '$1' (see --help)" >&2; exit 2 ;;
  esac
done
if ! [[ "$SECONDS_TO_RUN" =~ ^[1-9][0-9]*$ ]]; then
  echo "fuzz.sh: the run time must be a positive number of seconds, not '$SECONDS_TO_RUN'" >&2
  exit 2
fi

# clang with its libFuzzer runtime (libclang-rt-14-dev), plus what the normal build needs.
PACKAGES=(clang-14 libclang-rt-14-dev cmake pkg-config
          libjsoncpp-dev libjpeg62-turbo-dev
          libavformat-dev libavcodec-dev libswscale-dev libavutil-dev libmodbus-dev)
. scripts/packages.sh
ensure_packages "${PACKAGES[@]}"

CC_BIN=$(command -v clang-14 || command -v clang || true)
CXX_BIN=$(command -v clang++-14 || command -v clang++ || true)
if [[ -z "$CC_BIN" || -z "$CXX_BIN" ]]; then
  echo "fuzz.sh: clang/clang++ not found after installing clang-14" >&2
  exit 1
fi

JOBS=$(nproc 2>/dev/null || echo 2)
mkdir -p "$BUILD_DIR"
# CMake drops the -D options of a cache whose compiler changes; start such a cache afresh.
cache="$BUILD_DIR/CMakeCache.txt"
if [[ -f "$cache" ]] && { ! grep -qxF "CMAKE_CXX_COMPILER:STRING=$CXX_BIN" "$cache" ||
                          ! grep -qxF "CMAKE_C_COMPILER:STRING=$CC_BIN" "$cache"; }; then
  rm -rf "$cache" "$BUILD_DIR/CMakeFiles"
fi
cmake -S . -B "$BUILD_DIR" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_C_COMPILER="$CC_BIN" -DCMAKE_CXX_COMPILER="$CXX_BIN" \
  -DTW_FUZZ=ON -DTW_BUILD_TESTS=OFF -DTW_BUILD_BENCH=OFF > "$BUILD_DIR/configure.log" 2>&1 || {
  cat "$BUILD_DIR/configure.log"; exit 1; }
TARGETS=("${ALL_TARGETS[@]}")
((${#ONLY[@]})) && TARGETS=("${ONLY[@]}")
BUILD_TARGETS=("${TARGETS[@]}")
[[ " ${TARGETS[*]} " == *" detect_"* ]] && BUILD_TARGETS+=(make_detect_seeds)
cmake --build "$BUILD_DIR" -j"$JOBS" --target "${BUILD_TARGETS[@]}"

WORK=$(mktemp -d "${TMPDIR:-/tmp}/tw-fuzz.XXXXXX")
trap 'rm -rf "$WORK"' EXIT
ARTIFACTS="$PWD/$BUILD_DIR/fuzz-artifacts"
mkdir -p "$ARTIFACTS"
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

# run_target TARGET CORPUS_DIR [libFuzzer flags...]: fuzzes TARGET on CORPUS_DIR (a copy)
# unless -o left it out; records its figures for the summary and whether it failed.
SUMMARY=()
FAILED=()
run_target() {
  local target=$1 corpus=$2; shift 2
  [[ " ${TARGETS[*]} " == *" $target "* ]] || return 0
  echo "== $target for $SECONDS_TO_RUN s"
  set +e
  "$BUILD_DIR/bin/$target" -max_total_time="$SECONDS_TO_RUN" -timeout=20 -print_final_stats=1 \
    -artifact_prefix="$ARTIFACTS/" "$@" "$corpus" > "$WORK/$target.log" 2>&1
  local rc=$?
  set -e
  local execs last cov ft corp
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$WORK/$target.log" | tail -n 1)
  last=$(grep -E '^#[0-9]+' "$WORK/$target.log" | tail -n 1 || true)
  cov=$(sed -n 's/.* cov: \([0-9]*\).*/\1/p' <<< "$last")
  ft=$(sed -n 's/.* ft: \([0-9]*\).*/\1/p' <<< "$last")
  corp=$(sed -n 's/.* corp: \([0-9]*\/[0-9]*[a-zA-Z]*\).*/\1/p' <<< "$last")
  echo "executions: ${execs:-unknown}"
  echo "coverage: ${cov:-unknown} edges, ${ft:-unknown} features, corpus ${corp:-unknown}"
  local result="no finding"
  if ((rc != 0)); then
    # The report (sanitizer trace or the harness's own message) and where the input went.
    grep -vE '^#[0-9]+|^INFO:' "$WORK/$target.log" | tail -n 80 >&2
    echo "fuzz.sh: $target failed (exit $rc); reproduce with: $BUILD_DIR/bin/$target <artifact from $ARTIFACTS>" >&2
    result="FAILED (exit $rc)"
    FAILED+=("$target")
  else
    echo "no crash"
  fi
  SUMMARY+=("$(printf '%-22s %12s %7s %8s  %s' "$target" "${execs:-?}" "${cov:-?}" "${ft:-?}" "$result")")
}

# The live-cam stream: full-length inputs from the start, since the buffer's overflow path
# needs more than 2046 bytes in one connection, which libFuzzer's gradual growth of input
# length does not reach in a minute.
mkdir -p "$WORK/livecam"
cp fuzz/corpus/livecam_stream/* "$WORK/livecam/"
run_target livecam_stream_fuzz "$WORK/livecam" -max_len=4096 -len_control=0 "$@"

# WAV files: seeds made here (a canonical header, a LIST chunk with its pad byte before the
# data, a data chunk whose size runs past the end), so no binary is kept in the repository.
mkdir -p "$WORK/wav"
fmt='fmt \x10\x00\x00\x00\x01\x00\x01\x00\x40\x1f\x00\x00\x80\x3e\x00\x00\x02\x00\x10\x00'
printf "RIFF\x28\x00\x00\x00WAVE${fmt}data\x04\x00\x00\x00\x01\x02\x03\x04" > "$WORK/wav/canonical"
printf "RIFF\x36\x00\x00\x00WAVE${fmt}LIST\x05\x00\x00\x00INFOx\x00data\x02\x00\x00\x00\x01\x02" > "$WORK/wav/list_pad"
printf "RIFF\xff\xff\xff\xffWAVE${fmt}data\xff\xff\x00\x00\x01\x02" > "$WORK/wav/long_data"
run_target wav_parser_fuzz "$WORK/wav" -max_len=512 "$@"

# The detector's turn: seeds are small frames of the host's synthetic scene, encoded here
# (a few KiB each), so no encoded media is kept in the repository. Inputs hold several
# frames, hence the larger length limit.
for codec in h264 hevc mpeg4 mjpeg; do
  [[ " ${TARGETS[*]} " == *" detect_${codec}_fuzz "* ]] || continue
  mkdir -p "$WORK/detect_$codec"
  # libx265 keeps a few buffers past x265_encoder_close (see tests/lsan.supp).
  LSAN_OPTIONS=suppressions=$PWD/tests/lsan.supp "$BUILD_DIR/bin/make_detect_seeds" "$codec" "$WORK/detect_$codec"
  run_target "detect_${codec}_fuzz" "$WORK/detect_$codec" -max_len=16384 "$@"
done

# The text parsers, on the seeds kept in fuzz/corpus/.
for parser in region mobiled_script ioaction_request; do
  mkdir -p "$WORK/$parser"
  cp fuzz/corpus/$parser/* "$WORK/$parser/"
  run_target "${parser}_fuzz" "$WORK/$parser" -max_len=4096 "$@"
done

echo "== summary ($SECONDS_TO_RUN s per target)"
printf '%-22s %12s %7s %8s  %s\n' target executions edges features result
printf '%s\n' "${SUMMARY[@]}"
if ((${#FAILED[@]})); then
  echo "fuzz.sh: failed: ${FAILED[*]} (reproducers in $ARTIFACTS)" >&2
  exit 1
fi
