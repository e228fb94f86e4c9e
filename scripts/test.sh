#!/usr/bin/env bash
# Installs what is missing, builds with a CMake preset (default: "default") and runs the tests.
set -euo pipefail
cd "$(dirname "$0")/.."

preset="${1:-default}"
scripts/setup.sh
cmake --preset "$preset"
cmake --build --preset "$preset"
ctest --preset "$preset"
