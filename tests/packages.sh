#!/usr/bin/env bash
# Builds the Debian packages from the files that git knows, installs them on this machine, shows an X server's heads with
# what they brought, removes them, and finds nothing left of them.
# Arguments: the source folder.
set -euo pipefail
source=$1
mapfile -t packages < <(sed -n 's/^Package: //p' "$source/debian/control")
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

as_root () { if [ "$(id -u)" -eq 0 ]; then "$@"; else sudo -n "$@"; fi; }
quietly () { "$@" >"$scratch/log" 2>&1 || { tail -n 50 "$scratch/log" >&2; return 1; }; }
apt () { quietly as_root apt-get -q -y -o DPkg::Lock::Timeout=300 "$@"; }
skip () { echo "Skipped: $*" >&2; exit 77; }
list_traces () { find /etc /usr /var/lib -xdev -path '*ryx*' -print; cksum /usr/share/glib-2.0/schemas/gschemas.compiled; }

git -C "$source" rev-parse 2>/dev/null || skip "there is no git checkout to build from"
as_root true 2>/dev/null || skip "packages can't be installed without root"
! grep -qx installed < <(dpkg-query -W -f '${db:Status-Status}\n' "${packages[@]}" 2>/dev/null) \
  || skip "packages of Ryx are installed, and are not this test's to remove"

mkdir "$scratch/ryx"
(cd "$source" && git ls-files -z | tar -c --null -T -) | tar -x -C "$scratch/ryx"
(cd "$scratch/ryx" && DEB_BUILD_OPTIONS=noautodbgsym quietly dpkg-buildpackage -us -uc -b)
lintian --fail-on error "$scratch"/*.changes

list_traces >"$scratch/before"
trap 'apt purge "${packages[@]}" || true; rm -rf "$scratch"' EXIT
apt install --no-install-recommends "$scratch"/*.deb
env -u RYX_MODULE_DIR "$source/tests/support/on-xvfb" ryxctl heads | grep '320 *200'
env -u RYX_MODULE_DIR "$source/tests/support/on-xvfb" /usr/share/doc/libryx-1-dev/examples/capture.py | wc -c | grep -x 192015
[ "$(grep -o 'ryx-[a-z-]*-extension-point' /usr/lib/*/ryx-1/modules/giomodule.cache | wc -l)" = 5 ]
if command -v systemd-analyze >/dev/null; then
  units=$(XDG_RUNTIME_DIR=$scratch systemd-analyze --user verify ryx-web.service ryx-web@1.service 2>&1)
  [ -z "$units" ] || { echo "$units" >&2; exit 1; }
fi
apt purge "${packages[@]}"
trap 'rm -rf "$scratch"' EXIT
diff "$scratch/before" <(list_traces)
