#!/usr/bin/env bash
# Checks a built vexil Debian package.
#
# Always: unpacks it into a scratch root (dpkg-deb -x), checks that every
# dependency it declares is a package installed here, and loads norv and vexil
# from the unpacked tree through their own run paths, from another folder,
# so that nothing of the build tree is used. The agent program, if packaged,
# must answer --help.
#
# With VEXIL_PACKAGE_INSTALL=1 and as root (CI on a throwaway machine), it
# also installs the package for real with apt-get, loads the modules through
# Lua's default search path from /, and removes the package again.
set -euo pipefail
deb=$(realpath "$1")
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
dpkg-deb -x "$deb" "$root"

fail() { echo "check-package: $*" >&2; exit 1; }

depends=$(dpkg-deb -f "$deb" Depends)
IFS=',' read -ra items <<<"$depends"
for item in "${items[@]}"; do
  name=$(sed -E 's/^[[:space:]]*([^[:space:](]+).*/\1/' <<<"$item")
  status=$(dpkg-query -W -f='${Status}' "$name" 2>/dev/null || true)
  [[ "$status" == "install ok installed" ]] || fail "dependency $name is not installed here"
done

module=$(find "$root" -name vexil.so -path '*/lua/5.2/*' | head -n 1)
[ -n "$module" ] || fail "no vexil.so in Lua 5.2's module folder"
[ -n "$(find "$root" -name libnorvcore.so)" ] || fail "no libnorvcore.so in the package"
cmod=$(dirname "$module")
result=$(cd / && LUA_CPATH="$cmod/?.so" lua5.2 -e 'require "norv"; print(require "vexil")')
[ "$result" = "true" ] || fail "require \"vexil\" gave '$result'"
# The modules found the host core in the unpacked tree, not elsewhere. (ldd's
# output is taken whole first: with pipefail, grep -q leaving early would
# fail the pipe whenever ldd is still writing.)
links=$(ldd "$module")
grep -q "libnorvcore.so => $root/" <<<"$links" || fail "vexil.so does not find libnorvcore.so beside it"
for program in "$root"/usr/bin/*; do
  [ -x "$program" ] || continue
  "$program" --help >/dev/null || fail "$(basename "$program") --help failed"
done
echo "check-package: unpacked $(basename "$deb"): modules load, dependencies present"

if [ "${VEXIL_PACKAGE_INSTALL:-0}" = 1 ]; then
  [ "$(id -u)" = 0 ] || fail "VEXIL_PACKAGE_INSTALL=1 needs root"
  DEBIAN_FRONTEND=noninteractive apt-get install -y -q "$deb" >/dev/null
  trap 'dpkg -r vexil >/dev/null; rm -rf "$root"' EXIT
  result=$(cd / && env -u LUA_CPATH lua5.2 -e 'require "norv"; print(require "vexil")')
  [ "$result" = "true" ] || fail "installed: require \"vexil\" gave '$result'"
  for program in $(dpkg -L vexil | grep '^/usr/bin/' || true); do
    "$program" --help >/dev/null || fail "installed: $(basename "$program") --help failed"
  done
  echo "check-package: installed for real, modules load from /, removed again"
fi
