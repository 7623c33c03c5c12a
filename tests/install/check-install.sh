#!/usr/bin/env bash
# check-install.sh BUILD_DIR CONSUMER_SRC SCRATCH
#
# Installs into a scratch prefix and runs what an outside user would: a
# program built through the CMake package, one built through pkg-config, and
# the installed velik-top. Each runs with a clean environment (no
# LD_LIBRARY_PATH), so the installed files must find their libraries from
# wherever the prefix is.
set -euo pipefail
build=$1 src=$2 scratch=$3
rm -rf "$scratch"
prefix=$scratch/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null

fail() {
    echo "install.consumer: $*" >&2
    exit 1
}
clean() { env -i PATH=/usr/bin:/bin "$@"; }

libdir=$(dirname "$(ls -d "$prefix"/lib*/pkgconfig | head -n1)")
for lib in "$libdir"/libKivVelik.so.0 "$libdir"/libKiv.so.0 "$prefix"/bin/velik-top; do
    runpath=$(readelf -d "$lib" | sed -n 's/.*(RUNPATH).*\[\(.*\)\]/\1/p')
    [[ $runpath == *'$ORIGIN'* ]] || fail "$lib has RUNPATH '$runpath', not one relative to \$ORIGIN"
done

# Through the CMake package. The package must not leave the dependency
# search's variables behind in the consumer's scope.
cmake -S "$src" -B "$scratch/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >"$scratch/cmake.log"
grep -q '^-- consumer: no LIBEVENT_ variables$' "$scratch/cmake.log" ||
    fail "find_package(KivVelik) left LIBEVENT_ variables: $(grep LIBEVENT_ "$scratch/cmake.log")"
cmake --build "$scratch/cmake" >/dev/null
clean "$scratch/cmake/consumer"

# Through pkg-config.
g++ -std=c++20 "$src/consumer.cpp" -o "$scratch/consumer-pc" \
    $(PKG_CONFIG_PATH=$libdir/pkgconfig pkg-config --cflags --libs KivVelik)
clean "$scratch/consumer-pc"

# The libraries and the viewer, moved with their prefix, still find theirs.
mv "$prefix" "$scratch/moved"
for file in "$scratch"/moved/lib*/libKivVelik.so.0 "$scratch"/moved/lib*/libKiv.so.0 \
    "$scratch/moved/bin/velik-top"; do
    missing=$(clean ldd "$file" | grep 'not found' || true)
    [[ -z $missing ]] || fail "$file, moved, misses: $missing"
done
clean "$scratch/moved/bin/velik-top" --help >/dev/null
echo "install.consumer: both builds and velik-top ran"
