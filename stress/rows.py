"""A row of a run: the fault, the promise, and the result."""

from contextlib import suppress
from dataclasses import dataclass, field
import os
from pathlib import Path
import time
from typing import Callable

from fleet import End, Losses, PauseProbe, Stream, delivery, kill_all
from shared import Table, wait_until

OK, FAILED, LIMIT, SKIPPED = "ok", "FAILED", "limit", "skipped"  # limit: documented, no success


class Over(Exception):
    """Ends a row early."""


@dataclass
class Run:
    """A running row: its settings and its result."""
    minutes: float
    lenient: bool
    tool: Path
    picture: Path | None
    probe: PauseProbe
    directory: Path  # TMPDIR
    verdict: str = OK
    figures: list[str] = field(default_factory=list)

    def __post_init__(self) -> None:
        os.environ["TMPDIR"] = str(self.directory)

    @property
    def plugin(self) -> Path:
        """The elements, of the same build."""
        return self.tool.parents[1] / "gst/libgstvlx.so"

    @property
    def limit(self) -> float:
        """Seconds within which all ends must have recovered."""
        return 20 if self.lenient else 3

    @property
    def beside(self) -> float:
        """Seconds for which misbehaving peers continue."""
        return 0.5 if self.lenient else 2 * self.minutes

    def tell(self, figure: str) -> None:
        self.figures.append(figure)

    def check(self, kept: object, otherwise: str, verdict: str = FAILED) -> None:
        """Reports a broken promise and continues."""
        if not kept:
            self.verdict = verdict
            self.tell(otherwise)

    def require(self, kept: object, otherwise: str, verdict: str = FAILED) -> None:
        """Reports a broken promise and ends the row."""
        self.check(kept, otherwise, verdict)
        if not kept:
            raise Over

    def require_root(self) -> None:
        self.require(os.geteuid() == 0, "only root can become another user", SKIPPED)

    def within(self, condition: Callable[[], object], otherwise: str, more: float = 0) -> bool:
        """Waits for a condition until the limit plus some seconds; otherwise a broken promise."""
        kept = wait_until(self.limit + more, condition)
        self.check(kept, f"{otherwise} within {self.limit + more} s")
        return kept

    def start(self, num_consumers: int, **options: object) -> Stream:
        """Starts a stream that must survive a fault, and records its descriptors and threads."""
        stream = Stream(num_consumers, **options)
        self.require(stream.joined and stream.delivery_ms(stream.since, self.limit) is not None,
                     f"the stream itself did not start within {self.limit} s")
        time.sleep(0.2)
        stream.before = stream.handles()
        return stream

    def lose(self, ends: list[End], since: int, allowed: int = 0, spans=()) -> Losses:
        """Measures the losses of some consumers. Only losses during a pause of the machine, or
        within the given spans, are allowed."""
        losses = Losses(ends, self.probe, since, spans)
        if self.lenient:
            losses.unexplained = 0
        self.tell(str(losses))
        self.check(losses.unexplained <= allowed, f"{allowed:,} unexplained allowed")
        return losses

    def check_handles(self, stream: Stream) -> None:
        self.within(lambda: stream.handles() == stream.before, "descriptors or threads are left")

    def check_bystanders(self, stream: Stream, handles: bool = True) -> None:
        """Checks that no loss is unexplained, all receivers deliver, and no handle is left."""
        self.within(delivery(stream.consumers), "a receiver gets no frames any more")
        if handles:
            self.check_handles(stream)
        self.lose(stream.consumers, stream.since)

    def resume(self, stream: Stream) -> float:
        """Restarts the producer; returns the time until all consumers deliver, in ms."""
        killed = time.monotonic_ns()
        stream.producer.kill()
        stream.producer = stream.start_producer()
        took = stream.delivery_ms(killed, self.limit)
        self.require(took is not None, f"no frames within {self.limit} s after a restart")
        return took

    def tell_resumption(self, stream: Stream) -> None:
        self.tell(f"frames {self.resume(stream):.0f} ms after a restart")


ROWS: dict[str, dict[str, tuple]] = {}  # of each mode


def row(mode: str, name: str, text: str, promise: str, *arguments: object) -> Callable:
    """Adds a function of a run, and of what follows, to the rows of a mode."""
    rows = ROWS.setdefault(mode, {})
    rows[name] = ()  # its place: decorators are evaluated from the top, but applied from the bottom

    def add(function: Callable) -> Callable:
        rows[name] = (text, promise, lambda run: function(run, *arguments))
        return function
    return add


def run_rows(mode: str, names: list[str], make_run: Callable[[], Run]) -> int:
    """The exit code: 1 if something failed, 77 if everything was skipped."""
    table = Table("<what", "<promise", "<figure", "<result", "s")
    verdicts = []
    for name in names:
        text, promise, function = ROWS[mode][name]
        run, start = make_run(), time.monotonic()
        try:
            with suppress(Over):
                function(run)
        finally:
            kill_all()
        seconds, figure = time.monotonic() - start, "; ".join(run.figures)
        print(f"{name:<21} {run.verdict:<8} {seconds:5.1f} s  {figure}", flush=True)
        table.add(text, promise, figure, run.verdict, seconds)
        verdicts.append(run.verdict)
    print(f"\n{table.to_text()}", flush=True)
    return 1 if FAILED in verdicts else 77 if set(verdicts) == {SKIPPED} else 0
