#!/usr/bin/env bash
# Cross-builds the library, hostbus and the tests for TARGET and runs them under qemu-user:
# mips is 32-bit big-endian (the wire's byte order, and ILP32), aarch64 is 64-bit little-endian.
# Extra arguments go to ctest (e.g. -L unit). The tests start the daemon and peers as
# processes, so the target's binaries must run directly: binfmt_misc is set up for qemu
# when it is not, which needs root.
set -euo pipefail
cd "$(dirname "$0")/.."

target="${1:-}"
case "$target" in
    mips | aarch64) triplet="$target-linux-gnu" ;;
    *)
        echo "usage: $0 mips|aarch64 [ctest arguments...]" >&2
        exit 2
        ;;
esac
shift
sysroot="/usr/$triplet"
build="build/cross-$target"
toolchain="$PWD/cmake/toolchains/$triplet.cmake"

scripts/setup.sh "g++-$triplet" qemu-user qemu-user-binfmt googletest

sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
binfmt=/proc/sys/fs/binfmt_misc
if ! grep -qx enabled "$binfmt/qemu-$target" 2>/dev/null; then
    [ -e "$binfmt/register" ] || $sudo mount -t binfmt_misc binfmt_misc "$binfmt"
    if [ -e "$binfmt/qemu-$target" ]; then
        echo 1 | $sudo tee "$binfmt/qemu-$target" >/dev/null
    else
        $sudo tee "$binfmt/register" <"/usr/lib/binfmt.d/qemu-$target.conf" >/dev/null
    fi
fi
# Programs started by the tests find the target's libc through this.
export QEMU_LD_PREFIX="$sysroot"

# GoogleTest from Debian's sources, built once by the same compiler.
gtest="$PWD/$build/googletest-install"
if [ ! -f "$gtest/lib/cmake/GTest/GTestConfig.cmake" ]; then
    cmake -S /usr/src/googletest -B "$build/googletest" -G Ninja \
        -DCMAKE_TOOLCHAIN_FILE="$toolchain" -DCMAKE_BUILD_TYPE=Release \
        -DCMAKE_INSTALL_PREFIX="$gtest"
    cmake --build "$build/googletest" -j2
    cmake --install "$build/googletest" >/dev/null
fi
# Asio is headers alone; the host's /usr/include must not be searched whole, so only it is
# offered.
mkdir -p "$build/asio-include"
ln -sfn /usr/include/asio.hpp /usr/include/asio "$build/asio-include/"

cmake -S . -B "$build" -G Ninja \
    -DCMAKE_TOOLCHAIN_FILE="$toolchain" \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DORVIX_HOSTBUS=ON \
    -DORVIX_WERROR=ON \
    -DGTest_DIR="$gtest/lib/cmake/GTest" \
    -DORVIX_ASIO_INCLUDE_DIR="$PWD/$build/asio-include"
cmake --build "$build" -j2
# The install test builds a consumer with the host's tools: nothing of the target's to see.
ctest --test-dir "$build" -j2 --timeout 300 --output-on-failure -LE install "$@"
