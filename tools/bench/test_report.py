"""Checks of report.py on made-up runs: name parsing, same-process ratios, the written files.
Run: python3 -m unittest tools/bench/test_report.py (scripts/bench.sh runs it first)."""

import json
import os
import sys
import tempfile
import unittest
from types import SimpleNamespace

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import report  # noqa: E402

STD = "BM_Contended<mwbench::StdMutex>/real_time/threads:2"
FAIR = "BM_Contended<mwbench::MwReentrant<mw::FairLockPolicy>>/real_time/threads:2"


def run_file(directory, index, rates, errors=()):
    """rates: {name: rate or [rate of each repetition]}."""
    benchmarks = [{"name": name, "run_type": "iteration", "items_per_second": rate}
                  for name, values in rates.items()
                  for rate in (values if isinstance(values, list) else [values])]
    benchmarks += [{"name": name + "_mean", "run_name": name, "run_type": "aggregate",
                    "items_per_second": 1e12} for name in rates]
    benchmarks += [{"name": name, "run_type": "iteration", "error_occurred": True}
                   for name in errors]
    path = os.path.join(directory, f"run-{index}.json")
    with open(path, "w") as file:
        json.dump({"context": {"num_cpus": 2, "load_avg": [0.5]}, "benchmarks": benchmarks}, file)
    return path


class BenchmarkNames(unittest.TestCase):
    def test_every_family_and_lock_shape_is_recognised(self):
        cases = {
            FAIR: ("contended", "mwbench::MwReentrant<mw::FairLockPolicy>", 2),
            "BM_ContendedGuard/real_time/threads:8": ("contended", "Guard", 8),
            "BM_UncontendedTbbQueuing": ("uncontended", "TbbQueuing", 1),
            "BM_Uncontended<mwbench::StdMutex>": ("uncontended", "mwbench::StdMutex", 1),
            "BM_ConditionPingPong<StdPingPong>/real_time": ("pingpong", "StdPingPong", 1),
            "BM_BoundedBuffer<MwMonitor>/real_time/threads:4": ("buffer", "MwMonitor", 4),
        }
        for name, key in cases.items():
            self.assertEqual(report.benchmark_key(name), key, name)

    def test_families_without_a_report_row_are_not_mistaken_for_locks(self):
        self.assertIsNone(report.benchmark_key("BM_LatchRound<StdLatch>/iterations:20000"))
        self.assertNotIn(report.benchmark_key("BM_UncontendedReentrantNested")[1],
                         [lock[0] for lock in report.LOCKS])


class Ratios(unittest.TestCase):
    def test_ratio_pairs_figures_of_one_process_and_above_one_means_faster(self):
        with tempfile.TemporaryDirectory() as directory:
            runs = [report.load_run(run_file(directory, 1, {STD: 100.0, FAIR: 200.0})),
                    report.load_run(run_file(directory, 2, {STD: 10.0, FAIR: 15.0}))]
        median, worst, rate, count = report.summarize(
            runs, report.benchmark_key(FAIR), report.benchmark_key(STD))
        # Ratios of each process: 2.0 and 1.5; the ratio of the medians would be 107.5/55.
        self.assertAlmostEqual(median, 1.75)
        self.assertAlmostEqual(worst, 1.5)
        self.assertAlmostEqual(rate, 107.5)
        self.assertEqual(count, 2)

    def test_a_process_figure_is_the_median_of_its_repetitions_not_an_aggregate(self):
        with tempfile.TemporaryDirectory() as directory:
            _, rates = report.load_run(run_file(directory, 1, {STD: [90.0, 10.0, 100.0]}))
        self.assertEqual(rates, {report.benchmark_key(STD): 90.0})

    def test_a_failed_benchmark_gives_no_figure(self):
        with tempfile.TemporaryDirectory() as directory:
            runs = [report.load_run(run_file(directory, 1, {STD: 100.0}, errors=[FAIR]))]
        self.assertIsNone(report.summarize(runs, report.benchmark_key(FAIR),
                                           report.benchmark_key(STD)))


class WrittenFiles(unittest.TestCase):
    def test_report_and_chart_data_show_library_rows_missing_peers_and_gaps(self):
        with tempfile.TemporaryDirectory() as directory:
            runs = [report.load_run(run_file(directory, 1, {STD: 100.0, FAIR: 50.0}))]
            arguments = SimpleNamespace(build_dir=directory, min_time="0.1", repetitions=3)
            text = report.report(runs, arguments)
            report.write_chart_data(runs, directory)
            with open(os.path.join(directory, "contended-library.dat")) as file:
                chart = file.read().splitlines()
        self.assertIn("| **`mw::ReentrantLock<FairLockPolicy>`** | 0.50 | 0.50 | 50 /s |", text)
        self.assertIn("Peers not built on this machine: ", text)
        self.assertIn("`absl::Mutex`", text.split("Peers not built on this machine: ")[1])
        self.assertEqual(chart[0].split('"')[1], "mw ReentrantLock, fair")
        self.assertEqual(chart[1], "1 NaN")
        self.assertEqual(chart[2], "2 5e-05")


if __name__ == "__main__":
    unittest.main()
