"""Writes the run-loop timing section of BENCHMARKS.md from Google
Benchmark's JSON output of loop_bench: each measure's median and largest
lateness, the earliest, and the targets.

    python3 bench/loop/report.py RESULTS.json BENCHMARKS.md
"""
import json
import os
import sys

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
from section import write_section  # noqa: E402

BEGIN, END = "<!-- loop:begin -->", "<!-- loop:end -->"
WHAT = {
    "TimerLateness": "dispatchAfter(10 ms): due time to the block running",
    "SliceOverrun": "10 ms slice, nothing queued: deadline to return",
    "StopToReturn": "stop() in a handler: the call to the slice's return",
    "SignalWakeUp": "signal taken by another thread mid-slice: raise() to its handler on the loop",
    "ViciRequestTimeout": "VICI request unanswered, 20 ms timeout: the bound to the failed reply",
    "ViciSyncDeadline": "blocking VICI request unanswered, 20 ms deadline: the deadline to the return",
    "ViciDrainQuiet": "waiting for trailing events, 20 ms of quiet: its end to the return",
    "TerminalFlushLimit": "terminal that reads nothing, flush with a 20 ms limit: the limit to the return",
}
# Targets for every measure, in milliseconds: the median and the largest.
MEDIAN_MS, MAX_MS = 1.0, 50.0


def main():
    data = json.load(open(sys.argv[1]))
    ctx = data["context"]
    rows = []
    for b in data["benchmarks"]:
        base = b["name"].split("/")[0]
        rows.append((base, b["iterations"], b["median_ms"], b["max_ms"], b["min_ms"]))

    out = ["## Run loop and VICI client timing (bench/loop)", ""]
    out.append("{}; {} x {} MHz, load average {}; Google Benchmark, release build, steady "
               "clock. Lateness past the point each measure names; the unit tests check the "
               "same behaviour exactly on virtual time.".format(
                   ctx["date"], ctx["num_cpus"], ctx["mhz_per_cpu"],
                   " ".join("{:.2f}".format(x) for x in ctx.get("load_avg", []))))
    out.append("")
    out.append("| measure | runs | median, ms | largest, ms | smallest, ms |")
    out.append("|---|---|---|---|---|")
    for base, runs, median, largest, smallest in rows:
        out.append("| {} | {} | {:.3f} | {:.3f} | {:.3f} |".format(WHAT.get(base, base), runs,
                                                                  median, largest, smallest))
    out.append("")
    out.append("### Targets")
    out.append("")
    for base, _, median, largest, smallest in rows:
        # A negative figure is a return before the point: never early.
        met = 0 <= smallest and median <= MEDIAN_MS and largest <= MAX_MS
        out.append("- {}: median {:.3f} ms (target {} ms), largest {:.3f} ms (target {} ms), "
                   "smallest {:.3f} ms (target 0 or more): {}.".format(
                       WHAT.get(base, base), median, MEDIAN_MS, largest, MAX_MS, smallest,
                       "met" if met else "missed"))

    write_section(sys.argv[2], BEGIN, END, out)

if __name__ == "__main__":
    main()
