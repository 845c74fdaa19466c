#!/usr/bin/env bash
# Proves that an installed tree (a `cmake --install` prefix, or /usr of
# unpacked Debian packages) serves a consumer: the public headers compile as
# C++11 with warnings as errors, a small program builds and runs through
# find_package(TrdComp) and pkg-config, the tool runs, and with PYTHON set the
# Python module imports from the tree, loads the tree's library and reports
# the tool's catalogue fingerprint.
set -euo pipefail
prefix=$1
consumer_src=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
CXX=${CXX:-c++}

echo "-- headers as C++11"
for h in "$prefix"/include/trdcomp/*.h "$prefix"/include/trdcomp/Reasons.hpp; do
  echo "#include <trdcomp/$(basename "$h")>" > "$work/one.cpp"
  "$CXX" -std=c++11 -Wall -Wextra -Werror -pedantic -fsyntax-only -I"$prefix/include" "$work/one.cpp"
done

echo "-- the modern header as C++17, and its example linked against the installed library"
echo "#include <trdcomp/trdcomp.hpp>" > "$work/modern.cpp"
"$CXX" -std=c++17 -Wall -Wextra -Werror -pedantic -fsyntax-only -I"$prefix/include" "$work/modern.cpp"
libdir_of_lib=$(dirname "$(find "$prefix" -name 'libtrdcomp.so' | head -n 1)")
"$CXX" -std=c++17 -Wall -Wextra -Werror -I"$prefix/include" "$consumer_src/../../../examples/modern.cpp" \
  -L"$libdir_of_lib" -Wl,-rpath,"$libdir_of_lib" -ltrdcomp -lKXPfdk -o "$work/modern"
"$work/modern" >/dev/null

if [ -x "$prefix/bin/trdcomp" ]; then
  echo "-- the installed tool"
  "$prefix/bin/trdcomp" demo --quiet | tail -n 1
  "$prefix/bin/trdcomp" --version
fi

echo "-- find_package(TrdComp)"
cmake -S "$consumer_src" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$work/cmake-build" >/dev/null
LD_LIBRARY_PATH="$prefix/lib:$prefix/lib64:${LD_LIBRARY_PATH:-}" "$work/cmake-build/consumer"
"$work/cmake-build/consumer_static"

echo "-- pkg-config trdcomp"
libdir=$(dirname "$(find "$prefix" -name trdcomp.pc | head -n 1)")
flags=$(PKG_CONFIG_PATH="$libdir" pkg-config --cflags --libs trdcomp)
# shellcheck disable=SC2086
"$CXX" -std=c++11 -Wall -Wextra -Werror "$consumer_src/consumer.cpp" -o "$work/pc-consumer" $flags
LD_LIBRARY_PATH="$prefix/lib:$prefix/lib64:${LD_LIBRARY_PATH:-}" "$work/pc-consumer"

if [ -n "${PYTHON:-}" ]; then
  echo "-- python3 -c 'import trdcomp' from the installed tree"
  site=$prefix/lib/python3/dist-packages
  # From a scratch directory, with nothing but the installed tree on the path.
  result=$(cd "$work" && env -u LD_LIBRARY_PATH PYTHONPATH="$site" PYTHONNOUSERSITE=1 "$PYTHON" -c '
import trdcomp
loaded = [line.split()[-1] for line in open("/proc/self/maps") if "libtrdcomp.so" in line]
print(trdcomp.__file__, loaded[0], trdcomp.__version__, trdcomp.catalogue_hash())')
  echo "$result"
  read -r module library version hash <<<"$result"
  real_prefix=$(realpath "$prefix")
  case "$(realpath "$module")" in "$real_prefix"/*) ;; *) echo "the module came from $module"; exit 1 ;; esac
  case "$(realpath "$library")" in "$real_prefix"/*) ;; *) echo "the module loaded $library"; exit 1 ;; esac
  [ "trdcomp $version, library $version, catalogue $hash" = "$("$prefix/bin/trdcomp" --version)" ] ||
    { echo "module and tool disagree on the version or the catalogue"; exit 1; }
fi
echo "install check passed"
