#!/usr/bin/env bash
# Builds the Debian packages of a build tree (cpack -G DEB), checks what each
# holds and depends on, unpacks them all into a scratch root (dpkg -x), checks
# that `cmake --install` into a prefix gives the same files, and runs the
# consumer checks of check_prefix.sh on the root's /usr; a packaged Wireshark
# plugin must load into tshark from the root.
set -euo pipefail
build_dir=$1
consumer_src=$2
version=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

cpack --config "$build_dir/CPackConfig.cmake" -G DEB -B "$work/debs" > "$work/cpack.log" 2>&1 ||
  { cat "$work/cpack.log"; exit 1; }

# package, a file it must hold, what it must depend on
expect=(
  "libtrdcomp${version%%.*} usr/lib/libtrdcomp.so.${version%%.*} libstdc++6"
  "libtrdcomp-dev usr/include/trdcomp/TrdCompVersion.h libtrdcomp${version%%.*} (= $version)"
  "trdcomp usr/bin/trdcomp libtrdcomp${version%%.*} (= $version)"
)
[ -n "${PYTHON:-}" ] && expect+=("python3-trdcomp usr/lib/python3/dist-packages/trdcomp. python3-numpy")
[ -n "${TRDCOMP_WS_PLUGIN_RELDIR:-}" ] &&
  expect+=("wireshark-trdcomp usr/$TRDCOMP_WS_PLUGIN_RELDIR/epan/trdcomp.so libtrdcomp${version%%.*} (= $version)")
for line in "${expect[@]}"; do
  read -r name file depends <<<"$line"
  deb=$(ls "$work/debs/${name}_${version}"*.deb 2>/dev/null | head -n 1)
  [ -n "$deb" ] || { fail "no package $name"; continue; }
  echo "-- $(basename "$deb"): Depends: $(dpkg-deb -f "$deb" Depends)"
  dpkg-deb -c "$deb" > "$work/contents"
  grep -q " ./$file" "$work/contents" || fail "$name does not hold $file"
  grep -qF "$depends" <<<"$(dpkg-deb -f "$deb" Depends)" || fail "$name does not depend on $depends"
  dpkg -x "$deb" "$work/root"
done
dpkg-deb -c "$work/debs/libtrdcomp${version%%.*}_${version}"*.deb > "$work/contents"
grep -q "usr/include" "$work/contents" && fail "the runtime package holds headers"
cmake --install "$build_dir" --prefix "$work/prefix" >/dev/null
files() { (cd "$1" && find . -type f | grep -v '^./share/doc/' | sort); }
diff <(files "$work/prefix") <(files "$work/root/usr") || fail "cmake --install and the packages hold different files"
# The packaged plugin loads into tshark (unprivileged: tshark as root reads
# no plugin folder but the system's).
if [ -n "${TRDCOMP_WS_PLUGIN_RELDIR:-}" ] && command -v tshark >/dev/null; then
  chmod -R a+rX "$work"
  as_user=()
  [ "$(id -u)" -eq 0 ] && as_user=(setpriv --reuid=nobody --regid=nogroup --clear-groups)
  "${as_user[@]}" env HOME="$work" WIRESHARK_PLUGIN_DIR="$work/root/usr/$(dirname "$TRDCOMP_WS_PLUGIN_RELDIR")" \
    LD_LIBRARY_PATH="$work/root/usr/lib" tshark -G protocols > "$work/protocols" 2> "$work/tshark.err" || true
  grep -q "^trdcomp message.trdcomp.trdcomp$" "$work/protocols" ||
    fail "tshark does not load the packaged plugin: $(head -c 500 "$work/tshark.err")"
fi
[ "$failures" -eq 0 ] || exit 1

bash "$(dirname "$0")/check_prefix.sh" "$work/root/usr" "$consumer_src"
