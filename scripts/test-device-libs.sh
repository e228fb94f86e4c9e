#!/usr/bin/env bash
# Builds everything (library, tools, examples, tests, benchmarks) with -DORVIX_HOSTBUS=OFF
# against libubox and libubus installed as on a device, and runs the unit, integration and
# install tests. Those libraries are hostbus's, installed into a prefix in the device's
# layout: libubox/*.h, libubus.h, ubusmsg.h, ubus_common.h under include/, libubox.so and
# libubus.so under lib/. The integration tests use hostbus's daemon.
# Argument: the build directory (default: build/device-libs).
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh libbenchmark-dev

build="$(realpath -m "${1:-build/device-libs}")"
libs="$build/libs"
prefix="$build/prefix"
project="$build/project"

cmake -S . -B "$libs" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DORVIX_HOSTBUS=ON \
    -DORVIX_BUILD_TESTS=OFF -DORVIX_BUILD_EXAMPLES=OFF -DCMAKE_INSTALL_LIBDIR=lib
cmake --build "$libs" --target ubox ubus orvix-ubusd
rm -rf "$prefix"
cmake --install "$libs" --component ubus --prefix "$prefix"

cmake -S . -B "$project" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DORVIX_HOSTBUS=OFF \
    -DCMAKE_PREFIX_PATH="$prefix" -DORVIX_WERROR=ON -DORVIX_BUILD_BENCH=ON \
    -DORVIX_TEST_UBUSD="$libs/hostbus/daemon/orvix-ubusd"
# It compiles and links with the installed headers and libraries only, nothing of hostbus's.
if grep -q "$PWD/hostbus/" "$project/build.ninja"; then
    echo "The build uses $PWD/hostbus/ (see $project/build.ninja)" >&2
    exit 1
fi
cmake --build "$project"
ctest --test-dir "$project" -L '^(unit|integration|install)$' -j 2 --timeout 300 --output-on-failure
