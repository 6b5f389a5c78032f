#!/usr/bin/env python3
"""Runs a command and samples the memory of its whole process tree.

    suite_mem.py OUT_FILE COMMAND [ARGS...]

Every 50 ms it adds up VmRSS (from /proc/PID/status) and Pss (from
/proc/PID/smaps_rollup) over the command and all its descendants, and keeps the
peaks; rsync, for one, works as three processes, so one process's peak is not the
whole cost. The command runs under /usr/bin/time, whose "maximum resident set size" is
the kernel's exact peak of the largest single process (taken from wait4 here, it would
include this Python process, which the child is forked from). Writes "maxrss_kb=N",
"tree_rss_kb=N" and "tree_pss_kb=N" to OUT_FILE and exits with the command's status.
Sampling can miss a peak shorter than the interval, so a run of a few tens of
milliseconds has no reliable sampled figures.
"""
import os
import subprocess
import sys
import time


def descendants(pid):
    out, todo = [], [pid]
    while todo:
        p = todo.pop()
        out.append(p)
        try:
            for tid in os.listdir(f"/proc/{p}/task"):
                with open(f"/proc/{p}/task/{tid}/children") as f:
                    todo.extend(int(c) for c in f.read().split())
        except OSError:
            pass  # the process has just ended
    return out


def field_kb(path, name):
    try:
        with open(path) as f:
            for line in f:
                if line.startswith(name):
                    return int(line.split()[1])
    except OSError:
        pass
    return 0


def main():
    out_file, command = sys.argv[1], sys.argv[2:]
    maxrss_file = out_file + ".time"
    child = subprocess.Popen(["/usr/bin/time", "-f", "%M", "-o", maxrss_file] + command)
    peak_rss = peak_pss = 0
    while child.poll() is None:
        rss = pss = 0
        for p in descendants(child.pid)[1:]:  # the command's tree, without time itself
            rss += field_kb(f"/proc/{p}/status", "VmRSS:")
            pss += field_kb(f"/proc/{p}/smaps_rollup", "Pss:")
        peak_rss, peak_pss = max(peak_rss, rss), max(peak_pss, pss)
        time.sleep(0.05)
    with open(maxrss_file) as f:
        maxrss = f.read().split()[-1]
    os.remove(maxrss_file)
    with open(out_file, "w") as f:
        f.write(f"maxrss_kb={maxrss}\ntree_rss_kb={peak_rss}\ntree_pss_kb={peak_pss}\n")
    sys.exit(child.returncode)

if __name__ == "__main__":
    main()
