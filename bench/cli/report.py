"""Writes the command-line benchmark section of BENCHMARKS.md from Google
Benchmark's JSON output: time per size, the complexity fit, and the targets.

    python3 bench/cli/report.py RESULTS.json BENCHMARKS.md
"""
import json
import os
import sys

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
from section import write_section  # noqa: E402

BEGIN, END = "<!-- cli:begin -->", "<!-- cli:end -->"
WHAT = {
    "ParseArguments": "parse N arguments (tool's options registered)",
    "ReadConfiguration": "read an N-line configuration file",
    "PrintHelp": "print help of N options",
    "PrintValuesReport": "print the values report of N options, 2 levels",
    "SettingsLookupThroughChain": "3 lookups through a chain of N levels",
}
# Targets: the largest size must finish under this many milliseconds.
# A configuration file is read only up to 1 MiB (about 40000 such lines).
LIMIT_MS = {"ParseArguments": (100000, 50.0), "ReadConfiguration": (40000, 20.0)}


def to_ms(value, unit):
    return value * {"ns": 1e-6, "us": 1e-3, "ms": 1.0, "s": 1e3}[unit]


def main():
    data = json.load(open(sys.argv[1]))
    ctx = data["context"]
    rows, fits = {}, {}
    for b in data["benchmarks"]:
        name = b["name"]
        base, _, arg = name.partition("/")
        if base.endswith("_BigO"):
            fits[base[:-5]] = "{} ({:.3g} {} per unit)".format(
                b["big_o"], b["cpu_coefficient"], b.get("time_unit", "ns"))
        elif base.endswith("_RMS"):
            continue
        elif arg:
            rows.setdefault(base, []).append((int(arg), to_ms(b["real_time"], b["time_unit"])))

    out = ["## Command-line layer (bench/cli)", ""]
    out.append("{}; {} x {} MHz; Google Benchmark, release build. Wall time per call, "
               "and the complexity Google Benchmark fits over the sizes.".format(
                   ctx["date"], ctx["num_cpus"], ctx["mhz_per_cpu"]))
    out.append("")
    out.append("| benchmark | sizes: ms per call | fit |")
    out.append("|---|---|---|")
    for base, points in rows.items():
        cells = ", ".join("{}: {:.4g}".format(n, ms) for n, ms in sorted(points))
        out.append("| {} | {} | {} |".format(WHAT.get(base, base), cells, fits.get(base, "")))
    out.append("")
    out.append("### Targets")
    out.append("")
    for base, (size, limit) in LIMIT_MS.items():
        got = dict(rows.get(base, [])).get(size)
        verdict = "not measured" if got is None else ("met" if got < limit else "missed")
        shown = "n/a" if got is None else "{:.1f} ms".format(got)
        out.append("- {} at {}: {} against {} ms: {}.".format(
            WHAT[base], size, shown, limit, verdict))
    for base in ("ParseArguments", "ReadConfiguration"):
        fit = fits.get(base, "")
        out.append("- {} is linear: fitted {}: {}.".format(
            WHAT[base], fit.split(" ")[0] or "n/a", "met" if fit.startswith("N ") or fit.startswith("(1)") else "see the fit"))
    if fits.get("PrintValuesReport", "").startswith("NlgN"):
        out.append("")
        out.append("The values report fits N log N: each of its rows looks its option up "
                   "in every level's storage, a sorted map of N keys.")

    write_section(sys.argv[2], BEGIN, END, out)

if __name__ == "__main__":
    main()
