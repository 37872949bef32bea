"""Following the daemon's notifications."""

from __future__ import annotations

import asyncio
import select
import time
from collections.abc import AsyncIterator, Iterator
from ctypes import byref, c_void_p
from typing import NamedTuple

from . import _library
from ._connection import Handle, encoded
from ._errors import TimedOut, raise_for
from ._values import text_at


_LONGEST_POLL = 2**31 - 1  # milliseconds


class Notification(NamedTuple):
    name: str  #: empty where missed is not 0
    missed: int  #: how many were dropped at this point, because too many were unread


class Subscription:
    """A subscription to the system-wide notifications: an iterator, for asyncio an asynchronous one. It connects
    when it is made. For one thread and one task at a time, not for signal handlers, and only for the process that has
    made it.

    Iterating ends where none has come for `timeout` seconds; without a timeout it goes on until the daemon ends,
    which raises Closed."""

    def __init__(self, root: str | None = None, timeout: float | None = None) -> None:
        pointer = c_void_p()
        error = _library.ErrorRecord()
        raise_for(_library.subscription_open(encoded(root), byref(pointer), byref(error)), error)
        assert pointer.value is not None
        self._timeout = timeout
        self._readable: asyncio.Future[None] | None = None
        self._handle = Handle(self, pointer.value, _library.subscription_close)

    def close(self) -> None:
        """Ends the subscription, and cancels the task that waits for its next notification. Closing it again does
        nothing."""
        try:
            self._stop_waiting()
        finally:
            self._handle.close()

    def __enter__(self) -> Subscription:
        return self

    def __exit__(self, *exception: object) -> None:
        self.close()

    def fileno(self) -> int:
        """For an event loop: when it is readable, call poll() until that returns None."""
        return int(_library.subscription_descriptor(self._handle.get()))

    def poll(self) -> Notification | None:
        """The next notification; None where none has come whole. Does not wait."""
        record = _library.NotificationRecord()
        error = _library.ErrorRecord()
        status = _library.subscription_next(self._handle.get(), 0, record, byref(error))
        if status == _library.TIMED_OUT:
            return None
        raise_for(status, error)
        return Notification(text_at(record.name, record.name_length), record.missed)

    def next(self, timeout: float | None = None) -> Notification:
        """Waits for the next notification, for ever where the timeout is None. Raises TimedOut."""
        deadline = None if timeout is None else time.monotonic() + timeout
        # Waiting here instead of in the library lets signals such as Ctrl-C through.
        waiting = select.poll()
        waiting.register(self.fileno(), select.POLLIN)
        while (notification := self.poll()) is None:
            left = None if deadline is None else deadline - time.monotonic()
            if left is not None and left <= 0:
                raise TimedOut("no notification in time")
            waiting.poll(None if left is None else min(left * 1000, _LONGEST_POLL))
        return notification

    def __iter__(self) -> Iterator[Notification]:
        return self

    def __next__(self) -> Notification:
        try:
            return self.next(self._timeout)
        except TimedOut:
            raise StopIteration from None

    def __aiter__(self) -> AsyncIterator[Notification]:
        return self

    async def __anext__(self) -> Notification:
        notification = self.poll()
        while notification is None:
            is_in_time = await self._becomes_readable()
            # Also when it was too late: a busy loop may have kept this from running.
            notification = self.poll()
            if notification is None and not is_in_time:
                raise StopAsyncIteration
        return notification

    async def _becomes_readable(self) -> bool:
        """Whether it does within the timeout."""
        if self._readable is not None:
            raise RuntimeError("another task waits for the next notification")
        descriptor = self.fileno()
        loop = asyncio.get_running_loop()
        self._readable = loop.create_future()
        loop.add_reader(descriptor, _set_done, self._readable)
        try:
            await asyncio.wait_for(self._readable, self._timeout)
            is_in_time = True
        except asyncio.TimeoutError:
            is_in_time = False
        finally:
            was_closed = self._readable is None
            self._stop_waiting()
        if was_closed:
            raise asyncio.CancelledError("the subscription has been closed")
        return is_in_time

    def _stop_waiting(self) -> None:
        readable, self._readable = self._readable, None
        if readable is not None and not readable.get_loop().is_closed():
            readable.get_loop().remove_reader(self.fileno())
            readable.cancel()


def _set_done(future: asyncio.Future[None]) -> None:
    if not future.done():
        future.set_result(None)
