#!/usr/bin/env bash
# Builds libKorvane.so and runs the bundled demo.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh demo
cmake --preset demo
cmake --build --preset demo
build/demo/demo/korvane-demo
