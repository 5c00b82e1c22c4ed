"""Passes the log of library and kit to Python's logging."""

import logging

from vellox import _core

logger = logging.getLogger("vellox")
# In the order of the kit's levels, most severe first.
_LEVELS = (logging.ERROR, logging.WARNING, logging.INFO, logging.DEBUG, logging.DEBUG // 2)


def deliver(level: int, text: str, file: str, line: int, function: str) -> None:
    """Logs a line from the queue that the library's threads fill."""
    if logger.isEnabledFor(_LEVELS[level]):
        logger.handle(
            logger.makeRecord(logger.name, _LEVELS[level], file, line, text, (), None, function)
        )


def follow_level() -> None:
    """Makes the library log only the levels that are enabled in Python's logging."""
    enabled = [i for i, level in enumerate(_LEVELS) if logger.isEnabledFor(level)]
    _core.set_log_level(max(enabled, default=0))
