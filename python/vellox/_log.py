"""The log of library and kit in Python's logging."""

import logging

from vellox import _core

logger = logging.getLogger("vellox")
# In the order of the kit's levels, the most severe first.
_LEVELS = (logging.ERROR, logging.WARNING, logging.INFO, logging.DEBUG, logging.DEBUG // 2)


def deliver(level: int, text: str, file: str, line: int, function: str) -> None:
    """Takes a line from the queue in which the library's threads leave them."""
    if logger.isEnabledFor(_LEVELS[level]):
        logger.handle(
            logger.makeRecord(logger.name, _LEVELS[level], file, line, text, (), None, function)
        )


def follow_level() -> None:
    """Lets the library make the lines that Python's logging wants, and no others."""
    enabled = [i for i, level in enumerate(_LEVELS) if logger.isEnabledFor(level)]
    _core.set_log_level(max(enabled, default=0))
