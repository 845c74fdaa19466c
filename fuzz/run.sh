#!/usr/bin/env bash
# Runs every fuzz target for SECONDS (default 30) each, two at a time, seeded
# from the golden corpus and steered by the head dictionary. Exits non-zero
# on any finding; the crashing inputs are kept in fuzz/findings/.
#   fuzz/run.sh [SECONDS] [BUILD_DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-30}
build=${2:-build/asan}
if [ "${seconds}" = "-h" ] || [ "${seconds}" = "--help" ]; then sed -n '2,5p' "$0" | sed 's/^# \{0,1\}//'; exit 0; fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
findings=fuzz/findings
mkdir -p "$findings"

# Seeds: every golden message, prefixed with the flag byte 0.
mkdir -p "$work/request" "$work/answer" "$work/pack" "$work/primitives" "$work/modern" "$work/json"
for f in tests/golden/corpus/*.wire; do
  name=$(basename "$f" .wire)
  case "$name" in req_*) dir=request ;; *) dir=answer ;; esac
  { printf '\0'; cat "$f"; } > "$work/$dir/$name"
  # The modern target: options byte (strict), direction byte, the message.
  case "$dir" in request) d='\x80' ;; *) d='\x00' ;; esac
  { printf "\x01$d"; cat "$f"; } > "$work/modern/$name"
done
for i in $(seq 0 40); do printf "\\x$(printf %02x "$i")\\x$(printf %02x $((i % 2)))\\x00\\x03abcdefghijklmnop" > "$work/pack/seed$i"; done
printf '\x80\x01\x7f\xff' > "$work/primitives/seed"
cp fuzz/json/*.json "$work/json/"

export ASAN_OPTIONS=allocator_may_return_null=1:detect_leaks=1
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1

run() {
  local target=$1 corpus=$2
  shift 2
  "$build/fuzz/$target" -max_total_time="$seconds" -max_len=8192 -print_final_stats=1 \
    -artifact_prefix="$findings/$target-" "$@" "$work/$corpus" > "$work/$target.log" 2>&1
  local rc=$?
  grep -E '^stat::(number_of_executed_units|new_units_added)|^#[0-9]+ *DONE' "$work/$target.log" | tr '\n' ' ' | sed "s/^/$target: /"
  echo
  if [ $rc -ne 0 ]; then tail -n 40 "$work/$target.log"; fi
  return $rc
}

status=0
run fuzz_restore_request request -dict=fuzz/heads.dict & a=$!
run fuzz_restore_answer answer -dict=fuzz/heads.dict & b=$!
wait $a || status=1
wait $b || status=1
run fuzz_pack_restore pack & a=$!
run fuzz_primitives primitives & b=$!
wait $a || status=1
wait $b || status=1
# The restores with a KXPfdk of another value format: the same seeds, whose
# 2008 records its decoders read as other tags, lengths and values.
run fuzz_restore_request_foreign request -dict=fuzz/heads.dict & a=$!
run fuzz_restore_answer_foreign answer -dict=fuzz/heads.dict & b=$!
wait $a || status=1
wait $b || status=1
# The modern interface beside the tool's JSON reader (seeded with documents
# `trdcomp decode --json` printed).
run fuzz_modern modern -dict=fuzz/heads.dict & a=$!
if [ -x "$build/fuzz/fuzz_tool_json" ]; then
  run fuzz_tool_json json -dict=fuzz/json.dict & b=$!
  wait $b || status=1
else
  echo "fuzz_tool_json: not built (no nlohmann-json), skipped"
fi
wait $a || status=1
if [ $status -ne 0 ]; then echo "fuzzing found a problem: see $findings/"; else echo "fuzzing: no findings"; fi
exit $status
