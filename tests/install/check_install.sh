#!/usr/bin/env bash
# Installs the built project into a scratch prefix, then proves a consumer can
# use it: the public headers compile as C++11 with warnings as errors, and a
# small program builds and runs through find_package(TrdComp) and pkg-config.
set -euo pipefail
build_dir=$1
consumer_src=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
CXX=${CXX:-c++}

cmake --install "$build_dir" --prefix "$prefix" >/dev/null

echo "-- headers as C++11"
for h in "$prefix"/include/trdcomp/*.h; do
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
echo "install check passed"
