#!/usr/bin/env bash
# Installs into a prefix of its own, builds the README's host there with pkg-config alone, and captures a frame with it;
# the host in Python captures the same.
# Arguments: the source folder.
set -euo pipefail
source=$1
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

fail ()
{
  echo "$*" >&2
  exit 1
}

meson setup "$scratch/build" "$source" --prefix="$scratch/prefix" -Dtests=false -Dbench=disabled -Dreference=disabled \
  -Dintrospection=enabled -Doptimization=0 \
  >"$scratch/log" 2>&1 || fail "$(cat "$scratch/log")"
meson install -C "$scratch/build" >"$scratch/log" 2>&1 || fail "$(cat "$scratch/log")"

export PKG_CONFIG_PATH
PKG_CONFIG_PATH=$(dirname "$(find "$scratch/prefix" -name ryx-1.pc)")
moduledir=$(pkg-config --variable=moduledir ryx-1)
LD_LIBRARY_PATH=$(pkg-config --variable=libdir ryx-1)
export LD_LIBRARY_PATH
unset RYX_MODULE_DIR GSETTINGS_SCHEMA_DIR

exported=$(nm -D --defined-only "$moduledir/libryxx11.so" | awk '{ print $3 }' | sort | xargs)
[ "$exported" = "g_io_module_load g_io_module_query g_io_module_unload" ] || fail "The module exports: $exported"
points=$(grep -o 'ryx-[a-z-]*-extension-point' "$moduledir/giomodule.cache" | wc -l)
[ "$points" = 5 ] || fail "$(cat "$moduledir/giomodule.cache")"

awk '/^```c$/ { on = 1; next } /^```/ { on = 0 } on' "$source/README.md" >"$scratch/host.c"
# shellcheck disable=SC2046
cc -std=c11 -Wall -Wextra -Werror "$scratch/host.c" -o "$scratch/host" $(pkg-config --cflags --libs ryx-1)

GI_TYPELIB_PATH=$(dirname "$(find "$scratch/prefix" -name Ryx-1.typelib)")
export scratch source GI_TYPELIB_PATH
"$source/tests/support/on-xvfb" bash -euo pipefail <<'HOSTS'
"$scratch/host" >"$scratch/screen.ppm"
"$source/docs/capture.py" >"$scratch/screen-python.ppm"
"$scratch/prefix/bin/ryxctl" heads >"$scratch/heads"
if "$scratch/prefix/bin/ryxctl" heads >&- 2>/dev/null; then
  echo "ryxctl writes its results somewhere else when it has no standard output" >&2
  exit 1
fi
HOSTS

[ "$(head -n 1 "$scratch/screen.ppm")" = "P6 320 200 255" ] || fail "The host's picture begins otherwise"
[ "$(stat -c %s "$scratch/screen.ppm")" = $((15 + 3 * 320 * 200)) ] || fail "The host's picture is not whole"
cmp "$scratch/screen.ppm" "$scratch/screen-python.ppm"
grep -q '320 *200' "$scratch/heads" || fail "The installed ryxctl shows no head"
