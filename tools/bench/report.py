#!/usr/bin/env python3
"""Turns the JSON of several runs of mw_sync_bench into docs/bench/report.md and the chart's data.

Every run is a separate process that measured all the locks side by side (a benchmark's figure in a
process is the median of its repetitions there), so a ratio is only ever taken between two figures
of the same process: the rate of a row divided by the rate of its
family's standard peer in that process. Every figure is a rate (higher is better), so a ratio above
1 means the row beat the standard peer. Over the processes the report gives the median ratio, the
worst (lowest) ratio and the median rate.

    report.py --out DIR --chart-data DIR --build-dir DIR --min-time S --repetitions R run-1.json ...

Writes report.md to --out, and contended-library.dat and contended-peers.dat to --chart-data: the
median contended rate per thread count, one column per lock, for tools/bench/chart.gp.
"""

import argparse
import datetime
import json
import os
import platform
import re
import statistics
import subprocess
import sys

LIBRARY = "library"
PEER = "peer"

# Lock keys as the benchmark names them, the label of the report's tables (Markdown), the label of
# the chart, and who made the lock.
LOCKS = [
    ("mwbench::MwReentrant<mw::NonFairLockPolicy>", "`mw::ReentrantLock<NonFairLockPolicy>`",
     "mw ReentrantLock, non-fair", LIBRARY),
    ("mwbench::MwReentrant<mw::FairLockPolicy>", "`mw::ReentrantLock<FairLockPolicy>`",
     "mw ReentrantLock, fair", LIBRARY),
    ("Guard", "`mw::Object` monitor through `mw::Guard`", "mw Object monitor (Guard)", LIBRARY),
    ("mwbench::SimpleMutex", "`mw::AbstractQueuedSynchronizer`, minimal mutex subclass",
     "mw synchronizer, minimal mutex", LIBRARY),
    ("mwbench::StdMutex", "`std::mutex`", "std::mutex (baseline)", PEER),
    ("mwbench::StdRecursiveMutex", "`std::recursive_mutex`", "std::recursive_mutex", PEER),
    ("mwbench::StdTimedMutex", "`std::timed_mutex`", "std::timed_mutex", PEER),
    ("mwbench::BoostMutex", "`boost::mutex`", "boost::mutex", PEER),
    ("mwbench::TbbSpinMutex", "`tbb::spin_mutex`", "tbb::spin_mutex", PEER),
    ("TbbQueuing", "`tbb::queuing_mutex`", "tbb::queuing_mutex", PEER),
    ("mwbench::AbslMutex", "`absl::Mutex`", "absl::Mutex", PEER),
    ("mwbench::PthreadAdaptiveMutex", "pthread mutex, `PTHREAD_MUTEX_ADAPTIVE_NP`",
     "pthread adaptive mutex", PEER),
]
LOCK_BASELINE = "mwbench::StdMutex"
THREAD_COUNTS = [1, 2, 4, 8]

PING_PONGS = [
    ("MwLockPingPong", "`mw::ReentrantLock<NonFairLockPolicy>` + `mw::Condition`", None, LIBRARY),
    ("MwMonitorPingPong", "`mw::Object` monitor: `wait` / `notify`", None, LIBRARY),
    ("StdPingPong", "`std::mutex` + `std::condition_variable`", None, PEER),
]
BUFFERS = [
    ("MwMonitor", "`mw::Object` monitor: `wait` / `notify` or `notifyAll`", None, LIBRARY),
    ("StdMonitor", "`std::mutex` + `std::condition_variable`", None, PEER),
]
BUFFER_SHAPES = [(2, "1 producer + 1 consumer"), (4, "2 producers + 2 consumers")]

NAME = re.compile(r"^(?P<function>BM_[A-Za-z]+)(?:<(?P<argument>.+)>)?(?P<suffix>(?:/[^/<>]+)*)$")


def benchmark_key(name):
    """(family, lock or program, threads) of a benchmark name, or None for one the report skips."""
    match = NAME.match(name)
    if not match:
        return None
    function, argument = match["function"], match["argument"]
    threads = re.search(r"/threads:(\d+)", match["suffix"])
    threads = int(threads[1]) if threads else 1
    for prefix in ("BM_Uncontended", "BM_Contended"):
        if function.startswith(prefix):
            rest = function[len(prefix):]
            lock = argument if not rest else rest
            family = "uncontended" if prefix == "BM_Uncontended" else "contended"
            return (family, lock, threads) if lock else None
    if function == "BM_ConditionPingPong":
        return ("pingpong", argument, threads)
    if function == "BM_BoundedBuffer":
        return ("buffer", argument, threads)
    return None


def load_run(path):
    """One process: its context and {key: items per second}, the median of the key's repetitions.
    The framework's own aggregates are not used: they would count a failed repetition."""
    with open(path) as file:
        document = json.load(file)
    repetitions = {}
    for entry in document.get("benchmarks", []):
        if entry.get("run_type", "iteration") != "iteration" or entry.get("error_occurred"):
            continue
        key = benchmark_key(entry["run_name"] if "run_name" in entry else entry["name"])
        rate = entry.get("items_per_second")
        if key and rate:
            repetitions.setdefault(key, []).append(rate)
    rates = {key: statistics.median(values) for key, values in repetitions.items()}
    return document.get("context", {}), rates


def summarize(runs, key, baseline):
    """(median ratio, worst ratio, median rate, processes) of key against baseline, or None."""
    ratios, rates = [], []
    for _, run in runs:
        if key in run and baseline in run:
            ratios.append(run[key] / run[baseline])
            rates.append(run[key])
    if not ratios:
        return None
    return statistics.median(ratios), min(ratios), statistics.median(rates), len(ratios)


def format_rate(rate):
    for scale, unit in ((1e9, "G"), (1e6, "M"), (1e3, "k")):
        if rate >= scale:
            return f"{rate / scale:.3g} {unit}/s"
    return f"{rate:.3g} /s"


def format_ratio(ratio):
    # Two decimals, but a ratio far below 1 keeps a significant digit instead of showing 0.00.
    return f"{ratio:.2f}" if ratio >= 0.1 else f"{ratio:.1g}"


def table(runs, family, rows, baseline_name, threads, subject, unit):
    baseline = (family, baseline_name, threads)
    lines = [
        f"| {subject} | median ratio | worst ratio | median {unit} |",
        "|---|---:|---:|---:|",
    ]
    for name, label, _, maker in rows:
        summary = summarize(runs, (family, name, threads), baseline)
        if summary is None:
            continue
        median_ratio, worst_ratio, median_rate, count = summary
        shown = f"**{label}**" if maker == LIBRARY else label
        if name == baseline_name:
            lines.append(f"| {shown} (baseline) | 1 | 1 | {format_rate(median_rate)} |")
        else:
            partial = "" if count == len(runs) else f" ({count} of {len(runs)} processes)"
            lines.append(f"| {shown}{partial} | {format_ratio(median_ratio)} | "
                         f"{format_ratio(worst_ratio)} | {format_rate(median_rate)} |")
    return "\n".join(lines)


def cpu_model():
    try:
        with open("/proc/cpuinfo") as file:
            for line in file:
                if line.startswith("model name"):
                    return line.split(":", 1)[1].strip()
    except OSError:
        pass
    return platform.processor() or "unknown"


def compiler_version(build_dir):
    compiler = "c++"
    try:
        with open(os.path.join(build_dir, "CMakeCache.txt")) as file:
            for line in file:
                if line.startswith("CMAKE_CXX_COMPILER:"):
                    compiler = line.split("=", 1)[1].strip()
    except OSError:
        pass
    try:
        output = subprocess.run([compiler, "--version"], capture_output=True, text=True, check=True)
        return output.stdout.splitlines()[0]
    except (OSError, subprocess.CalledProcessError, IndexError):
        return compiler


def run_date(context):
    """The day the first process ran, as the benchmark recorded it."""
    return context.get("date", "")[:10] or datetime.date.today().isoformat()


def missing_peers(runs):
    present = {key[1] for _, run in runs for key in run if key[0] == "contended"}
    return [label for name, label, _, _ in LOCKS if name not in present]


def write_chart_data(runs, out):
    """Median contended rate in millions per second, one column per lock, one file per maker."""
    for maker, file_name in ((LIBRARY, "contended-library.dat"), (PEER, "contended-peers.dat")):
        columns = []
        for name, _, label, who in LOCKS:
            if who != maker:
                continue
            medians = []
            for threads in THREAD_COUNTS:
                rates = [run[("contended", name, threads)] for _, run in runs
                         if ("contended", name, threads) in run]
                medians.append(statistics.median(rates) / 1e6 if rates else None)
            if any(value is not None for value in medians):
                columns.append((label, medians))
        with open(os.path.join(out, file_name), "w") as file:
            file.write("threads " + " ".join(f'"{label}"' for label, _ in columns) + "\n")
            for row, threads in enumerate(THREAD_COUNTS):
                values = ["NaN" if medians[row] is None else f"{medians[row]:.6g}"
                          for _, medians in columns]
                file.write(f"{threads} " + " ".join(values) + "\n")


def report(runs, arguments):
    context = runs[0][0]
    loads = ", ".join(f"{run_context.get('load_avg', [0])[0]:.2f}" for run_context, _ in runs)
    missing = missing_peers(runs)
    parts = [
        "# Benchmarks: the library beside its peers",
        "",
        f"Written by `scripts/bench.sh` from runs of {run_date(context)}. "
        "Regenerate it with that one command.",
        "",
        "## Machine and run",
        "",
        f"- CPU: {cpu_model()}; {os.cpu_count()} logical cores "
        f"({context.get('num_cpus', '?')} seen by the benchmark)",
        f"- Kernel: {platform.release()}",
        f"- Compiler: {compiler_version(arguments.build_dir)}; Release build",
        f"- Runs: {len(runs)} separate process{'es' if len(runs) > 1 else ''} of `mw_sync_bench`; "
        f"in each, every benchmark ran {arguments.repetitions} time"
        f"{'s' if arguments.repetitions > 1 else ''} for at least {arguments.min_time} s, all "
        "repetitions in random order, and the process's figure is their median. One-minute load "
        f"average at the start of each process: {loads}",
        "- Every run keeps one idle thread alive besides the measuring ones, so that all locks run "
        "in a multi-threaded process.",
    ]
    if context.get("library_build_type") == "debug":
        parts.append("- The benchmark framework's own library reports a debug build (as Debian "
                     "ships it); that touches its bookkeeping around the measured loops, which "
                     "are compiled in the Release build, not the code they measure.")
    if missing:
        parts.append(f"- Peers not built on this machine: {', '.join(missing)}")
    parts += [
        "",
        "## How to read the tables",
        "",
        "Every figure is a rate: lock/unlock pairs, round trips or items per second, higher is "
        "better. A **ratio** is the rate of a row divided by the rate of the family's standard "
        "peer *in the same process*, so **a ratio above 1 means the row is faster than the "
        "standard peer**; for the library's rows (in bold), above 1 means the library is better. "
        "*Median ratio* and *worst ratio* (the lowest) are taken over the processes; the last "
        "column is the median rate. The figures of this machine's 2 vCPUs are noisy, and "
        "8 threads oversubscribe it; read ratios near 1 as a tie.",
        "",
        "![Contended throughput against threads, per lock](chart.svg)",
        "",
        "## Uncontended lock and unlock (one thread)",
        "",
        "Ratio to `std::mutex`.",
        "",
        table(runs, "uncontended", LOCKS, LOCK_BASELINE, 1, "lock", "pairs"),
        "",
        "## Contended throughput",
        "",
        "All threads take one lock, bump a counter and let go, in bursts of 50 ms of wall "
        "time; the rate is pairs per second across all threads. Ratio to `std::mutex` at the "
        "same thread count.",
    ]
    for threads in THREAD_COUNTS:
        parts += ["", f"### {threads} thread{'s' if threads > 1 else ''}", "",
                  table(runs, "contended", LOCKS, LOCK_BASELINE, threads, "lock", "pairs")]
    parts += [
        "",
        "## Condition ping-pong",
        "",
        "Two threads hand a turn back and forth through one condition; the rate is round trips "
        "(two hand-overs each) per second. Ratio to `std::condition_variable`.",
        "",
        table(runs, "pingpong", PING_PONGS, "StdPingPong", 1, "program", "round trips"),
        "",
        "## Bounded buffer",
        "",
        "Producers and consumers pass items through a 16-slot ring guarded by one monitor with "
        "one wait set; the same program runs on both. The rate is items handed over per second. "
        "Ratio to the `std::mutex` + `std::condition_variable` program.",
    ]
    for threads, shape in BUFFER_SHAPES:
        parts += ["", f"### {shape}", "", table(runs, "buffer", BUFFERS, "StdMonitor", threads,
                                                "program", "items")]
    return "\n".join(parts) + "\n"


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--out", required=True)
    parser.add_argument("--chart-data", required=True)
    parser.add_argument("--build-dir", required=True)
    parser.add_argument("--min-time", required=True)
    parser.add_argument("--repetitions", type=int, default=1)
    parser.add_argument("runs", nargs="+")
    arguments = parser.parse_args()

    runs = [load_run(path) for path in arguments.runs]
    runs = [(context, rates) for context, rates in runs if rates]
    if not runs:
        sys.exit("report.py: no benchmark results in " + " ".join(arguments.runs))
    os.makedirs(arguments.out, exist_ok=True)
    os.makedirs(arguments.chart_data, exist_ok=True)
    write_chart_data(runs, arguments.chart_data)
    with open(os.path.join(arguments.out, "report.md"), "w") as file:
        file.write(report(runs, arguments))


if __name__ == "__main__":
    main()
