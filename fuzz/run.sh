#!/usr/bin/env bash
# Runs every fuzz target for SECONDS (default 30) each, two at a time, seeded
# from the golden corpus or fuzz/json/ and steered by a dictionary. Exits
# non-zero on any finding; the crashing inputs are kept in fuzz/findings/.
#   fuzz/run.sh [SECONDS] [BUILD_DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-30}
build=${2:-build/asan}
if [ "${seconds}" = "-h" ] || [ "${seconds}" = "--help" ]; then sed -n '2,5p' "$0" | sed 's/^# \{0,1\}//'; exit 0; fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
findings=fuzz/findings

# Seeds: every golden message behind FuzzModern's options byte (0: the classic
# rules; 1: strict) and its direction byte (0x80: a request; 0x40: pack its
# bytes in the Fast coding, as the Fast messages were packed).
mkdir -p "$findings" "$work/modern" "$work/json"
for f in tests/golden/corpus/*.wire; do
  name=$(basename "$f" .wire)
  case "$name" in req_*) d=128 ;; *) d=0 ;; esac
  case "$name" in *_fast*) d=$((d + 64)) ;; esac
  for o in 0 1; do { printf "\\x0$o\\x$(printf %02x "$d")"; cat "$f"; } > "$work/modern/$o-$name"; done
done
cp fuzz/json/*.json "$work/json/"
# The capture reader: golden messages as TCP segments of 200 bytes (flags
# byte, sequence delta, length, payload) behind the mode and options bytes.
mkdir -p "$work/capture"
python3 - "$work/capture" tests/golden/corpus/req_1002_2008.wire tests/golden/corpus/ans_1110_2008.wire \
  tests/golden/corpus/ans_1003_fast.wire << 'EOF'
import sys
out, names = sys.argv[1], sys.argv[2:]
stream = b"".join(open(n, "rb").read() for n in names)
segments = b"".join(bytes([0x18, 0, 0, len(stream[i:i + 200])]) + stream[i:i + 200] for i in range(0, len(stream), 200))
for mode, options in ((0, 0x3f), (2, 0xff), (64, 0x10)):
    open("%s/seed%d" % (out, mode), "wb").write(bytes([mode, options]) + segments)
EOF
# The plugin's bridge: the golden messages as they are.
mkdir -p "$work/bridge"
cp tests/golden/corpus/*.wire "$work/bridge/"
# The coders: values around the byte-count boundaries, records of every test layout.
mkdir -p "$work/coders"
for i in $(seq 0 20); do
  printf "\\x$(printf %02x $((i * 12 % 256)))\\xff\\x7f\\x00\\x80\\x01abcdefgh\\x00ijk" > "$work/coders/seed$i"
done

export ASAN_OPTIONS=allocator_may_return_null=1:detect_leaks=1
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1

run() {
  local target=$1 corpus=$2 rc=0
  shift 2
  # (the || keeps errexit from ending a background run before it reports)
  "$build/fuzz/$target" -max_total_time="$seconds" -max_len=8192 -print_final_stats=1 \
    -artifact_prefix="$findings/$target-" "$@" "$work/$corpus" > "$work/$target.log" 2>&1 || rc=$?
  # One line a target, written at once: two targets run side by side.
  local stats='^stat::(number_of_executed_units|new_units_added)|^#[0-9]+ *DONE'
  echo "$target: $(grep -E "$stats" "$work/$target.log" | tr '\n' ' ')"
  if [ $rc -ne 0 ]; then tail -n 40 "$work/$target.log"; fi
  return $rc
}

status=0
# The modern target with our KXPfdk and with one of another value format
# (the same seeds, whose 2008 records its decoders read as other tags,
# lengths and values), each in a corpus of its own.
cp -r "$work/modern" "$work/foreign"
run fuzz_modern modern -dict=fuzz/heads.dict & a=$!
run fuzz_modern_foreign foreign -dict=fuzz/heads.dict & b=$!
wait $a || status=1
wait $b || status=1
# The coders beside the tool's JSON reader (seeded with documents
# `trdcomp decode --json` printed), then the capture reader.
run fuzz_coders coders & a=$!
if [ -x "$build/fuzz/fuzz_tool_json" ]; then
  run fuzz_tool_json json -dict=fuzz/json.dict || status=1
else
  echo "fuzz_tool_json: not built (no nlohmann-json), skipped"
fi
wait $a || status=1
# The capture reader beside the plugin's bridge.
b=""
if [ -x "$build/fuzz/fuzz_capture" ]; then
  run fuzz_capture capture & b=$!
else
  echo "fuzz_capture: not built (no nlohmann-json), skipped"
fi
if [ -x "$build/fuzz/fuzz_wireshark_bridge" ]; then
  run fuzz_wireshark_bridge bridge -dict=fuzz/heads.dict || status=1
else
  echo "fuzz_wireshark_bridge: not built (no nlohmann-json), skipped"
fi
if [ -n "$b" ]; then wait "$b" || status=1; fi
if [ $status -ne 0 ]; then echo "fuzzing found a problem: see $findings/"; else echo "fuzzing: no findings"; fi
exit $status
