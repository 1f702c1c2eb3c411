#!/usr/bin/env bash
# Installs what the build needs (Debian packages) and builds into build/ (and, with
# --asan, into build-asan/ with AddressSanitizer and UndefinedBehaviorSanitizer; with
# --tsan, into build-tsan/ with ThreadSanitizer).
set -euo pipefail
cd "$(dirname "$0")/.."

PACKAGES=(build-essential cmake pkg-config
          libjsoncpp-dev libjpeg62-turbo-dev
          libavformat-dev libavcodec-dev libswscale-dev libswresample-dev libavutil-dev
          libgtest-dev libgmock-dev libbenchmark-dev libcli11-dev
          libmodbus-dev libcurl4-openssl-dev
          help2man lintian libssl-dev
          chromium)   # the browser test of twhost detect --report (headless)

. scripts/packages.sh
ensure_packages "${PACKAGES[@]}"

JOBS=$(nproc 2>/dev/null || echo 2)
build() {
  local dir=$1; shift
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" > "$dir.configure.log" 2>&1 || {
    cat "$dir.configure.log"; exit 1; }
  cmake --build "$dir" -j"$JOBS"
}

mkdir -p build
build build
for arg in "$@"; do
  case "$arg" in
    --asan)
      mkdir -p build-asan
      build build-asan -DTW_SANITIZE=ON -DTW_BUILD_BENCH=OFF ;;
    --tsan)
      # ThreadSanitizer: the plug-in, the host and the concurrency tests only.
      mkdir -p build-tsan
      build build-tsan -DTW_TSAN=ON -DTW_BUILD_BENCH=OFF ;;
    *)
      echo "setup.sh: unknown option '$arg' (known: --asan, --tsan)" >&2
      exit 2 ;;
  esac
done
