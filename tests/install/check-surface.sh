#!/usr/bin/env bash
# check-surface.sh CXX INCLUDE_DIR...
#
# Compiles a file that includes only <Velik/Velik.h> and fails when the
# application's surface drags in what it must not: any libevent header, the
# backends and the timing-wheel library (by header, and by the macros they
# define), or Boost beyond the intrusive hooks and lists and the circular
# buffer that public classes hold by value. Boost's own headers may include
# whatever they need; only the Boost headers that a non-Boost header includes
# are checked.
set -euo pipefail
cxx=$1
shift
includes=()
for dir in "$@"; do includes+=("-I$dir"); done

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
echo '#include <Velik/Velik.h>' >"$scratch/surface.cpp"

# -H lists every header opened, one line each, its depth in leading dots.
if ! "$cxx" -std=c++20 "${includes[@]}" -H -fsyntax-only "$scratch/surface.cpp" \
    2>"$scratch/tree"; then
    grep -v '^\.' "$scratch/tree" >&2
    echo "surface: a file with only Velik.h does not compile" >&2
    exit 1
fi
"$cxx" -std=c++20 "${includes[@]}" -E -dM "$scratch/surface.cpp" >"$scratch/macros"

awk '
/^\.+ / {
    depth = length($1)
    path = $2
    parent[depth] = path
    includer = depth > 1 ? parent[depth - 1] : "surface.cpp"
    if (path ~ /\/event2\//) {
        print "libevent header " path " (included by " includer ")"
    }
    if (path ~ /\/Velik\/(Timeouts|LibeventFactory|LibeventAdditions|KivPlatform|KivDebug|KivActivityLock)\.h$/) {
        print "backend header " path " (included by " includer ")"
    }
    if (path ~ /\/boost\// && includer !~ /\/boost\//) {
        if (path !~ /\/boost\/intrusive\// && path !~ /\/boost\/circular_buffer(\.hpp|_fwd\.hpp|\/)/) {
            print "Boost header " path " (included by " includer ")"
        }
    }
}
' "$scratch/tree" >"$scratch/offences"
# The timing-wheel library's and libevent's unprefixed macros.
sed -n 's/^#define \(TIMEOUTS\?_[A-Z_]*\|EV_[A-Z_]*\|EVLOOP_[A-Z_]*\|evutil_[a-z_]*\).*/macro \1/p' \
    "$scratch/macros" >>"$scratch/offences"

if [[ -s $scratch/offences ]]; then
    echo "surface: Velik.h brings in what an application does not use:" >&2
    sed 's/^/  /' "$scratch/offences" >&2
    exit 1
fi
echo "surface: Velik.h brings in no backend, no libevent and only the Boost it embeds"
