"""One sender and 16 receivers, with a new sequence every 2 s, a client that comes and goes, and 4
of the receivers leaving and joining again and again: memory, descriptors, threads and loss of each
process over time."""

from dataclasses import dataclass, field
from pathlib import Path
import statistics
import time

from fleet import End, Stream
from rows import Run, row
from shared import Table, median, pss_kib

NUM_CONSUMERS = 16
NUM_REJOINING = 4
SEQUENCE_EVERY_MS = 2_000
WARM_UP_SHARE = 0.2  # of the samples, left out of every judgement
LEAST_NOISE_KIB = 16  # four pages: memory comes in pages


@dataclass
class Group:
    name: str
    ends: list[End]
    samples: list[tuple] = field(default_factory=list)  # s, PSS KiB, descriptors, threads, lost

    def take_sample(self, seconds: float) -> None:
        """Means over the processes at one moment."""
        figures = [(pss_kib(end.pid), *end.handles()) for end in self.ends]
        means = [statistics.fmean(column) for column in zip(*figures)]
        self.samples.append((seconds, *means, sum(end.board.lost for end in self.ends)))


PANELS = ("memory per process, PSS, KiB", "descriptors", "threads", "frames lost, all together")


def draw(groups: list[Group], target: Path) -> None:
    """A panel for each figure, above each other."""
    try:
        from matplotlib.figure import Figure
    except ImportError:
        print("no picture: python3-matplotlib is not installed")
        return
    figure = Figure(figsize=(9, 12), layout="constrained")
    panels = figure.subplots(len(PANELS), sharex=True)
    for group, colour in zip(groups, ("0.55", "#0050c8", "0.25")):  # the steady ones stand out
        seconds, *columns = zip(*group.samples)
        for panel, text, values in zip(panels, PANELS, columns):
            panel.plot([s / 60 for s in seconds], values, color=colour, label=group.name)
            panel.set(ylabel=text, xlabel="minutes", ylim=(0, None))
            panel.grid(color="0.9")
            panel.legend(frameon=False, fontsize="small")
    figure.savefig(target)
    print(f"picture: {target}\n")


def observe(stream: Stream, groups: list[Group], minutes: float) -> None:
    """Lets a stream run, with a visitor that joins, and is killed before each sample."""
    visit = 0.7 if minutes < 5 else 4.7
    start = time.monotonic()
    while time.monotonic() < start + 60 * minutes:
        visitor = End("consume", stream.name)
        time.sleep(visit)
        visitor.kill()
        time.sleep(0.3)
        for group in groups:
            group.take_sample(time.monotonic() - start)


def judge(run: Run, group: Group, table: Table) -> None:
    """Memory may grow, along a straight line, by two standard deviations around the line."""
    kept = group.samples[int(WARM_UP_SHARE * len(group.samples)):]
    seconds, pss, *handles, _ = map(list, zip(*kept))
    slope, start = statistics.linear_regression(seconds, pss)
    growth = slope * (seconds[-1] - seconds[0])
    noise = max(LEAST_NOISE_KIB, 2 * statistics.pstdev(
        value - slope * at - start for at, value in zip(seconds, pss)))
    run.check(growth <= noise, f"{group.name} grows by {growth:.1f} KiB, over {noise:.1f}")
    fifth = max(len(kept) // 5, 1)
    ends = [(median(values[:fifth]), median(values[-fifth:])) for values in handles]
    # Those that are just leaving or joining shift a mean by a little, but not by a whole one.
    run.check(all(last - first < 1 for first, last in ends),
              f"{group.name}: one descriptor or thread more")
    table.add(group.name, len(group.ends), pss[-1], 3600 * slope, growth, noise,
              *(f"{first:.1f} -> {last:.1f}" for first, last in ends))


@row("soak", "growth", "16 receivers, 4 of them rejoining, visitors, sequences",
     "no growth beyond noise; steady receivers lose nothing without a pause of the machine")
def look_for_growth(run: Run) -> None:
    stream = run.start(NUM_CONSUMERS, resequence=SEQUENCE_EVERY_MS)
    steady = stream.consumers[:-NUM_REJOINING]
    rejoining = []
    for number, end in enumerate(stream.consumers[-NUM_REJOINING:]):
        end.kill()
        rejoining.append(End("consume", stream.name, rejoin=1_000 + 40 * number))
    groups = [Group("sender", [stream.producer]), Group("steady", steady),
              Group("rejoining", rejoining)]
    observe(stream, groups, run.minutes)
    draw(groups, run.picture)
    table = Table("<processes", "n", "PSS KiB", "slope KiB/h", "growth KiB", "noise KiB",
                  "<descriptors", "<threads")
    for group in groups:
        judge(run, group, table)
    print(table.to_text())
    run.lose(steady, stream.since)
    sent, boards = stream.producer.board, [end.board for end in steady + rejoining]
    run.tell(f"{sent.frames:,} frames and {sent.sequences:,} sequences sent, "
             f"{sum(board.joins for board in boards):,} joins, stall watch used "
             f"{sum(board.stalls for board in boards)} times, {sent.error_lines} errors logged by "
             "the sender")
