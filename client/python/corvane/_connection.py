"""Asking the daemon."""

from __future__ import annotations

import os
import threading
import weakref
from collections.abc import Callable, Iterable, Iterator, Mapping, Sequence
from ctypes import byref, c_char_p, c_uint, c_void_p, string_at
from typing import Any, NamedTuple, TypeVar

from . import _library
from ._errors import BadAnswer, raise_for
from ._values import Owned, Value, from_python, text_at, to_python

DEFAULT_TIMEOUT = 5.0  #: seconds

_Self = TypeVar("_Self", bound="_Connection")


class Image(NamedTuple):
    name: str  #: the keys and positions that lead to it, with "/" between them; no safe file name
    data: bytes
    media_type: str  #: by the first bytes; application/octet-stream for what is not known
    extension: str  #: the usual one of that type, without a dot; bin for what is not known


class ArkEntry(NamedTuple):
    key: str
    value: Value
    attributes: frozenset[int]


class Handle:
    """A handle of the library, which is closed once: by close(), or with the object that owns it. What is open at
    the exit is left to the system."""

    def __init__(self, owner: object, pointer: int, close: Callable[[int], None]) -> None:
        self._pointer = pointer
        self._close = weakref.finalize(owner, close, pointer)
        # At the exit a daemon thread may still be using it.
        self._close.atexit = False

    def get(self) -> int:
        if not self._close.alive:
            raise ValueError("it has been closed")
        return self._pointer

    def close(self) -> None:
        self._close()


def encoded(text: str | None) -> bytes | None:
    """Text for the library, in which a NUL would end it."""
    if text is None:
        return None
    if "\0" in text:
        raise ValueError("text with a NUL in it")
    return text.encode()


class _Connection:
    _service: int

    def __init__(self, root: str | None = None, timeout: float = DEFAULT_TIMEOUT) -> None:
        """Asks the daemon below the folder `root`; where that is None, below CORVANE_ROOT or in the whole system.
        The timeout, in seconds, is that of each request. The connection is made at the first request, and again
        where the daemon has closed it meanwhile: a request may then be sent twice. Several threads may use it: they
        wait for each other. A signal handler may not, because the thread that it interrupts may be using it."""
        pointer = c_void_p()
        error = _library.ErrorRecord()
        milliseconds = round(timeout * 1000)
        if not 0 <= milliseconds < 2**31:
            raise ValueError(f"no timeout: {timeout}")
        status = _library.connection_open(
            self._service, encoded(root), milliseconds, byref(pointer), byref(error)
        )
        raise_for(status, error)
        assert pointer.value is not None
        self._lock = threading.Lock()
        _connections.add(self)
        self._handle = Handle(self, pointer.value, _library.connection_close)

    def close(self) -> None:
        """Closes the connection. Closing it again does nothing."""
        with self._lock:
            self._handle.close()

    def __enter__(self: _Self) -> _Self:
        return self

    def __exit__(self, *exception: object) -> None:
        self.close()

    def ask(self, selector: str, arguments: Mapping[str, object] | None = None) -> dict[str, Value] | None:
        """Any method: the reply, or None where the daemon gave none."""
        with from_python(arguments or {}) as values:
            return self._call(_library.ask, encoded(selector), values)

    def _call(self, function: Any, *arguments: Any) -> dict[str, Any] | None:
        with self._reply(function, *arguments) as reply:
            return None if reply is None else _dictionary(reply)

    def _reply(self, function: Any, *arguments: Any) -> Owned:
        reply = c_void_p()
        self._run(function, *arguments, byref(reply))
        return Owned(reply.value)

    def _run(self, function: Any, *arguments: Any) -> None:
        error = _library.ErrorRecord()
        with self._lock:
            status = function(self._handle.get(), *arguments, byref(error))
        raise_for(status, error)


_connections: weakref.WeakSet[_Connection] = weakref.WeakSet()


def _renew_locks() -> None:
    """In a child the threads do not exist that held the locks at the fork."""
    for connection in _connections:
        connection._lock = threading.Lock()


os.register_at_fork(after_in_child=_renew_locks)


def _dictionary(pointer: int) -> dict[str, Any]:
    dictionary = to_python(pointer)
    assert isinstance(dictionary, dict)
    return dictionary


def _entry(reply: dict[str, Any] | None, name: str) -> Any:
    """What an answer must have."""
    if reply is None or name not in reply:
        raise BadAnswer(f"the answer has no {name}")
    return reply[name]


class Public(_Connection):
    """The service for every local process."""

    _service = _library.PUBLIC

    def version(self) -> str:
        """The daemon's version."""
        return str(_entry(self._call(_library.get_version), "Version"))

    def regulatory_images(self) -> dict[str, Value] | None:
        """RegulatoryImages and ProductVersion as they were stored, or None where nothing is stored."""
        return self._call(_library.get_images)

    def images(self) -> Iterator[Image]:
        """Each data value in the regulatory images."""
        with self._reply(_library.get_images) as reply:
            walk = _library.images_open(_library.value_get(reply, b"RegulatoryImages"))
        if walk is None:
            raise MemoryError("out of memory")
        try:
            yield from _images(walk)
        finally:
            _library.images_close(walk)


def _images(walk: int) -> Iterator[Image]:
    image = _library.ImageRecord()
    while (status := _library.images_next(walk, image)) == _library.OK:
        yield Image(
            text_at(image.name, image.name_length),
            string_at(image.bytes, image.length),
            image.media_type.decode(),
            image.extension.decode(),
        )
    if status != _library.END:
        raise MemoryError("out of memory")


class Admin(_Connection):
    """The service for root and the daemon's own user."""

    _service = _library.ADMIN

    def store_images(self, images: object) -> None:
        """Replaces the regulatory images by this value."""
        with from_python(images) as value:
            self._run(_library.store_images, value)

    def entitlements(self, pid: int) -> dict[str, Value] | None:
        """What a process is entitled to; None where that is nothing."""
        if not 0 < pid < 2**31:
            raise ValueError(f"not a process id: {pid}")
        return self._call(_library.get_entitlements, pid)

    def status(self) -> dict[str, Value]:
        """How the daemon is."""
        return self._call(_library.get_status) or {}

    def device(self, properties: Sequence[str] = ()) -> dict[str, Value]:
        """DeviceType; Properties, the answers to those that are named; and Errors, what had no answer."""
        names = [encoded(name) for name in properties]
        return self._call(_library.get_device, (c_char_p * len(names))(*names), len(names)) or {}

    def radio(self) -> dict[str, Value]:
        """What the telephony service says, and what the data ark has."""
        return self._call(_library.get_radio) or {}

    def carrier(self) -> dict[str, Value] | None:
        """The information of the selected carrier's bundle; None where there is none."""
        reply = self._call(_library.get_carrier)
        return None if reply is None else _entry(reply, "CarrierBundle")

    @property
    def ark(self) -> Ark:
        return Ark(self)


class Ark:
    """The data ark, through an admin connection. A domain of None is none."""

    def __init__(self, admin: Admin) -> None:
        self._admin = admin

    def get(self, key: str, domain: str | None = None) -> ArkEntry | None:
        """An entry; None where there is none."""
        return self._one(key, _library.ark_get, encoded(domain), encoded(key))

    def set(self, key: str, value: object, domain: str | None = None) -> ArkEntry | None:
        """Sets a value. Returns the entry that was there before."""
        with from_python(value) as pointer:
            return self._one(key, _library.ark_set, encoded(domain), encoded(key), pointer)

    def remove(self, key: str, domain: str | None = None) -> ArkEntry | None:
        """Removes an entry and returns it; None where there was none."""
        return self._one(key, _library.ark_remove, encoded(domain), encoded(key))

    def list(self, domain: str | None = None) -> Iterator[ArkEntry]:
        """The entries of a domain, or of the whole ark under its composed keys, in the order of their keys. They
        come in pages: what changes meanwhile may be missing, or old."""
        after: str | None = None
        while True:
            page = self._admin._call(_library.ark_list, encoded(domain), encoded(after))
            for entry in _entry(page, "Entries"):
                yield _ark_entry(entry["Key"], entry)
            after = page.get("Next") if page else None
            if after is None:
                return

    def restore(self, entries: Iterable[ArkEntry]) -> None:
        """Sets entries of the whole ark, at most 1,000 of them, as list() without a domain yields them."""
        rows = [
            {"Key": entry.key, "Value": entry.value, "Attributes": sorted(entry.attributes)} for entry in entries
        ]
        with from_python(rows) as value:
            self._admin._run(_library.ark_restore, value)

    def set_attributes(
        self, key: str | None, attributes: Iterable[int], domain: str | None = None
    ) -> frozenset[int]:
        """Gives a key just these attributes, each from 0 to 8, and returns those before. Without a key they are
        the domain's own, which new entries inherit."""
        given = sorted(set(attributes))
        if any(not 0 <= index <= 8 for index in given):
            raise ValueError(f"attributes are from 0 to 8: {given}")
        indexes = (c_uint * len(given))(*given)
        reply = self._admin._call(
            _library.ark_set_attributes, encoded(domain), encoded(key), indexes, len(given)
        )
        return frozenset(_entry(reply, "Attributes"))

    def watch(self, key: str, domain: str | None = None) -> str:
        """The name of the notification that is posted from now on whenever the value changes or is removed."""
        return str(_entry(self._admin._call(_library.ark_watch, encoded(domain), encoded(key)), "Notification"))

    def _one(self, key: str, function: Any, *arguments: Any) -> ArkEntry | None:
        reply = self._admin._call(function, *arguments)
        return None if reply is None else _ark_entry(key, reply)


def _ark_entry(key: str, entry: dict[str, Any]) -> ArkEntry:
    return ArkEntry(key, _entry(entry, "Value"), frozenset(entry.get("Attributes", ())))
