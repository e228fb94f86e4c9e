#!/usr/bin/env bash
# Builds the API reference from the public headers' comments into build/docs/html.
# Any doxygen warning fails it, so that the comments stay readable as a reference.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh doxygen

# The version shown on every page is the one CMake builds.
ORVIX_VERSION="$(sed -n 's/^project(orvix VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)"
export ORVIX_VERSION

rm -rf build/docs
mkdir -p build/docs
if ! doxygen docs/Doxyfile; then
    echo "API reference not built: doxygen's warnings above point at the comments to fix." >&2
    exit 1
fi
echo "API reference built: build/docs/html/index.html"
