"""Walks over one database share the process's single iterator position.

Each walk is a generator holding a ticket of its database; starting another
walk of the same database takes a new ticket, and the older walk then stops
with a RuntimeError instead of silently continuing from the newer one's
position.
"""

from __future__ import annotations

from typing import Callable, Iterator, Optional, TypeVar

T = TypeVar("T")

TARN_DB = "tarn"   # contexts, interfaces, topologies, interface topologies
GYRE_DB = "gyre"   # ftag walks

_tickets = {TARN_DB: 0, GYRE_DB: 0}


class WalkInterrupted(RuntimeError):
    """Another walk over the same database started before this one ended."""


def walk(db: str, first: Callable[[], Optional[T]],
         step: Callable[[T], Optional[T]]) -> Iterator[T]:
    """Yield first(), then step(previous) until one answers None."""
    _tickets[db] += 1
    ticket = _tickets[db]
    item = first()
    while item is not None:
        yield item
        if _tickets[db] != ticket:
            raise WalkInterrupted(
                f"another walk over the {db} database started before this "
                f"one ended; finish one walk (or list() it) before the next")
        item = step(item)
