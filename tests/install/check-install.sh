#!/usr/bin/env bash
# check-install.sh BUILD_DIR CONSUMER_SRC SCRATCH
set -euo pipefail
build=$1 src=$2 scratch=$3
rm -rf "$scratch"
prefix=$scratch/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null

# Through the CMake package.
cmake -S "$src" -B "$scratch/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$scratch/cmake" >/dev/null
LD_LIBRARY_PATH=$prefix/lib "$scratch/cmake/consumer"

# Through pkg-config.
libdir=$(ls -d "$prefix"/lib*/pkgconfig | head -n1)
export PKG_CONFIG_PATH=$libdir
g++ -std=c++20 "$src/consumer.cpp" -o "$scratch/consumer-pc" $(pkg-config --cflags --libs KivVelik)
LD_LIBRARY_PATH=$(dirname "$libdir") "$scratch/consumer-pc"
echo "install.consumer: both builds ran"
