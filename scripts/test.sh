#!/usr/bin/env bash
# Set-up, build (normal, ASan+UBSan and TSan), then the whole test suite in the first two
# builds and the concurrency tests under TSan, then a bounded run of the fuzz targets
# (clang, libFuzzer).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh --asan --tsan
JOBS=$(nproc 2>/dev/null || echo 2)
# Each build gets its own shared-memory key space so that the runs cannot meet.
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
echo "== tests (normal build)"
(cd build && TW_SHM_KEY_BASE=0x54570000 ctest -j"$JOBS" --output-on-failure --timeout 300 "$@")
echo "== tests (ASan + UBSan build)"
(cd build-asan && TW_SHM_KEY_BASE=0x54670000 ctest -j"$JOBS" --output-on-failure --timeout 600 "$@")
echo "== concurrency tests (TSan build)"
# A whole run must find them; a selection given on the command line may leave none.
TSAN_SELECT=(--no-tests=error)
(($#)) && TSAN_SELECT=(--no-tests=ignore)
(cd build-tsan && TW_SHM_KEY_BASE=0x54770000 TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1} \
   ctest -j"$JOBS" --output-on-failure --timeout 600 "${TSAN_SELECT[@]}" -L race "$@")
echo "== fuzzing the input parsers (bounded)"
scripts/fuzz.sh -t "${TW_FUZZ_SECONDS:-30}"
