#!/usr/bin/env bash
# Set-up, build, then the main job: motion detection on the built-in sample.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
exec build/bin/twhost detect "$@"
