#!/usr/bin/env bash
# The project's two jobs, runnable on a fresh Debian 12 machine as root:
#   scripts/run.sh demo   build (release) and run the example
#   scripts/run.sh test   build and run the tests, release and sanitizer builds
# Each installs with apt-get whatever the machine lacks.
set -euo pipefail
cd "$(dirname "$0")/.."

usage() { sed -n '2,5p' "$0" | sed 's/^# \{0,1\}//'; }

install_missing() {
  local missing=()
  for pkg in "$@"; do dpkg -s "$pkg" >/dev/null 2>&1 || missing+=("$pkg"); done
  [ ${#missing[@]} -eq 0 ] && return 0
  echo "installing: ${missing[*]}"
  local sudo=""
  [ "$(id -u)" -ne 0 ] && sudo=sudo
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
}

case "${1:-}" in
  demo)
    install_missing cmake make g++ libgtest-dev pkg-config
    cmake --workflow --preset release
    build/release/trdcomp_example
    ;;
  test)
    install_missing cmake make g++ libgtest-dev libgmock-dev pkg-config
    echo "== release build, warnings as errors"
    cmake --workflow --preset ci
    echo "== AddressSanitizer + UndefinedBehaviorSanitizer"
    cmake --workflow --preset asan
    ;;
  -h|--help|help)
    usage
    ;;
  *)
    usage >&2
    exit 2
    ;;
esac
