#!/usr/bin/env bash
# The project's two jobs, runnable on a fresh Debian 12 machine as root:
#   scripts/run.sh demo   build the tool alone (release configuration) and run its demo
#   scripts/run.sh test   build and run the tests: release (with the Python module, the Wireshark
#                         plugin, the install tree and the Debian packages), sanitizers, fuzzing
# Each installs with apt-get whatever the machine lacks.
set -euo pipefail
cd "$(dirname "$0")/.."

usage() { sed -n '2,6p' "$0" | sed 's/^# \{0,1\}//'; }

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
    # What the demo needs: the library, the catalogue and the tool (the
    # release preset's configuration asks for GoogleTest; nothing else of the
    # tests, the benchmarks or the Python module is built).
    install_missing cmake ninja-build g++ libgtest-dev libgmock-dev pkg-config libcli11-dev nlohmann-json3-dev libpcap-dev
    cmake --preset release
    cmake --build --preset release --target trdcomp_tool
    build/release/trdcomp demo
    ;;
  test)
    install_missing cmake ninja-build g++ libgtest-dev libgmock-dev pkg-config libcli11-dev nlohmann-json3-dev clang libclang-rt-14-dev \
      libbenchmark-dev liblz4-dev libzstd-dev pybind11-dev python3-dev python3-numpy python3-pytest python3-pandas python3-pip python3-venv \
      dpkg-dev file libpcap-dev tshark libwireshark-dev wireshark-dev tcpdump
    echo "== release build, warnings as errors; the Python module, the Wireshark plugin under tshark, the install tree and the Debian packages"
    cmake --workflow --preset ci
    echo "== AddressSanitizer + UndefinedBehaviorSanitizer (clang, LeakSanitizer on), with the fuzz targets"
    cmake --workflow --preset asan
    echo "== fuzzing, ${TRDCOMP_FUZZ_SECONDS:-6} s a target"
    fuzz/run.sh "${TRDCOMP_FUZZ_SECONDS:-6}" build/asan
    ;;
  -h|--help|help)
    usage
    ;;
  *)
    usage >&2
    exit 2
    ;;
esac
