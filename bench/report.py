"""The summary of a run: a template with marks in place of data, and what was found out."""

from pathlib import Path

from figures import Record, distinct, format_ratio, median_of, quotient, where
from shared import Table, format_number
import tables
from targets import BYTES, Data, target_table
import transports as t

HERE = Path(__file__).parent
SIZE = f"{BYTES:,} bytes"
CAPTIONS = {
    "age": f"Age of a frame, {SIZE} at 1,000 a second",
    "size": "Median age of a frame by size and rate",
    "overload": f"Age of what arrives when the producer floods, {SIZE}",
    "busy": f"Age on a busy machine, {SIZE} at 1,000 a second",
    "fanout": f"Sender CPU for each receiver, {SIZE} at 100 frames a second",
    "join": "First frame of a waiting receiver after the call that opens the stream",
    "micro": "Packet functions and a plain copy"}


def describe_transports() -> str:
    table = Table("<transport", "<id in the raw data", "<options")
    for each in t.ALL.values():
        table.add(each.label, f"`{each.id}`", each.options)
    return table.to_markdown()


def describe_net_cost(records: list[Record]) -> str:
    """What the median round costs on both sides without the sender's own pacing."""
    pacing = median_of(records, "pacing_cpu_us")
    ours, kit, raw = (median_of(where(records, transport=each, bytes=BYTES), "cpu_us") - pacing
                      for each in (t.OURS, t.KIT, t.RAW))
    return (f"The sender's pacing alone (a timer and a sleep per frame) costs "
            f"{format_number(pacing)} us per frame and is part of every sender's figure. Without "
            f"it, both sides added at {BYTES:,} bytes: ours {format_number(ours)} us, the kit "
            f"{format_number(kit)} us, nanomsg with our options {format_number(raw)} us; ours to "
            f"nanomsg {format_ratio(quotient(ours, raw))}.")


def write_summary(data: Data, output: Path) -> None:
    fields = {"TRANSPORTS": describe_transports(), "NET_COST": describe_net_cost(data["age"]),
              "FINDINGS": (HERE / "findings.md").read_text(),
              "TARGETS": target_table(data).to_markdown(),
              "ALLOCATIONS": tables.allocation_table(data["age"]).to_markdown(),
              "MEMORY": tables.memory_table(data["fanout"]).to_markdown()}
    for question, caption in CAPTIONS.items():
        mark, table = question.upper(), getattr(tables, f"{question}_table")
        fields[f"{mark}_SETUP"] = next(iter(distinct(data[question], "setup")), "not measured")
        fields[f"{mark}_PICTURE"] = f"![{caption}](benchmarks/{question}.svg)"
        fields[mark] = table(data[question]).to_markdown()
    text = (HERE / "summary.md").read_text()
    for mark, value in fields.items():
        text = text.replace(f"@{mark}@", value.strip())
    output.parent.mkdir(parents=True, exist_ok=True)
    output.write_text(text)
