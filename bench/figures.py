# SPDX-License-Identifier: MIT
"""All figures of one machine in one run: a table, and results.json and results.svg in BUILD_FOLDER/bench.

usage: figures.py BUILD_FOLDER [PART...]     parts: load listing refresh start change startup memory door micro
"""
import json
import os
import platform
import signal
import subprocess
import sys
import time
import traceback

import common
import door
import load
import plot
import sessions
import starts
import zarvo
from common import PROGRAMS

MICRO_NAMES = {
    "encodeFrame/64": "encode a frame of 64 bytes", "encodeFrame/65536": "encode a frame of 64 KiB",
    "decodeFrame/64": "decode a frame of 64 bytes", "decodeFrame/65536": "decode a frame of 64 KiB",
    "handleRequest": "handle one Live.GetVersion", "readLog": "read an agent's log of 1 MiB",
    "writeListing/1": "write a listing of 1 session", "writeListing/200": "write a listing of 200 sessions"}


def micro(figures):
    if not os.access(os.path.join(PROGRAMS, "bench_micro"), os.X_OK):
        print("\n(no Google Benchmark here, so nothing on the parts by themselves)")
        return
    report = common.program("bench_micro", "--benchmark_format=json", stderr=subprocess.DEVNULL)
    for item in report["benchmarks"]:
        microseconds = item["cpu_time"] * {"ns": 1e-3, "us": 1}[item["time_unit"]]
        value, unit = (microseconds, "us") if microseconds < 100 else (microseconds / 1000, "ms")
        figures.add("Parts by themselves, processor time", MICRO_NAMES[item["name"]], round(value, 2), unit)


PARTS = {"load": load.measure, "listing": sessions.listing, "refresh": sessions.refresh, "start": starts.measure,
         "change": sessions.change, "startup": sessions.startup, "memory": sessions.memory, "door": door.measure,
         "micro": micro}


class Figures:
    """What was measured, in order. A figure has a group, a name, a value, a unit and perhaps an aim."""

    def __init__(self):
        self.all = []

    def add(self, group, name, value, unit, at_least=None, at_most=None, **details):
        figure = {"group": group, "name": name, "value": value, "unit": unit, **details}
        if at_least is not None:
            figure.update(aim=f">= {at_least:,}", met=value >= at_least)
        if at_most is not None:
            figure.update(aim=f"<= {at_most:,}", met=value <= at_most)
        if not self.all or self.all[-1]["group"] != group:
            print(f"\n{group}", flush=True)
        self.all.append(figure)
        more = ", ".join(f"{key} {value:,}" for key, value in details.items())
        verdict = f"   aim {figure['aim']}: {'met' if figure['met'] else 'MISSED'}" if "aim" in figure else ""
        print(f"  {name:44} {value:>12,} {unit:11} {more}{verdict}", flush=True)


def machine():
    def first(command):
        result = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, check=False)
        return result.stdout.strip()
    with open("/proc/cpuinfo", encoding="utf-8") as info:
        model = next((line.partition(":")[2].strip() for line in info if line.startswith("model name")), "unknown")
    return {"processor": model, "processors": os.cpu_count(), "kernel": platform.release(),
            "Qt": first(["dpkg-query", "-W", "-f", "${Version}", "libqt6core6"]),
            "OpenSSL": first(["openssl", "version"]), "nginx": first(["dpkg-query", "-W", "-f", "${Version}", "nginx"]),
            "commit": first(["git", "-C", os.path.dirname(__file__), "describe", "--always", "--dirty"]),
            "begin": time.strftime("%Y-%m-%d %H:%M UTC", time.gmtime()), "load before": os.getloadavg()[0]}


def main():
    # SIGTERM works like Ctrl-C, so that started programs are ended and their files are removed.
    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, lambda *_: sys.exit("interrupted"))
    chosen = sys.argv[2:] or list(PARTS)
    figures, surroundings = Figures(), machine()
    print("\n".join(f"{key}: {value}" for key, value in surroundings.items()))
    failed = []
    for name in chosen:
        try:
            PARTS[name](figures)
        except Exception:  # the other parts are still measured
            traceback.print_exc()
            failed.append(name)
    surroundings["load after"] = os.getloadavg()[0]
    print(f"\nload average: {surroundings['load before']:.2f} before, {surroundings['load after']:.2f} after "
          "(the figures are those of a quiet machine only when it was below 1 before)")
    zarvo.write(os.path.join(PROGRAMS, "results.json"),
                json.dumps({"machine": surroundings, "figures": figures.all}, indent=1) + "\n")
    zarvo.write(os.path.join(PROGRAMS, "results.svg"), plot.svg(figures.all, surroundings))
    print(f"written to {PROGRAMS}: results.json, results.svg")
    if failed:
        sys.exit(f"not measured: {', '.join(failed)}")


if __name__ == "__main__":
    main()
