#!/usr/bin/env python3
"""Prints line and branch coverage per source folder from gcovr's JSON summary."""
import json
import sys

FOLDERS = ["daemon", "listener", "msghub", "freezer", "limiter", "proc", "sockdiag",
           "platform/host", "tools"]


def folder_of(path):
    for f in FOLDERS:
        if path.startswith(f + "/"):
            return f
    return None


def main(summary_path):
    with open(summary_path) as fp:
        files = json.load(fp)["files"]
    totals = {f: [0, 0, 0, 0] for f in FOLDERS}
    for entry in files:
        folder = folder_of(entry["filename"])
        if folder is None:
            continue
        t = totals[folder]
        t[0] += entry["line_covered"]
        t[1] += entry["line_total"]
        t[2] += entry["branch_covered"]
        t[3] += entry["branch_total"]
    pct = lambda a, b: f"{100.0 * a / b:6.1f}%" if b else "     -"
    print(f"{'folder':<15}{'lines':>8}{'line cov':>10}{'branches':>10}{'branch cov':>12}")
    for f in FOLDERS:
        lc, lt, bc, bt = totals[f]
        print(f"{f:<15}{lt:>8}{pct(lc, lt):>10}{bt:>10}{pct(bc, bt):>12}")


if __name__ == "__main__":
    main(sys.argv[1])
