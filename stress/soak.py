"""A long run that looks for growth: memory, descriptors, threads, and loss over time."""

from dataclasses import dataclass, field
from pathlib import Path
import math
import statistics
import time

from fleet import End, Losses, PauseProbe, Stream, median, print_table

NUM_CONSUMERS = 16
NUM_REJOINING = 4
SEQUENCE_EVERY_MS = 2_000
WARM_UP_SHARE = 0.2  # of the samples, left out of every judgement
LEAST_NOISE_KIB = 16  # four pages: memory comes in pages

Sample = tuple[float, float, float, float, int]  # s, PSS KiB, descriptors, threads, lost


@dataclass
class Group:
    name: str
    ends: list[End]
    samples: list[Sample] = field(default_factory=list)

    def take_sample(self, seconds: float) -> None:
        """Means over the processes at one moment."""
        figures = [(end.pss_kib(), *end.handles()) for end in self.ends]
        means = [sum(column) / len(figures) for column in zip(*figures)]
        self.samples.append((seconds, *means, sum(end.board.lost for end in self.ends)))


@dataclass
class Trend:
    """A straight line through values: the slope of its 95 % interval, the growth over the whole
    time, and two standard deviations around the line."""
    slope: float
    half_width: float
    growth: float
    noise: float

    def is_within_noise(self) -> bool:
        return self.slope - self.half_width <= 0 or self.growth <= self.noise


def fit_trend(times: list[float], values: list[float]) -> Trend:
    """Least squares. Successive samples are not independent: the interval is widened by what their
    residuals have in common with their neighbours."""
    slope, start = statistics.linear_regression(times, values)
    residuals = [value - slope * at - start for at, value in zip(times, values)]
    squares = sum(value * value for value in residuals)
    shared = sum(a * b for a, b in zip(residuals, residuals[1:]))
    correlation = min(max(shared / squares, 0), 0.95) if squares else 0
    deviation = math.sqrt(squares / max(len(residuals) - 2, 1))
    width = 1.96 * deviation * math.sqrt((1 + correlation) / (1 - correlation))
    return Trend(slope, width / math.sqrt(statistics.pvariance(times) * len(times)),
                 slope * (times[-1] - times[0]), max(2 * deviation, LEAST_NOISE_KIB))


def compare_ends(values: list[float]) -> tuple[float, float]:
    """Medians of the first and the last fifth."""
    fifth = max(len(values) // 5, 1)
    return median(values[:fifth]), median(values[-fifth:])


def draw(groups: list[Group], target: Path) -> None:
    """Three panels above each other: memory, descriptors and threads, loss."""
    try:
        import matplotlib
        matplotlib.use("svg")
        from matplotlib import pyplot
    except ImportError:
        print("no picture: python3-matplotlib is not installed")
        return
    figure, panels = pyplot.subplots(3, sharex=True, figsize=(9, 10))
    memory, handles, loss = panels
    for group, colour in zip(groups, ("0.55", "#0050c8", "0.25")):  # the steady ones stand out
        seconds, pss, descriptors, threads, lost = zip(*group.samples)
        minutes = [s / 60 for s in seconds]
        for panel, values, text, line in (
                (memory, pss, "", "-"), (handles, descriptors, ", descriptors", "-"),
                (handles, threads, ", threads", ":"), (loss, lost, "", "-")):
            panel.plot(minutes, values, color=colour, linestyle=line, label=group.name + text)
    for panel, text in zip(panels, ("memory per process, PSS, KiB", "descriptors and threads",
                                    "frames lost so far, all together")):
        panel.set(ylabel=text, xlabel="minutes")
        panel.set_ylim(bottom=0)
        panel.grid(color="0.9")
        panel.legend(frameon=False, fontsize="small")
    figure.tight_layout()
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


def make_row(group: Group) -> tuple:
    kept = group.samples[int(WARM_UP_SHARE * len(group.samples)):]
    seconds, pss, descriptors, threads, _ = map(list, zip(*kept))
    trend = fit_trend(seconds, pss)
    fds, tasks = compare_ends(descriptors), compare_ends(threads)
    # Those that are just leaving or joining shift a mean by a little, but not by a whole one.
    passed = trend.is_within_noise() and fds[1] - fds[0] < 1 and tasks[1] - tasks[0] < 1
    return (group.name, len(group.ends), f"{pss[-1]:.0f}",
            f"{3600 * trend.slope:+.1f} +- {3600 * trend.half_width:.1f}",
            f"{trend.growth:+.1f} / {trend.noise:.1f}", f"{fds[0]:.1f} -> {fds[1]:.1f}",
            f"{tasks[0]:.1f} -> {tasks[1]:.1f}", "ok" if passed else "FAILED")


def run(minutes: float, picture: Path) -> bool:
    probe = PauseProbe()
    stream = Stream(NUM_CONSUMERS, sequence_every=SEQUENCE_EVERY_MS)
    if not stream.joined:
        print("the receivers did not join")
        return False
    steady = stream.consumers[:-NUM_REJOINING]
    rejoining = []
    for number, end in enumerate(stream.consumers[-NUM_REJOINING:]):
        end.kill()
        rejoining.append(End("consume", stream.name, rejoin_every=1_000 + 40 * number))
    groups = [Group("sender", [stream.producer]), Group("steady", steady),
              Group("rejoining", rejoining)]
    observe(stream, groups, minutes)
    draw(groups, picture)
    rows = [make_row(group) for group in groups]
    print_table([("processes", "n", "PSS KiB", "slope KiB/h, 95 %", "growth / noise KiB",
                  "descriptors", "threads", "result"), *rows])
    losses = Losses(steady, probe, stream.since)
    passed = not losses.unexplained and losses.received > 0
    sent = stream.producer.board
    print(f"\nsteady receivers: {losses}: {'ok' if passed else 'FAILED'}\n{sent.frames:,} frames and "
          f"{sent.sequences:,} sequences sent, "
          f"{sum(end.board.joins for end in steady + rejoining):,} joins, stall watch used "
          f"{sum(end.board.stalls for end in steady + rejoining)} times, {sent.error_lines} errors "
          "logged by the sender")
    return passed and all(row[-1] == "ok" for row in rows)
