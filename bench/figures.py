"""Raw data and what is calculated from it. A record is one line of raw data: flat, names to numbers
and texts. NaN stands for what was not measured, infinity for what never came."""

import json
import math
from pathlib import Path
import statistics

from shared import median

Record = dict[str, object]


def read_records(path: Path) -> list[Record]:
    return [json.loads(line) for line in path.read_text().splitlines()] if path.exists() else []


def where(records: list[Record], **fields: object) -> list[Record]:
    """Those whose fields have these values."""
    return [r for r in records if all(k in r and r[k] == v for k, v in fields.items())]


def distinct(records: list[Record], key: str) -> list:
    """The different values of a field, in order of first appearance."""
    return list(dict.fromkeys(record[key] for record in records if key in record))


def values_of(records: list[Record], key: str) -> list[float]:
    return [r[key] for r in records if isinstance(r.get(key), (int, float))]


def median_of(records: list[Record], key: str) -> float:
    return median(values_of(records, key))


def worst_of(records: list[Record], key: str) -> float:
    """The worst round: no loss means none at all."""
    return max(values_of(records, key), default=math.nan)


def quotient(value: float, base: float) -> float:
    return value / base if base else math.nan


def ratios(records: list[Record], base: list[Record], key: str) -> list[float]:
    """Quotients of both sets' values in the same round, one for each round in common."""
    found = [quotient(value, other) for record in records for value in values_of([record], key)
             for other in values_of(where(base, round=record["round"]), key)]
    return [ratio for ratio in found if not math.isnan(ratio)]


def format_ratio(value: float) -> str:
    return "-" if math.isnan(value) else f"{value:.2f}"


def format_spread(values: list[float]) -> str:
    """The median, and in brackets the quartiles of the rounds."""
    if len(values) < 2:
        return format_ratio(median(values))
    low, middle, high = statistics.quantiles(values, n=4, method="inclusive")
    return f"{format_ratio(middle)} ({format_ratio(low)}-{format_ratio(high)})"
