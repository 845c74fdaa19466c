#!/usr/bin/env bash
# The trdcomp command line: help on every subcommand, exit codes, errors that
# say what was wrong, and decode --json | encode reproducing golden messages.
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
grep -q "cannot open" "$work/err" || fail "missing file: $(cat "$work/err")"
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
"$tool" decode --pcap "$work/missing" 2> "$work/err" && fail "a missing capture should exit non-zero"
grep -q "cannot open $work/missing: No such file or directory" "$work/err" || fail "missing capture: $(cat "$work/err")"

echo "$failures failures"
[ "$failures" -eq 0 ]
