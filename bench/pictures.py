"""The pictures of the summary. Ours stands out in one strong colour; no colour means two things."""

from pathlib import Path

import matplotlib

matplotlib.use("svg")
from matplotlib import pyplot  # noqa: E402  the backend has to be chosen first
from matplotlib.ticker import NullFormatter, ScalarFormatter

from figures import distinct, median_of, values_of, where
from tables import in_order
from targets import BYTES, Data
import transports as t

COLOURS = {each.id: each.colour for each in t.ALL}
# Rows of ours that differ in the bell.
BELL_COLOURS = {"yes, announced twice": "#b58900", "no": "#9a9a9a"}
OPERATION_COLOURS = {"memcpy": "#8c8c8c", "produce": "#1f4e79", "consume": COLOURS[t.OURS]}
SHARES = {"10": "p10_us", "25": "p25_us", "50": "p50_us", "75": "p75_us", "90": "p90_us",
          "99": "p99_us", "99.9": "p999_us"}


def draw_all(data: Data, directory: Path) -> None:
    directory.mkdir(parents=True, exist_ok=True)
    pyplot.rcParams.update({
        "svg.fonttype": "none", "svg.hashsalt": "vellox", "font.size": 10, "axes.grid": True,
        "grid.color": "#dddddd", "axes.spines.top": False, "axes.spines.right": False})
    for draw in (_age, _overload, _busy, _fanout, _join, _micro):
        name = draw.__name__.removeprefix("_")
        if not data[name]:
            continue
        figure = draw(data)
        figure.savefig(directory / f"{name}.svg", metadata={"Date": None})
        pyplot.close(figure)


def _start(title: str, panels: int = 1) -> tuple:
    figure, axes = pyplot.subplots(1, panels, figsize=(9.6, 5), sharey=True, layout="constrained")
    figure.suptitle(title)
    return figure, axes


def _style(transport: str) -> dict:
    ours = transport == t.OURS
    return {"color": COLOURS[transport], "label": t.label_of(transport),
            "linewidth": 2.8 if ours else 1.4, "zorder": 3 if ours else 2}


def _add_legend(figure: object) -> None:
    """Of all panels, at the right."""
    entries = [axes.get_legend_handles_labels() for axes in figure.axes]
    figure.axes[-1].legend(*(sum(lists, []) for lists in zip(*entries)), loc="upper left",
                           bbox_to_anchor=(1.01, 1), frameon=False)


def _use_plain_numbers(axis: object) -> None:
    axis.set_major_formatter(ScalarFormatter())
    axis.set_minor_formatter(NullFormatter())


def _age(data: Data) -> object:
    figure, axes = _start(f"Age of a frame, {BYTES:,} bytes at 1,000 a second")
    records = where(data["age"], bytes=BYTES)
    for transport in in_order(records):
        rows = where(records, transport=transport)
        axes.plot(SHARES.keys(), [median_of(rows, key) for key in SHARES.values()], marker=".",
                  **_style(transport))
    axes.set(xlabel="percentile", ylabel="us", yscale="log")
    _use_plain_numbers(axes.yaxis)
    _add_legend(figure)
    return figure


def _draw_percentile_bars(axes: object, records: list) -> None:
    """From p50 to p99 a bar, p99.9 a mark."""
    names = in_order(records)
    lowest = min(values_of(records, "p50_us"), default=1)
    for position, transport in enumerate(names):
        rows = where(records, transport=transport)
        low, high, rare = (median_of(rows, key) for key in ("p50_us", "p99_us", "p999_us"))
        axes.barh(position, high - low, left=low, color=COLOURS[transport], zorder=2)
        axes.plot(rare, position, marker="|", markersize=14, color=COLOURS[transport], zorder=3)
    axes.set_yticks(range(len(names)), [t.label_of(name) for name in names])
    axes.invert_yaxis()
    axes.set(xlabel="us; bar: p50 to p99, mark: p99.9", xscale="log",
             xlim=(0.8 * lowest, None))
    _use_plain_numbers(axes.xaxis)


def _overload(data: Data) -> object:
    figure, axes = _start(f"Age of what arrives when the producer floods, {BYTES:,} bytes")
    _draw_percentile_bars(axes, where(data["overload"], bytes=BYTES))
    return figure


def _busy(data: Data) -> object:
    figure, axes = _start(f"Age on a busy machine, {BYTES:,} bytes at 1,000 a second")
    _draw_percentile_bars(axes, data["busy"])
    return figure


def _fanout(data: Data) -> object:
    figure, axes = _start(f"Sender CPU for each receiver, {BYTES:,} bytes at 100 frames a second")
    records = where(data["fanout"], objects=1)
    counts = sorted(distinct(records, "receivers"))
    for transport in in_order(records):
        rows = where(records, transport=transport)
        axes.plot(counts, [median_of(where(rows, receivers=count), "sender_cpu_per_receiver_us")
                           for count in counts], marker=".", **_style(transport))
    axes.set(xlabel="receivers", ylabel="us per frame and receiver", xscale="log", ylim=(0, None))
    axes.set_xticks(counts, counts)
    axes.minorticks_off()
    _add_legend(figure)
    return figure


def _join(data: Data) -> object:
    """The share of repetitions up to each time."""
    figure, panels = _start("First frame of a waiting receiver after the call that opens the stream",
                            panels=2)
    labelled = set()
    for axes, case in zip(panels, ("join", "join, busy core")):
        for row in distinct(where(data["join"], case=case), "row"):
            rows = where(data["join"], case=case, row=row)
            transport, bell = rows[0]["transport"], rows[0]["bell"]
            style = _style(transport)
            if transport == t.OURS:
                style["label"] += f", bell: {bell}"
                if bell in BELL_COLOURS:
                    style |= {"color": BELL_COLOURS[bell], "linewidth": 1.4}
            style["label"] = "_" * (row in labelled) + style["label"]
            labelled.add(row)
            times = sorted(values_of(rows, "open_ms"))
            axes.step(times, [100 * (i + 1) / len(rows) for i in range(len(times))], where="post",
                      **style)
        axes.set(xlabel=f"ms, {case}", xscale="log", ylim=(0, 101))
        _use_plain_numbers(axes.xaxis)
    panels[0].set_ylabel("% of repetitions")
    _add_legend(figure)
    return figure


def _micro(data: Data) -> object:
    figure, axes = _start("Packet functions and a plain copy")
    sizes = sorted(distinct(data["micro"], "bytes"))
    for operation, colour in OPERATION_COLOURS.items():
        rows = where(data["micro"], operation=operation)
        axes.plot(sizes, [median_of(where(rows, bytes=size), "bytes_per_s") / 1e9
                          for size in sizes], marker=".", color=colour, label=operation)
    axes.set(xlabel="bytes of media data", ylabel="GB/s", xscale="log", yscale="log")
    axes.set_xticks(sizes, sizes)
    axes.minorticks_off()
    _use_plain_numbers(axes.yaxis)
    _add_legend(figure)
    return figure
