#!/usr/bin/env bash
# Installs what the build needs (Debian packages) and builds into build/ (and, with
# --asan, into build-asan/ with AddressSanitizer and UndefinedBehaviorSanitizer).
set -euo pipefail
cd "$(dirname "$0")/.."

PACKAGES=(build-essential cmake pkg-config
          libjsoncpp-dev libjpeg62-turbo-dev
          libavformat-dev libavcodec-dev libswscale-dev libavutil-dev
          libgtest-dev libgmock-dev libbenchmark-dev libcli11-dev)

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
if [[ "${1:-}" == "--asan" ]]; then
  mkdir -p build-asan
  build build-asan -DTW_SANITIZE=ON -DTW_BUILD_BENCH=OFF
fi
