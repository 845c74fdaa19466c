#!/usr/bin/env bash
# The trdcomp command line: help on every subcommand, exit codes, errors that
# say what was wrong, decode --json | encode reproducing golden messages, a
# stream printed as it comes, inputs read no further than they must.
set -uo pipefail
tool=$1 corpus=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

for sub in "" demo decode stats encode catalogue diff; do
  # shellcheck disable=SC2086
  "$tool" $sub --help > "$work/help" 2>&1 || fail "trdcomp $sub --help exits non-zero"
  grep -q "Usage" "$work/help" || fail "trdcomp $sub --help prints no usage"
done

"$tool" > /dev/null 2>&1 && fail "no subcommand should exit non-zero"
"$tool" decode "$work/missing" 2> "$work/err" && fail "a missing file should exit non-zero"
grep -q "cannot open $work/missing: No such file or directory" "$work/err" || fail "missing file: $(cat "$work/err")"
printf 'not a message' > "$work/bad"
"$tool" decode "$work/bad" 2> "$work/err"; rc=$?
[ $rc -eq 1 ] || fail "decode of garbage exits $rc"
grep -q "head word 0" "$work/err" || fail "garbage: $(cat "$work/err")"
head -c 100 "$corpus/ans_1110_2008.wire" > "$work/cut"
"$tool" decode "$work/cut" 2> "$work/err" && fail "a cut message should exit non-zero"
grep -q "refused" "$work/err" || fail "cut message: $(cat "$work/err")"
echo '{"direction": "request"}' | "$tool" encode --id 1002 --coding fast:16 --out "$work/x" 2> "$work/err"; rc=$?
[ $rc -eq 1 ] || fail "encode with coding fast:16 exits $rc"
grep -q "fast:V with V from 1 to 15" "$work/err" || fail "bad coding: $(cat "$work/err")"

"$tool" --version | grep -Eq '^trdcomp [0-9.]+, library [0-9.]+, catalogue [0-9a-f]{16}$' || fail "--version: $("$tool" --version)"
"$tool" frobnicate 2> "$work/err" && fail "an unknown subcommand should exit non-zero"
grep -q 'no subcommand "frobnicate"; the subcommands are demo, decode, stats, diff, encode, catalogue' "$work/err" || fail "unknown subcommand: $(cat "$work/err")"
"$tool" catalogue abc 2> "$work/err" && fail "catalogue abc should exit non-zero"
grep -q 'a function id is expected' "$work/err" || fail "catalogue abc: $(cat "$work/err")"
xxd -p "$corpus/req_1002_2008.wire" > "$work/hex"
"$tool" decode "$work/hex" 2> "$work/err" && fail "hex text without --hex should exit non-zero"
grep -q 'decode it with --hex' "$work/err" || fail "hex without --hex: $(cat "$work/err")"
"$tool" decode --help | grep -q 'default: 256M\|=256M\|256M' || fail "decode --help does not show the --max-bytes default"

# decode | encode, both through the command line, binary and hex input.
for name in ans_1002_2008 ans_1053_fast; do
  "$tool" decode --json "$corpus/$name.wire" | "$tool" encode --out "$work/$name.bin" || fail "$name: pipe failed"
  cmp -s "$work/$name.bin" "$corpus/$name.wire" || fail "$name: decode --json | encode differs"
  xxd -p "$corpus/$name.wire" | "$tool" decode --hex - > "$work/$name.txt" || fail "$name: --hex input failed"
  grep -q "^section 1\|no records" "$work/$name.txt" || fail "$name: no section printed"
done
"$tool" catalogue 1110 | grep -q "ANS_1110, 193 bytes" || fail "catalogue 1110 shows no layout"

# diff exits 2 on error, as diff(1) does (0 and 1: test_stream_tool.cpp).
"$tool" diff "$corpus/req_1002_2008.wire" "$work/missing" 2> "$work/err"; rc=$?
[ $rc -eq 2 ] || fail "diff with a missing file exits $rc"
"$tool" diff "$corpus/req_1002_2008.wire" 2> /dev/null; rc=$?
[ $rc -eq 2 ] || fail "diff with one argument exits $rc"

# decode --stream from standard input, with a byte limit.
cat "$corpus/req_1002_2008.wire" "$corpus/ans_1110_2008.wire" "$corpus/ans_1003_fast.wire" |
  "$tool" decode --stream --max-bytes 1M - > "$work/out" || fail "decode --stream exits non-zero"
grep -q "^3 messages$" "$work/out" || fail "decode --stream: $(tail -4 "$work/out")"
# Each message as soon as its last byte has come: the first is printed while
# the writer still sleeps.
{ cat "$corpus/req_1002_2008.wire"; sleep 3; cat "$corpus/ans_1110_2008.wire"; } | "$tool" decode --stream - > "$work/slow" &
slow=$!
seen=0
for _ in $(seq 25); do grep -q "^== message 1:" "$work/slow" && { seen=1; break; }; sleep 0.1; done
[ $seen -eq 1 ] || fail "decode --stream -: the first message was not printed before the input went on"
wait $slow || fail "decode --stream - of two messages exits non-zero"
grep -q "^2 messages$" "$work/slow" || fail "decode --stream - read slowly: $(tail -4 "$work/slow")"

# --jsonl: JSON a line (read by Python's json here, by nlohmann-json in the unit tests).
cat "$corpus/req_1002_2008.wire" "$corpus/ans_1110_2008.wire" | "$tool" decode --stream --jsonl - > "$work/jsonl" || fail "decode --jsonl exits non-zero"
python3 -c 'import json, sys; [json.loads(l) for l in open(sys.argv[1])]' "$work/jsonl" || fail "decode --jsonl prints lines that are not JSON"
[ "$(wc -l < "$work/jsonl")" -eq 2 ] || fail "decode --jsonl: $(wc -l < "$work/jsonl") lines for 2 messages"
"$tool" decode --stream --json "$work/jsonl" 2> "$work/err" && fail "--stream --json should be refused"
grep -q "jsonl" "$work/err" || fail "--stream --json: $(cat "$work/err")"
head -1 "$work/jsonl" | "$tool" encode --out "$work/line.bin" || fail "a line of --jsonl does not pack"
cmp -s "$work/line.bin" "$corpus/req_1002_2008.wire" || fail "a line of --jsonl packs to other bytes"

# stats: 0 when every message restores, 1 otherwise.
cat "$corpus/req_1002_2008.wire" "$corpus/ans_1003_fast.wire" | "$tool" stats --stream - > "$work/stats" || fail "stats exits non-zero"
grep -q "^2 messages: " "$work/stats" || fail "stats: $(head -1 "$work/stats")"
head -c 100 "$corpus/req_1002_2008.wire" | "$tool" stats --stream - > /dev/null && fail "stats of a cut message exits 0"

# Inputs that cannot be read say why, and are read no further than they must.
"$tool" decode "$work" 2> "$work/err" && fail "decode of a directory should exit non-zero"
grep -q "is a directory" "$work/err" || fail "decode of a directory: $(cat "$work/err")"
timeout 20 "$tool" decode --max-bytes 1M /dev/zero 2> "$work/err"; rc=$?
[ $rc -eq 1 ] || fail "decode of /dev/zero exits $rc"
grep -q "holds more than the limit of 1048576 bytes (1 MiB)" "$work/err" || fail "decode of /dev/zero: $(cat "$work/err")"
timeout 20 "$tool" decode --stream /dev/zero > "$work/out"; rc=$?
[ $rc -eq 1 ] || fail "decode --stream of /dev/zero exits $rc"
grep -q "^stopped: no message starts at offset 0" "$work/out" || fail "decode --stream of /dev/zero: $(head -2 "$work/out")"
cat "$corpus/req_1002_2008.wire" "$corpus/ans_1110_2008.wire" > "$work/two"
"$tool" decode "$work/two" > "$work/out" 2> "$work/err" || fail "decode of two messages exits non-zero"
grep -q "448 bytes follow the message (it ends at offset 219).*decode --stream" "$work/err" || fail "decode of two messages: $(cat "$work/err")"
grep -q "^trailing bytes: 448 bytes behind the last record: " "$work/out" || fail "decode of two messages shows no trailing bytes"
"$tool" decode --json "$work/two" | "$tool" encode --out "$work/two.again" || fail "decode --json | encode of two messages"
cmp -s "$work/two" "$work/two.again" || fail "the trailing bytes did not come back through decode --json | encode"

# diff reads hex text where its bytes are hex, or where told.
xxd -p "$corpus/req_1002_2008.wire" > "$work/a.hex"
"$tool" diff "$work/a.hex" "$corpus/req_1002_2008.wire" > /dev/null || fail "diff of a hex file and its message"
"$tool" diff --hex-a "$work/a.hex" "$corpus/req_1002_2008.wire" > /dev/null || fail "diff --hex-a"
"$tool" diff --hex-b "$corpus/req_1002_2008.wire" "$corpus/req_1002_2008.wire" 2> "$work/err"; rc=$?
[ $rc -eq 2 ] || fail "diff --hex-b of a binary file exits $rc"

# encode: memory about twice the message (255 raw records of 1 MiB: 267 MB).
# Under AddressSanitizer the address space is the sanitizer's.
if [ -z "${ASAN_OPTIONS:-}" ]; then
  python3 -c 'import json; print(json.dumps({"direction": "answer", "coding": "2008", "head": {"nFuncId": 4321},
    "sections": [{"layout": None, "count": 255, "size": 1048576, "records": ["ff"] * 255}]}))' > "$work/big.json"
  (ulimit -v 900000; "$tool" encode --out "$work/big.bin" < "$work/big.json") 2> "$work/err" || fail "encode of 255 records of 1 MiB within 900 MB: $(cat "$work/err")"
  rm -f "$work/big.bin"
fi

"$tool" decode --pcap "$work/missing" 2> "$work/err" && fail "a missing capture should exit non-zero"
grep -q "cannot open $work/missing: No such file or directory" "$work/err" || fail "missing capture: $(cat "$work/err")"

echo "$failures failures"
[ "$failures" -eq 0 ]
