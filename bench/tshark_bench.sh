#!/usr/bin/env bash
# The Wireshark plugin's cost: tshark over four captures of trdcomp traffic
# (every golden message; orders and quotes; each in segments of 1460 bytes
# and one message a segment), without the plugin (TCP alone)
# and with it, in one run; each pass runs three times and the median of its
# CPU time counts (the machine may be shared). Prints Markdown tables.
#   bench/tshark_bench.sh [BUILD_DIR] [MESSAGES]   (build/release, 200000)
set -euo pipefail
cd "$(dirname "$0")/.."
if [ "${1:-}" = "-h" ] || [ "${1:-}" = "--help" ]; then sed -n '2,6p' "$0" | sed 's/^# \{0,1\}//'; exit 0; fi
build=${1:-build/release}
messages=${2:-200000}
plugin=$(find "$build/wireshark/plugins" -name trdcomp.so 2>/dev/null | head -n 1)
writer=$build/bench/trdcomp_write_capture
[ -n "$plugin" ] && [ -x "$writer" ] ||
  { echo "no trdcomp.so or trdcomp_write_capture in $build: build the release preset with Wireshark's development files" >&2; exit 1; }
command -v tshark >/dev/null || { echo "tshark not found (Debian: apt-get install tshark)" >&2; exit 1; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
series=$(basename "$(dirname "$(dirname "$plugin")")")
mkdir -p "$work/plugins/$series/epan" "$work/empty/$series/epan" "$work/lib" "$work/home"
cp "$plugin" "$work/plugins/$series/epan/"
cp -L "$build"/libtrdcomp.so.? "$build"/libKXPfdk.so.? "$work/lib/"
"$writer" "$work/every.pcap" --messages "$messages" >&2
"$writer" "$work/orders.pcap" --messages "$messages" --ids 1002,1110 >&2
"$writer" "$work/every1.pcap" --messages "$messages" --segment-a-message >&2
"$writer" "$work/orders1.pcap" --messages "$messages" --ids 1002,1110 --segment-a-message >&2
chmod -R a+rwX "$work"

# tshark as root ignores WIRESHARK_PLUGIN_DIR: run it unprivileged.
as_user=()
[ "$(id -u)" -eq 0 ] && as_user=(setpriv --reuid=nobody --regid=nogroup --clear-groups)
run() {  # PLUGIN_FOLDER ARGS...: CPU seconds (user + system) of one tshark pass
  local dir=$1
  shift
  local TIMEFORMAT='%U %S' t
  t=$({ time "${as_user[@]}" env HOME="$work/home" WIRESHARK_PLUGIN_DIR="$work/$dir" LD_LIBRARY_PATH="$work/lib" \
          tshark -r "$work/$capture" "$@" > /dev/null; } 2>&1)
  awk -v t="$t" 'BEGIN { split(t, p, " "); printf "%.2f\n", p[1] + p[2] }'
}
median() { printf '%s\n' "$@" | sort -n | sed -n 2p; }
pass() {  # LABEL PLUGIN_FOLDER ARGS...
  local label=$1
  shift
  local t=()
  for _ in 1 2 3; do
    t+=("$(run "$@")")
    [ -t 2 ] && printf '\r%s: %s s   ' "$label" "${t[-1]}" >&2
  done
  [ -t 2 ] && printf '\n' >&2
  median "${t[@]}"
}

# The TCP-only pass hands each segment's payload to the data dissector, so
# that neither a port's dissector nor the heuristics run. The framing-only
# pass adds what Wireshark does for any protocol over TCP (tcp_dissect_pdus,
# reassembly) and the head; the other passes add the restore through the
# library and the tree.
data=(-d tcp.port==7300,data)
decode=(-d tcp.port==7300,trdcomp)
us() { awk -v a="$1" -v b="$2" -v n="$messages" 'BEGIN { printf "%.2f\n", (a - b) * 1000000 / n }'; }
echo "tshark $(tshark --version | head -n1 | awk '{print $3}'), $messages messages a capture, $(nproc) CPUs"
for capture in every.pcap orders.pcap every1.pcap orders1.pcap; do
  base=$(pass "TCP only" empty "${data[@]}")
  framing=$(pass "trdcomp, framing only" plugins "${decode[@]}" -o trdcomp.restore:FALSE)
  summary=$(pass "trdcomp, summary lines" plugins "${decode[@]}")
  filter=$(pass "trdcomp, filter on a record field" plugins "${decode[@]}" -Y 'trdcomp.REQ_1002.f35 == "600000"')
  tbase=$(pass "TCP only, whole tree" empty "${data[@]}" -V)
  tree=$(pass "trdcomp, whole tree" plugins "${decode[@]}" -V)
  echo
  case $capture in
    every*) what="Every golden message of at most 4 KiB in turn" ;;
    *) what="Orders and quotes: the golden messages of ids 1002 and 1110 in turn" ;;
  esac
  case $capture in
    *1.pcap) what="$what, one message a segment" ;;
    *) what="$what, in segments of 1460 bytes" ;;
  esac
  echo "$what ($(stat -c %s "$work/$capture") bytes of capture):"
  echo
  echo "| pass | CPU seconds (median of 3) | µs a message over TCP only | µs a message over framing only |"
  echo "|---|---|---|---|"
  echo "| TCP only: no plugin, payload as data | $base | | |"
  echo "| trdcomp, framing only (\`-o trdcomp.restore:FALSE\`) | $framing | $(us "$framing" "$base") | |"
  echo "| trdcomp: summary lines | $summary | $(us "$summary" "$base") | $(us "$summary" "$framing") |"
  echo "| trdcomp: filter on a record field (\`-Y\`) | $filter | $(us "$filter" "$base") | $(us "$filter" "$framing") |"
  echo "| TCP only, payload as data, whole tree (\`-V\`) | $tbase | | |"
  echo "| trdcomp: whole tree (\`-V\`) | $tree | $(us "$tree" "$tbase") | |"
done
