"""qora_report summary and plot on logs of real runs on the engine model."""
import json
import os
import xml.etree.ElementTree as ET

from junitparser import Error, Failure, JUnitXml, Skipped

from conftest import CORRUPTED_WORDS, report
from qora_report.runlog import parse_log


def test_details_of_a_debug_7_run(runs):
    log = parse_log(runs["logs"]["two_code"])
    assert log["pattern"] == "conv2d_uint8"
    assert log["settings"]["core_mask"] == 3 and "priority" not in log["settings"]
    assert log["settings"]["buffers"][0] == {"name": "40000000", "dev_va": 0x80000000, "size": 128}
    assert len(log["settings"]["buffers"]) == 3 and log["settings"]["relocations"] == 8  # 4 per code buffer
    sub = log["loops"][1]["subcommands"][1]
    assert set(sub) >= {"execute_us", "prepare_us", "waiting_us", "blocked_us", "post_proc_us",
                        "bandwidth_mbps", "driver_us", "ip_us", "core"}
    assert sub["execute_us"] > 0 and sub["bandwidth_mbps"] > 0


def test_flusher_flows_and_normal_counts(runs):
    normal = parse_log(runs["logs"]["pass"])["loops"][0]["subcommands"][0]["pmu"]
    assert normal["counts"]["0x1708"] > 0 and normal["counts"]["0x1709"] == 0
    flusher = parse_log(runs["logs"]["flusher"])["loops"][0]["subcommands"][0]["pmu"]
    assert flusher["flows"] and flusher["flows"][0]["counts"]["0x1708"] > 0
    assert flusher["ip_time_us"] > 0 and flusher["burst_mode"] == 2


def test_failing_run_keeps_its_mismatches_and_dumps(runs):
    log = parse_log(runs["logs"]["fail"])
    loop = log["loops"][0]
    mismatches = loop["outputs"][0]["mismatches"]
    assert len(mismatches) == 17  # the player stops listing after 17
    assert [m["word"] for m in mismatches] == list(CORRUPTED_WORDS[:17])
    assert all(m["output"] ^ m["golden"] == 0x08 and m["mask"] == 0xFFFFFFFF for m in mismatches)
    assert loop["dumps"] == ["output0_0.bin"]
    assert any("Compare golden Fail" in m for m in loop["messages"])


def test_summary_json_and_junit(runs, tmp_path):
    garbage = tmp_path / "garbage.log"
    garbage.write_bytes(b"\x00\xff not a log at all\n")
    logs = [runs["logs"][n] for n in ("pass", "fail", "no_golden")] + [str(garbage)]
    status, out, err = report("summary", *logs, "--json", str(tmp_path / "s.json"),
                              "--junit", str(tmp_path / "s.xml"))
    assert status == 2 and "garbage.log: no line of the player in it" in err and "Traceback" not in err
    doc = json.loads((tmp_path / "s.json").read_text())
    assert doc["schema"] == "qora_report.summary/1"
    assert [log["status"] for log in doc["logs"]] == ["complete"] * 3 + ["unreadable"]
    suites = {s.name: s for s in JUnitXml.fromfile(str(tmp_path / "s.xml"))}
    assert (suites["pass"].tests, suites["pass"].failures, suites["pass"].errors) == (3, 0, 0)
    assert (suites["fail"].tests, suites["fail"].failures) == (1, 1)
    failure = next(iter(suites["fail"])).result[0]
    assert isinstance(failure, Failure) and "word 111: output" in failure.text
    assert all(isinstance(c.result[0], Skipped) for c in suites["no_golden"])
    assert isinstance(next(iter(suites["garbage"])).result[0], Error)
    assert "pass" in out and "conv2d_uint8" in out


def test_summary_status_of_readable_logs(runs):
    assert report("summary", runs["logs"]["pass"], runs["logs"]["no_golden"])[0] == 0
    assert report("summary", runs["logs"]["pass"], runs["logs"]["fail"])[0] == 1


def test_plot_writes_charts_per_board(runs, tmp_path):
    out = tmp_path / "charts"
    status, stdout, err = report("plot", runs["logs"]["pass"], runs["logs"]["flusher"], runs["logs"]["two_code"],
                                 "-o", str(out))
    assert status == 0, err
    for name in ("timings", "loop_times", "pmu"):
        assert (out / f"{name}.png").read_bytes()[:8] == b"\x89PNG\r\n\x1a\n"
        svg = ET.parse(str(out / f"{name}.svg")).getroot()
        assert svg.tag.endswith("svg")
    assert "two_code" in (out / "timings.svg").read_text()
    assert sorted(os.listdir(out)) == sorted(os.path.basename(p) for p in stdout.split())


def test_charts_read_right(runs, tmp_path, monkeypatch):
    """A board keeps its colour in every chart, each PMU event has its own
    axis, and the heat map counts whole rows, columns and mismatches."""
    from qora_report import charts
    from qora_report.compare import Shape, compare
    from qora_report.summary import summarize
    figures = {}

    def keep(fig, out_dir, name):
        figures[name] = fig
        return [name]
    monkeypatch.setattr(charts, "_save", keep)
    summary = summarize([runs["logs"][n] for n in ("pass", "flusher", "two_code")])
    charts.timings(summary, str(tmp_path))
    charts.loop_histogram(summary, str(tmp_path))
    charts.pmu(summary, str(tmp_path))
    colours = {}
    for name, fig in figures.items():
        for ax in fig.axes:
            for artist in ax.lines + ax.patches:
                if not artist.get_label().startswith("_"):
                    colour = artist.get_edgecolor() if name == "loop_times" else artist.get_color()
                    colours.setdefault(artist.get_label(), set()).add(matplotlib_colour(colour))
    assert sorted(colours) == ["flusher", "pass", "two_code"] and all(len(c) == 1 for c in colours.values())
    assert len({next(iter(c)) for c in colours.values()}) == 3
    assert [ax.get_ylabel().split("\n")[0] for ax in figures["pmu"].axes] == ["0x1708", "0x1709"]
    result = compare(os.path.join(runs["dir"], "output0_0.bin"), runs["bad_golden"], 0, Shape("6x6x16"))
    charts.heatmap(result, str(tmp_path))
    image_ax, bar_ax = figures["heatmap"].axes[0], figures["heatmap"].axes[2]
    ticks = list(image_ax.get_xticks()) + list(image_ax.get_yticks()) + list(bar_ax.get_yticks())
    assert all(float(t).is_integer() for t in ticks)
    assert image_ax.images[0].get_clim() == (0, int(result.pixels.max()))


def matplotlib_colour(colour):
    from matplotlib.colors import to_hex
    return to_hex(colour)
