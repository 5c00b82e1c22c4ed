"""The pictures of the summary. Ours stands out in one strong colour; no colour means two things."""

from pathlib import Path

import matplotlib

matplotlib.use("svg")
from matplotlib import pyplot  # noqa: E402  the backend has to be chosen first
from matplotlib.ticker import NullFormatter, ScalarFormatter

from figures import Record, distinct, median_of, values_of, where
from tables import in_order
from targets import BYTES, Data, SIZES
from transports import ALL, OURS

# Rows of ours that differ in the bell.
BELL_COLOURS = {"yes, announced twice": "#b58900", "no": "#9a9a9a"}
OPERATION_COLOURS = {"memcpy": "#8c8c8c", "produce": "#1f4e79", "consume": ALL[OURS].colour}
PERCENTILES = ("10", "25", "50", "75", "90", "99", "99.9")


def draw_all(data: Data, captions: dict[str, str], directory: Path) -> None:
    directory.mkdir(parents=True, exist_ok=True)
    pyplot.rcParams.update({
        "svg.fonttype": "none", "svg.hashsalt": "vellox", "axes.grid": True,
        "grid.color": "#dddddd", "axes.spines.top": False, "axes.spines.right": False})
    for name, caption in captions.items():
        if not data[name]:
            continue
        figure, panels = pyplot.subplots(1, 2 if name == "join" else 1, figsize=(9.6, 5),
                                         sharey=True, squeeze=False, layout="constrained")
        figure.suptitle(caption)
        DRAW[name](data[name], *panels[0])
        figure.savefig(directory / f"{name}.svg", metadata={"Date": None})
        pyplot.close(figure)


def _style(transport: str) -> dict:
    ours = transport == OURS
    return {"color": ALL[transport].colour, "label": ALL[transport].label,
            "linewidth": 2.8 if ours else 1.4, "zorder": 3 if ours else 2}


def _finish(axes: object, **settings: object) -> None:
    """Plain numbers at the axes; the legend of all panels at the right."""
    axes.set(**settings)
    for name, axis in (("xscale", axes.xaxis), ("yscale", axes.yaxis)):
        if name in settings:
            axis.set_major_formatter(ScalarFormatter())
            axis.set_minor_formatter(NullFormatter())
    entries = [panel.get_legend_handles_labels() for panel in axes.figure.axes]
    handles, labels = (sum(lists, []) for lists in zip(*entries))
    if handles:
        axes.legend(handles, labels, loc="upper left", bbox_to_anchor=(1.01, 1), frameon=False)


def _age(records: list[Record], axes: object) -> None:
    for transport, rows in in_order(where(records, bytes=BYTES)).items():
        ages = [median_of(rows, f"p{share.replace('.', '')}_us") for share in PERCENTILES]
        axes.plot(PERCENTILES, ages, marker=".", **_style(transport))
    _finish(axes, xlabel="percentile", ylabel="us", yscale="log")


def _size(records: list[Record], axes: object) -> None:
    for transport, rows in in_order(where(records, receivers=1)).items():
        ages = [median_of(where(rows, bytes=size, rate=rate), "p50_us") for size, rate in SIZES]
        axes.plot([f"{size:,} bytes\n{rate:,}/s" for size, rate in SIZES], ages, marker=".",
                  **_style(transport))
    _finish(axes, ylabel="us", yscale="log")


def _bars(records: list[Record], axes: object) -> None:
    """Where there are several sizes, that of the other pictures."""
    records = where(records, bytes=BYTES)
    members = in_order(records)
    for position, (transport, rows) in enumerate(members.items()):
        low, high, rare = (median_of(rows, key) for key in ("p50_us", "p99_us", "p999_us"))
        axes.barh(position, high - low, left=low, color=ALL[transport].colour, zorder=2)
        axes.plot(rare, position, marker="|", markersize=14, color=ALL[transport].colour, zorder=3)
    axes.set_yticks(range(len(members)), [ALL[transport].label for transport in members])
    axes.invert_yaxis()
    _finish(axes, xlabel="us; bar: p50 to p99, mark: p99.9", xscale="log",
            xlim=(0.8 * min(values_of(records, "p50_us"), default=1), None))


def _fanout(records: list[Record], axes: object) -> None:
    records = where(records, objects=1)
    counts = sorted(distinct(records, "receivers"))
    for transport, rows in in_order(records).items():
        axes.plot(counts, [median_of(where(rows, receivers=count), "sender_cpu_per_receiver_us")
                           for count in counts], marker=".", **_style(transport))
    _finish(axes, xlabel="receivers", ylabel="us per frame and receiver", xscale="log",
            xticks=counts, ylim=(0, None))


def _join(records: list[Record], *panels: object) -> None:
    """The share of repetitions up to each time."""
    labelled = set()
    for axes, case in zip(panels, ("join", "join, busy core")):
        for row in distinct(where(records, case=case), "row"):
            rows = where(records, case=case, row=row)
            style, bell = _style(rows[0]["transport"]), rows[0]["bell"]
            if bell in BELL_COLOURS:
                style |= {"color": BELL_COLOURS[bell], "linewidth": 1.4}
            label = style["label"] + (f", bell: {bell}" if bell != "-" else "")
            style["label"] = "_" + label if label in labelled else label
            labelled.add(label)
            times = sorted(values_of(rows, "open_ms"))
            axes.step(times, [100 * (i + 1) / len(rows) for i in range(len(times))], where="post",
                      **style)
        axes.set(xlabel=f"ms, {case}", ylim=(0, 101))
        axes.set_xscale("log")
    panels[0].set_ylabel("% of repetitions")
    _finish(panels[1])


def _micro(records: list[Record], axes: object) -> None:
    sizes = sorted(distinct(records, "bytes"))
    for operation, colour in OPERATION_COLOURS.items():
        rows = where(records, operation=operation)
        axes.plot(sizes, [median_of(where(rows, bytes=size), "bytes_per_s") / 1e9
                          for size in sizes], marker=".", color=colour, label=operation)
    _finish(axes, xlabel="bytes of media data", ylabel="GB/s", xscale="log", yscale="log",
            xticks=sizes)


DRAW = {"age": _age, "size": _size, "overload": _bars, "busy": _bars, "fanout": _fanout,
        "join": _join, "micro": _micro}
