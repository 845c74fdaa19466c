#!/usr/bin/env bash
# Installs the built project into a scratch prefix (cmake --install) and runs
# the consumer checks of check_prefix.sh on it.
set -euo pipefail
build_dir=$1
consumer_src=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build_dir" --prefix "$work/prefix" >/dev/null
bash "$(dirname "$0")/check_prefix.sh" "$work/prefix" "$consumer_src"
