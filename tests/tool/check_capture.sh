#!/usr/bin/env bash
# A real exchange over the loopback interface, captured by tcpdump: golden
# requests from a client, golden answers from a server, sent in pieces. The
# capture of `lo` (Ethernet) and of `any` (Linux cooked v2) must give every
# message of both directions in order; a capture piped live into
# `trdcomp decode --pcap --jsonl -` must print each message while the
# connection is still open. Skipped (exit 77) where tcpdump is missing or may
# not capture.
set -uo pipefail
tool=$1 corpus=$2
work=${TRDCOMP_CAPTURE_WORK:-$(mktemp -d)}
pids=()
cleanup() {
  for p in "${pids[@]}"; do kill -INT "$p" 2> /dev/null; done
  wait 2> /dev/null
  [ -n "${TRDCOMP_CAPTURE_WORK:-}" ] || rm -rf "$work"
}
trap cleanup EXIT
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }
skip() { echo "SKIPPED: $*"; exit 77; }

command -v tcpdump > /dev/null || skip "tcpdump is not installed (Debian: apt-get install tcpdump)"
command -v python3 > /dev/null || skip "python3 is not installed"
port=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
live_port=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')

# tcpdump IFACE FILE FILTER...: a capture in the background, once it listens.
capture() {
  local iface=$1 file=$2
  shift 2
  tcpdump -Z root --immediate-mode -B 16384 -i "$iface" -U -w "$file" "$@" 2> "$file.log" &
  pids+=($!)
  for _ in $(seq 100); do
    grep -q "listening on" "$file.log" 2> /dev/null && return 0
    kill -0 "${pids[-1]}" 2> /dev/null || break
    sleep 0.1
  done
  skip "tcpdump cannot capture on $iface here: $(cat "$file.log")"
}
capture lo "$work/lo.pcap" tcp port "$port"
capture any "$work/any.pcap" tcp port "$port"

# The exchange: the client sends each request in pieces, the server answers
# each with one answer once it has the request's bytes. The ids sent, in
# order, go to requests.ids and answers.ids.
cat > "$work/exchange.py" << 'EOF'
import glob, os, socket, struct, subprocess, sys, threading, time
tool, corpus, port, work, count = sys.argv[1], sys.argv[2], int(sys.argv[3]), sys.argv[4], int(sys.argv[5])
live = len(sys.argv) > 6  # wait for each message to be seen in the live output first
def framed(prefix):
    # golden messages that carry their lengths (a stream of them can be cut)
    out = []
    for name in sorted(glob.glob(os.path.join(corpus, prefix + "_*.wire"))):
        if subprocess.run([tool, "stats", "--stream", name], capture_output=True).returncode == 0:
            out.append(open(name, "rb").read())
        if len(out) == count:
            return out
requests, answers = framed("req"), framed("ans")
open(os.path.join(work, "requests.ids"), "w").write("".join("%d\n" % struct.unpack_from("<i", m, 4) for m in requests))
open(os.path.join(work, "answers.ids"), "w").write("".join("%d\n" % struct.unpack_from("<i", m, 4) for m in answers))
server = socket.socket()
server.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
server.bind(("127.0.0.1", port))
server.listen(1)
def serve():
    conn, _ = server.accept()
    got = 0
    for i, request in enumerate(requests):
        while got < sum(len(r) for r in requests[: i + 1]):
            data = conn.recv(65536)
            if not data:
                return
            got += len(data)
        conn.sendall(answers[i])
    conn.shutdown(socket.SHUT_WR)
    while conn.recv(65536):
        pass
    conn.close()
t = threading.Thread(target=serve)
t.start()
client = socket.create_connection(("127.0.0.1", port))
client.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
for i, m in enumerate(requests):
    for at in range(0, len(m), 97):
        client.sendall(m[at : at + 97])
        time.sleep(0.001)
    if live:
        # the request and its answer must be printed while the connection is open
        deadline = time.time() + 20
        while time.time() < deadline:
            lines = open(os.path.join(work, "live.jsonl")).read().count("\n")
            if lines >= 2 * (i + 1):
                break
            time.sleep(0.05)
        else:
            print("message %d was not printed while the connection was open (%d lines)" % (i + 1, lines))
            sys.exit(1)
client.shutdown(socket.SHUT_WR)
while client.recv(65536):
    pass
client.close()
t.join()
EOF
python3 "$work/exchange.py" "$tool" "$corpus" "$port" "$work" 30 || fail "the exchange failed"
sleep 0.5
for p in "${pids[@]}"; do kill -INT "$p" 2> /dev/null; done
wait "${pids[@]}" 2> /dev/null
pids=()
# Packets the kernel dropped before tcpdump saw them (a machine under load)
# are missing from the capture itself: nothing a reader of it can recover.
for log in "$work/lo.pcap.log" "$work/any.pcap.log"; do
  dropped=$(sed -n 's/^\([0-9]*\) packets\{0,1\} dropped by kernel$/\1/p' "$log")
  [ "${dropped:-0}" = 0 ] || skip "tcpdump says the kernel dropped $dropped packets of the exchange ($(basename "$log" .log))"
done

# ids of the messages of the capture, by direction: "request 1002" ...
ids() { python3 -c '
import json, sys
for line in sys.stdin:
    m = json.loads(line)
    print(m["direction"], m["head"]["nFuncId"])'; }
expected() { sed 's/^/request /' "$work/requests.ids" > "$work/want.req"; sed 's/^/answer /' "$work/answers.ids" > "$work/want.ans"; }
expected
for iface in lo any; do
  "$tool" decode --pcap --jsonl "$work/$iface.pcap" > "$work/$iface.jsonl" 2> "$work/$iface.err" || fail "$iface: decode --pcap exits non-zero: $(cat "$work/$iface.err")"
  ids < "$work/$iface.jsonl" > "$work/$iface.ids" || fail "$iface: the JSON lines do not read"
  grep '^request' "$work/$iface.ids" | cmp -s - "$work/want.req" || fail "$iface: the requests differ from those sent"
  grep '^answer' "$work/$iface.ids" | cmp -s - "$work/want.ans" || fail "$iface: the answers differ from those sent"
done
"$tool" stats --pcap "$work/any.pcap" > "$work/stats" || fail "stats --pcap exits non-zero"
grep -q "^60 messages: " "$work/stats" || fail "stats --pcap: $(head -1 "$work/stats")"
grep -q "^capture: .*1 TCP connection" "$work/stats" || fail "stats --pcap: $(grep capture "$work/stats")"
# A port without traffic is said, and is no success.
"$tool" decode --pcap --port 1 "$work/lo.pcap" > /dev/null 2> "$work/err" && fail "a port without traffic exits 0"
grep -q "no TCP payload on port 1" "$work/err" || fail "a port without traffic: $(cat "$work/err")"

# Live: tcpdump's capture piped into decode as it is written.
: > "$work/live.jsonl"
mkfifo "$work/live.pipe"
"$tool" decode --pcap --jsonl - < "$work/live.pipe" > "$work/live.jsonl" 2> "$work/live.err" &
decoder=$!
tcpdump -Z root --immediate-mode -i lo -U -w "$work/live.pipe" tcp port "$live_port" 2> "$work/live.log" &
pids+=($!)
for _ in $(seq 100); do grep -q "listening on" "$work/live.log" 2> /dev/null && break; sleep 0.1; done
python3 "$work/exchange.py" "$tool" "$corpus" "$live_port" "$work" 10 live || fail "live: $(cat "$work/live.err")"
kill -INT "${pids[@]}" 2> /dev/null
wait "$decoder" || fail "live: decode exits non-zero: $(cat "$work/live.err")"
pids=()
[ "$(wc -l < "$work/live.jsonl")" -eq 20 ] || fail "live: $(wc -l < "$work/live.jsonl") messages printed, 20 sent"

echo "$failures failures"
[ "$failures" -eq 0 ]
