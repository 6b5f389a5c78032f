#!/usr/bin/env python3
"""Turns bench/suite's results.tsv into markdown tables, one per scenario, data set and
condition.

    suite_report.py results.tsv

Rows of the TSV: scenario dataset condition tool round metric value items bytes ok.
Metric "seconds" rows make the time table: median seconds, items/s and MB/s from the
median, and for every varnel-* tool of the group its time divided by each tool's, as
the median of the per-round ratios followed by the ratio of each round (below 1: Varnel
Sync was faster). Where the suite probed the processors before each run (S1, metric
"round_trip_ns", see suite_pingpong.c), a last column gives each round's round trip.
Sampled memory runs (bench/suite_mem.py) make the memory table, per scanned item; the
timed runs' own peak RSS stays in the TSV only.
"""
import csv
import statistics
import sys
from collections import OrderedDict, defaultdict

TITLES = {
    "S1": "no-change analysis of an identical pair",
    "S2": "initial copy into an empty folder (each run ends with `sync`)",
    "S3": "large files",
    "S4": "incremental: 1 % of the files rewritten, then synchronised (each run ends with `sync`)",
    "S5": "SHA-256 of one file, warm cache",
    "S6": "peak memory of `varnel-sync analyze`",
}


def fmt_seconds(s):
    return f"{s:.3f}" if s < 10 else f"{s:.1f}"


def fmt_rate(x):
    return f"{x:,.0f}" if x >= 100 else f"{x:.1f}"


def time_table(rows, round_trips):
    by_tool = OrderedDict()
    for r in rows:
        by_tool.setdefault(r["tool"], []).append(r)
    trips = defaultdict(dict)
    for r in round_trips:
        trips[r["tool"]][r["round"]] = r["value"]
    refs = [t for t in by_tool if t.startswith("varnel")]
    head = ["tool", "runs", "median s", "items/s", "MB/s"] + [f"{ref} ÷ tool (per round)" for ref in refs]
    if trips:
        head.append("processor round trip ns (per round)")
    lines = ["| " + " | ".join(head) + " |", "|" + "---|" * len(head)]
    per_round = {t: {r["round"]: float(r["value"]) for r in rs} for t, rs in by_tool.items()}
    for tool, rs in by_tool.items():
        med = statistics.median(float(r["value"]) for r in rs)
        items, size = int(rs[0]["items"] or 0), int(rs[0]["bytes"] or 0)
        name = tool if all(r["ok"] == "1" for r in rs) else f"{tool} ⚠ FAILED OR MISMATCH"
        cells = [name, str(len(rs)), fmt_seconds(med),
                 fmt_rate(items / med) if items and med else "—",
                 fmt_rate(size / med / 1e6) if size and med else "—"]
        for ref in refs:
            common = sorted(set(per_round[ref]) & set(per_round[tool]), key=int)
            ratios = [per_round[ref][k] / per_round[tool][k] for k in common if per_round[tool][k] > 0]
            if ref == tool or not ratios:
                cells.append("—")
            else:
                cells.append(f"{statistics.median(ratios):.2f} ({' '.join(f'{x:.2f}' for x in ratios)})")
        if trips:
            rounds = sorted(trips[tool], key=int)
            cells.append(" ".join(trips[tool][k] for k in rounds) if rounds else "—")
        lines.append("| " + " | ".join(cells) + " |")
    return lines


def memory_table(rows):
    values = defaultdict(lambda: defaultdict(list))
    items = {}
    for r in rows:
        values[r["tool"]][r["metric"]].append(float(r["value"]))
        items[r["tool"]] = int(r["items"] or 0)
    head = ["tool", "peak RSS MiB, largest process", "peak RSS MiB, all processes (sampled)",
            "peak PSS MiB (sampled)", "items scanned", "RSS bytes/item", "PSS bytes/item",
            "largest-process peak above the empty-pair run, bytes/item"]
    lines = ["| " + " | ".join(head) + " |", "|" + "---|" * len(head)]

    def med(tool, metric):
        v = values.get(tool, {}).get(metric)
        return statistics.median(v) if v else None

    for tool in values:
        if tool.endswith("@empty"):
            continue
        n = items[tool]
        largest = med(tool, "maxrss_kb")
        rss, pss = med(tool, "tree_rss_kb"), med(tool, "tree_pss_kb")
        # A run on two empty folders is too short to sample: subtract the exact peak.
        base = med(tool + "@empty", "maxrss_kb")
        whole = rss if rss is not None else largest

        def mib(kb):
            return f"{kb / 1024:.1f}" if kb is not None else "—"

        def per_item(kb):
            return f"{kb * 1024 / n:.0f}" if kb is not None and n else "—"

        lines.append("| " + " | ".join([
            tool, mib(largest), mib(rss), mib(pss), f"{n:,}", per_item(whole), per_item(pss),
            per_item(largest - base) if base is not None and largest is not None else "—"]) + " |")
    return lines


def main():
    with open(sys.argv[1], newline="") as f:
        rows = list(csv.DictReader(f, delimiter="\t"))
    groups = OrderedDict()
    for r in rows:
        groups.setdefault((r["scenario"], r["dataset"], r["condition"]), []).append(r)
    for (scenario, dataset, condition), rs in groups.items():
        timed = [r for r in rs if r["metric"] == "seconds"]
        round_trips = [r for r in rs if r["metric"] == "round_trip_ns"]
        mem = [r for r in rs if r["metric"] not in ("seconds", "round_trip_ns")]
        sampled = any(r["metric"].startswith("tree_") for r in mem)
        print(f"\n### {scenario} {dataset} ({condition}): {TITLES.get(scenario, '')}\n")
        if timed:
            print("\n".join(time_table(timed, round_trips)))
        if sampled:
            if timed:
                print()
            print("\n".join(memory_table(mem)))


if __name__ == "__main__":
    main()
