#!/usr/bin/python3
"""The benchmark report on canned benchmark JSON (bench/testdata/report): no benchmark runs."""

import io
import re
import shutil
import sys
import tempfile
import unittest
from contextlib import redirect_stderr
from pathlib import Path

HERE = Path(__file__).resolve().parent
sys.dont_write_bytecode = True  # no __pycache__ in the source tree
sys.path.insert(0, str(HERE))
import report  # noqa: E402

CANNED = HERE / "testdata" / "report"


def run_report(directory):
    err = io.StringIO()
    with redirect_stderr(err):
        status = report.main(["report.py", str(directory)])
    return status, err.getvalue()


def rows_of(summary):
    """benchmark name -> (N, ns/entry, vs baseline, figure) of the summary's table."""
    rows = {}
    for line in summary.splitlines():
        cells = [c.strip() for c in line.strip("|").split("|")]
        if len(cells) == 6 and cells[1].startswith("`"):
            rows[cells[1].strip("`")] = tuple(cells[2:])
    return rows


class ReportOnCannedRuns(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.TemporaryDirectory()
        cls.dir = Path(cls.tmp.name) / "report"
        shutil.copytree(CANNED, cls.dir)
        cls.status, cls.err = run_report(cls.dir)
        cls.summary = (cls.dir / "summary.md").read_text()
        cls.rows = rows_of(cls.summary)

    @classmethod
    def tearDownClass(cls):
        cls.tmp.cleanup()

    def test_succeeds_with_one_plot_per_family_and_none_per_paired_baseline(self):
        self.assertEqual(self.status, 0, self.err)
        plots = sorted(p.name for p in self.dir.glob("*.png"))
        self.assertEqual(plots, [
            "allocator_bench.BM_AllocateAll_Asic_FirstFreeIndexAllocator.png",
            "allocator_bench.BM_Lookup.png",
            "remap_engine_bench.BM_EngineCommitProgramCompleteRemove.png",
            "remap_restart_bench.BM_GroupWarmRestart.png",
            "remap_restart_bench.BM_RemapWarmRestart.png",
            "repl_list_engine_bench.BM_ReplListCommitProgramComplete.png",
            "repl_list_layout_bench.layout.png",
        ])
        for name in plots:
            self.assertEqual((self.dir / name).read_bytes()[:8], b"\x89PNG\r\n\x1a\n", name)
            self.assertIn(f"]({name})", self.summary, "summary links every plot")

    def test_figure_is_the_benchmarks_own_per_item_counter_else_items_else_time_per_n(self):
        # Verify the choice of figure and its unit for each way a benchmark reports.
        expect = {
            # an inverted rate counter holds seconds per entry
            "BM_EngineCommitProgramCompleteRemove/16384": ("16,384", "500", "ns_per_entry"),
            # of ns/list and ns/egressObject, the one that agrees with the items rate
            "layout/SparseOnly/8": ("8", "40.5", "ns/egressObject"),
            # stage counters: the unit N counts (lists), nearest real time / N
            "BM_ReplListCommitProgramComplete/lists:65536/dense:0":
                ("65,536", "1,200", "program_ns_per_list"),
            # milliseconds per iteration over N, options stripped from the name
            "BM_RemapWarmRestart/16384": ("16,384", "300", "real_time / N"),
            # the median of repetitions, not the mean nor one repetition
            "BM_Lookup/4096": ("4,096", "11.0", "real_time / items"),
            # timed by hand: the items rate is over the hand-timed part, not CPU time
            "BM_GroupWarmRestart/groups:4096": ("4,096", "50,000", "real_time / items"),
            # timed by the library: the items rate is over CPU time; the figure is real time
            "BM_LookupBare/4096": ("4,096", "5.00", "real_time / items"),
        }
        for name, (n, ns, figure) in expect.items():
            with self.subTest(name):
                self.assertIn(name, self.rows)
                got = self.rows[name]
                self.assertEqual((got[0], got[1], got[3]), (n, ns, figure))

    def test_ratio_to_the_baseline_at_the_same_n(self):
        rows = self.rows
        # A baseline matching no family by name serves its program's other families.
        self.assertEqual(rows["BM_EngineCommitProgramCompleteRemove/16384"][2], "x5.00")
        self.assertEqual(rows["BM_EngineCommitProgramCompleteRemove/1048576"][2], "x4.00")
        self.assertEqual(rows["BM_BaselineInsertAllocateWrite/16384"][2], "baseline")
        # One matched by name (`Bare`) serves that family only.
        self.assertEqual(rows["BM_Lookup/4096"][2], "x2.20")
        self.assertEqual(rows["BM_LookupBare/4096"][2], "baseline")
        self.assertEqual(rows["BM_AllocateAll<Asic::FirstFreeIndexAllocator>/4096"][2], "")
        self.assertEqual(rows["BM_RemapWarmRestart/16384"][2], "")
        self.assertEqual(rows["BM_GroupWarmRestart/groups:4096"][2], "")

    def test_failed_runs_and_filtered_out_programs_are_reported_not_dropped(self):
        self.assertIn("| `BM_ReplListCommitProgramComplete/lists:65536/dense:1` | 65,536 | "
                      "error | | not every list was programmed |", self.summary)
        self.assertIn("`repl_group_bench`: no benchmark ran", self.summary)


class RunNames(unittest.TestCase):
    def test_family_size_and_series(self):
        cases = {
            "BM_A/16384/iterations:3": ("BM_A", 16384, None, "BM_A/N"),
            "BM_G/groups:4096/iterations:5/manual_time": ("BM_G", 4096, "groups", "BM_G/groups:N"),
            "layout/DenseScattered/1024/manual_time":
                ("layout", 1024, None, "layout/DenseScattered/N"),
            # the first number is N, the second tells series apart
            "BM_Blocks<Asic::X>/65536/16": ("BM_Blocks<Asic::X>", 65536, None,
                                             "BM_Blocks<Asic::X>/N/16"),
            "BM_NoArgs": ("BM_NoArgs", None, None, "BM_NoArgs"),
        }
        for name, expected in cases.items():
            with self.subTest(name):
                self.assertEqual(report.parse_name(name), expected)

    def test_baseline_word_is_taken_out_of_the_name(self):
        self.assertEqual(report.base_name("BM_RemapBaseline"), "BM_Remap")
        self.assertEqual(report.base_name("BM_Remap_Bare_Insert"), "BM_Remap_Insert")
        self.assertEqual(report.base_name("BM_BASELINE_Remap"), "BM_Remap")


class BadInput(unittest.TestCase):
    def setUp(self):
        self.tmp = tempfile.TemporaryDirectory()
        self.dir = Path(self.tmp.name)

    def tearDown(self):
        self.tmp.cleanup()

    def check_refused(self, expected):
        (self.dir / "summary.md").write_text("earlier report\n")
        status, err = run_report(self.dir)
        self.assertEqual(status, 2)
        self.assertRegex(err, expected)
        self.assertEqual((self.dir / "summary.md").read_text(), "earlier report\n",
                         "a refused input must not overwrite the earlier report")
        self.assertEqual(list(self.dir.glob("*.png")), [])

    def test_truncated_json_names_the_file(self):
        shutil.copy(CANNED / "remap_engine_bench.json", self.dir)
        (self.dir / "bad_bench.json").write_text('{"benchmarks": [')
        self.check_refused(r"bad_bench\.json: not JSON")

    def test_json_that_is_not_benchmark_output(self):
        (self.dir / "other_bench.json").write_text('{"groups": []}')
        self.check_refused(r"other_bench\.json: no 'benchmarks' list")

    def test_run_without_a_time_names_the_benchmark(self):
        (self.dir / "x_bench.json").write_text('{"benchmarks": [{"name": "BM_X/8"}]}')
        self.check_refused(re.escape("x_bench.json: benchmark 'BM_X/8': missing field 'real_time'"))

    def test_directory_without_json(self):
        self.check_refused(r"no benchmark JSON")


if __name__ == "__main__":
    unittest.main()
