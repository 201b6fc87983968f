#!/usr/bin/env bash
# Builds the host and the module of the guides, and captures with them. Arguments: the source and the build folder.
set -euo pipefail
source=$1 build=$2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

fail ()
{
  echo "$*" >&2
  exit 1
}

# compile PAGE RESULT [OPTION ...]: the C blocks of a page make up one program.
compile ()
{
  awk '/^```c$/ { on = 1; next } /^```/ { on = 0; print "" } on' "$source/docs/$1" >"$2.c"
  # shellcheck disable=SC2046
  cc -std=c11 -Wall -Wextra -Werror "$2.c" -o "$2" "${@:3}" \
    -Wl,-rpath,"$build/ryx" $(PKG_CONFIG_PATH=$build/meson-uninstalled pkg-config --cflags --libs ryx-1 gdk-2.0)
}

mkdir "$scratch/modules"
compile writing-a-host.md "$scratch/host"
compile writing-a-module.md "$scratch/modules/libexample.so" -shared -fPIC

export build scratch
export -f fail
"$source/tests/support/on-xvfb" bash -euo pipefail <<'SESSION'
coproc "$scratch/host"
host=$COPROC_PID input=${COPROC[1]} line=
until [[ $line == "head "*": 320x200, 1 rectangles changed" ]]; do
  read -r -t 20 line <&"${COPROC[0]}" || fail "The guide's host shows no frame"
done
exec {input}>&-
wait "$host" || fail "The guide's host fails"

"$build/hosts/ctl/ryxctl" --module-dir "$scratch/modules" capture --png "$scratch/bar.png" >"$scratch/log"
grep -q '^1 frame of 320x200 in' "$scratch/log" || fail "The guide's module shows no frame: $(cat "$scratch/log")"
SESSION
