#!/usr/bin/env python3
"""The pictures of a run: plots.py DIR, where its files are."""

import os
import sys

LAB = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path[:0] = [LAB, os.path.join(LAB, "..", "tests", "agent")]

import matplotlib

matplotlib.use("svg")
matplotlib.rcParams.update({"svg.hashsalt": "fleet", "svg.fonttype": "none", "font.size": 9, "axes.spines.top": False,
                            "axes.spines.right": False})
from matplotlib import pyplot

from fleet_parts.record import SERVERS
from fleet_parts.results import HEARTBEAT_S, MINUTE, Results

MOST_POINTS, PHASES, BARS = 250, 20, 60
MEASURED, EXPECTED = "#4878a8", "#c44e52"


def save(figure, folder, name):
    figure.tight_layout()
    figure.savefig(os.path.join(folder, name + ".svg"), metadata={"Date": None})
    pyplot.close(figure)


def reconnections(run, folder):
    """Each outage: connections per second, beside the policy's."""
    figure, rows = pyplot.subplots(len(run.outages), 1, figsize=(8, 2.4 * len(run.outages)), squeeze=False)
    for outage, (axes,) in zip(run.outages, rows):
        end = outage.back
        window = max(run.speed, min(MINUTE, (end - outage.begin) / BARS))
        rates = run.rates("connects", outage.begin, end, window)
        axes.bar([at / MINUTE for at, _ in rates], [rate for _, rate in rates], width=0.9 * window / MINUTE, color=MEASURED,
                 label=f"measured, {outage.lost:.0f} devices")
        expected = outage.expected()[:round(end - outage.begin)]
        axes.plot([at / MINUTE for at in range(len(expected))], [outage.lost * value for value in expected],
                  color=EXPECTED, linewidth=1.4, label="retry policy")
        if outage.end:
            axes.axvspan(0, (outage.end - outage.begin) / MINUTE, color="0.88", label="servers away")
        axes.set(title=outage.title, ylabel="connections per second", xlim=(0, None))
        axes.legend(frameon=False)
    rows[-1][0].set_xlabel("minutes since the servers went")
    save(figure, folder, "reconnections")


def cold_start(run, folder):
    enrolled = run.figures["enrolled_s"]
    lines = [line for line in run.lines if line["real_s"] <= enrolled + 3]
    figure, axes = pyplot.subplots(figsize=(8, 2.8))
    axes.bar([line["real_s"] for line in lines], [line["enrolments"] for line in lines], width=0.9, color=MEASURED)
    axes.set(xlabel="seconds since the start, real ones", ylabel="enrolments per second", xlim=(0, None))
    other = axes.twinx()
    other.plot([line["real_s"] for line in lines], [line["connected"] for line in lines], color=EXPECTED)
    other.set(ylabel="devices connected", ylim=(0, None))
    save(figure, folder, "cold-start")


def servers(run, folder):
    figure, axes = pyplot.subplots(figsize=(8, 3.2))
    lines = run.lines[::1 + len(run.lines) // MOST_POINTS]
    axes.stackplot([line["device_s"] / MINUTE for line in lines], [[line[name] for line in lines] for name in SERVERS],
                   labels=SERVERS, colors=["0.6", "#4878a8", "#6acc65", "#d8a657", "#956cb4", "#77bedb"])
    for event in run.events:
        if event["event"].split()[0] in ("down", "up", "power", "recall"):
            axes.axvline(event["device_s"] / MINUTE, color="0.3", linewidth=0.7)
            axes.annotate(event["event"], (event["device_s"] / MINUTE, run.homes), rotation=90, va="top", ha="right", fontsize=7)
    axes.set(xlabel="minutes, of the devices", ylabel="devices connected", xlim=(0, None))
    axes.legend(frameon=False, loc="upper center", bbox_to_anchor=(0.5, -0.18), ncol=6)
    save(figure, folder, "servers")


def heartbeats(run, folder):
    """Where in their common interval the heartbeats fall, before the first outage and after each."""
    spans = [("before\nthe first", run.outages[0].begin - 5 * MINUTE, run.outages[0].begin)]
    spans += [("after\n" + outage.title, outage.back + MINUTE, outage.back + 6 * MINUTE) for outage in run.outages]
    spans = [span for span in spans if sum(run.by_phase(*span[1:], PHASES))]
    if not spans:
        return
    figure, rows = pyplot.subplots(1, len(spans), figsize=(8, 2.4), squeeze=False, sharey=True)
    width = HEARTBEAT_S / PHASES
    for (title, begin, end), axes in zip(spans, rows[0]):
        counts = run.by_phase(begin, end, PHASES)
        axes.bar([at * width for at in range(PHASES)], [100 * count / sum(counts) for count in counts], width=0.9 * width,
                 align="edge", color=MEASURED)
        axes.set_title(f"{title}\nin step: {run.in_step(begin, end):.2f}", fontsize=7)
        axes.set_xlabel("second of 100")
    rows[0][0].set_ylabel("% of the heartbeats")
    save(figure, folder, "heartbeats")


def main(folder):
    run = Results(folder)
    cold_start(run, folder)
    servers(run, folder)
    if run.outages:
        reconnections(run, folder)
        heartbeats(run, folder)


if __name__ == "__main__":
    main(sys.argv[1])
