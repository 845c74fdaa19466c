#!/usr/bin/python3
"""Orders per account per minute, from a capture of the link.

With a capture of your own:   orders_per_minute.py day.pcap [PORT]
Without one, it first writes day.pcap: five minutes of a front end's order
requests (function id 1002, the account in the text at offset 3) to a
server on port 9000, and the server's answers.

The module must be importable: installed (pip install --no-build-isolation .,
or the Debian package python3-trdcomp), or PYTHONPATH=build/release/python/module.
"""
import os
import random
import sys

import trdcomp

ORDER = "REQ_1002"  # the layout of an order request (function id 1002)


def write_day(path):
    """Orders from four accounts, a few a second, over five minutes."""
    from pcapfile import Capture, Connection
    here = os.path.dirname(os.path.abspath(__file__))
    golden = os.path.join(here, "..", "..", "tests", "golden", "corpus")
    order = trdcomp.decode(open(os.path.join(golden, "req_1002_fast.wire"), "rb").read())
    answer = open(os.path.join(golden, "ans_1002_fast.wire"), "rb").read()
    rng = random.Random(1)
    accounts = ["ACC-0001", "ACC-0002", "ACC-0003", "ACC-0004"]
    with open(path, "wb") as f:
        capture = Capture(f, start=1700000040)
        link = Connection(capture, 0)
        for _ in range(900):
            records = order["sections"][0]["records"][:1]
            records[0]["f3"] = rng.choices(accounts, weights=[8, 4, 2, 1])[0]
            order["sections"][0].update(records=records, count=1)
            order["head"]["nRecCount"] = 1
            link.send(trdcomp.encode(order), step_ns=rng.randrange(1, 660) * 1_000_000)
            link.send(answer, answer=True, step_ns=200_000)
        link.close()


def main():
    path = sys.argv[1] if len(sys.argv) > 1 else "day.pcap"
    port = int(sys.argv[2]) if len(sys.argv) > 2 else 9000
    if len(sys.argv) == 1 and not os.path.exists(path):
        write_day(path)
    messages = trdcomp.pcap(path, port=port, ids=1002)
    orders = trdcomp.frame(messages, ORDER)
    per_minute = orders.groupby([orders["time"].dt.floor("min"), "f3"]).size().unstack(fill_value=0)
    print(per_minute)
    if messages.reports:
        print(f"\n{len(messages.reports)} reports, the first: {messages.reports[0]}")


if __name__ == "__main__":
    main()
