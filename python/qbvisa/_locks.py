"""Locks that make the library safe to use from several threads.

The library serialises nothing per chassis, and discovery or slot
initialisation rewrites process-wide state that every other call reads. So:
discovery and initialisation hold the process-wide lock exclusively (no other
call of the package runs meanwhile); every other call holds it shared plus
the lock of its chassis (one call at a time per chassis; different chassis
run side by side).
"""

from __future__ import annotations

import contextlib
import threading
from typing import Iterator


class SharedExclusiveLock:
    """A readers/writer lock; a waiting writer stops new readers. Both modes
    are re-entrant in the thread that holds them (a thread holding it
    exclusively may also take it shared)."""

    def __init__(self) -> None:
        self._condition = threading.Condition(threading.Lock())
        self._readers = 0
        self._writer: int | None = None
        self._writer_depth = 0
        self._writers_waiting = 0
        self._local = threading.local()

    def _held_shared(self) -> int:
        return int(getattr(self._local, "depth", 0))

    @contextlib.contextmanager
    def shared(self) -> Iterator[None]:
        me = threading.get_ident()
        depth = self._held_shared()
        if depth == 0 and self._writer != me:
            with self._condition:
                while self._writer is not None or self._writers_waiting:
                    self._condition.wait()
                self._readers += 1
        self._local.depth = depth + 1
        try:
            yield
        finally:
            self._local.depth = depth
            if depth == 0 and self._writer != me:
                with self._condition:
                    self._readers -= 1
                    if self._readers == 0:
                        self._condition.notify_all()

    @contextlib.contextmanager
    def exclusive(self) -> Iterator[None]:
        me = threading.get_ident()
        if self._held_shared() and self._writer != me:
            raise RuntimeError(
                "discovery or slot initialisation called from inside another "
                "qbvisa call of the same thread")
        with self._condition:
            if self._writer != me:
                self._writers_waiting += 1
                try:
                    while self._writer is not None or self._readers:
                        self._condition.wait()
                finally:
                    self._writers_waiting -= 1
                self._writer = me
            self._writer_depth += 1
        try:
            yield
        finally:
            with self._condition:
                self._writer_depth -= 1
                if self._writer_depth == 0:
                    self._writer = None
                    self._condition.notify_all()


# Held exclusively by discovery, connection and slot initialisation, shared by
# every other call of the package.
process_lock = SharedExclusiveLock()
