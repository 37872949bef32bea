"""Property-list values as Python has them.

    dictionary   dict with str keys
    array        list; a tuple is sent as one
    set          frozenset; a set is sent as one; see ValueSet
    string       str
    data         bytes; a bytearray or a memoryview is sent as one
    date         datetime in UTC; see Date
    integer      int from -2**63 to 2**64 - 1
    real         float
    Boolean      bool

A float is always a real and an int always an integer: 1.0 comes back as 1.0. There is no None.
"""

from __future__ import annotations

import ctypes
import math
from collections.abc import Callable, Iterable, Mapping, Sequence
from ctypes import c_bool, c_char_p, c_double, c_int64, c_size_t, c_uint64, c_void_p
from dataclasses import dataclass
from datetime import datetime, timedelta, timezone
from typing import Any, Union

from . import _library


@dataclass(frozen=True)
class Date:
    """A date that datetime cannot hold: outside the years 1 to 9999, or finer than a microsecond."""

    seconds: float  #: since 2001-01-01T00:00:00Z


class ValueSet(list[Any]):
    """A set that frozenset cannot hold: with members that cannot be hashed, such as lists, or that Python takes
    for equal, such as 1, 1.0 and True. The order of the members has no meaning."""


Value = Union[
    dict[str, "Value"], list["Value"], frozenset["Value"], ValueSet, str, bytes, datetime, Date, int, float, bool
]

_EPOCH = datetime(2001, 1, 1, tzinfo=timezone.utc)
# Deeper than the daemon accepts, so that a value which contains itself is refused without Python's own limit.
_DEPTH_LIMIT = 128


class Owned:
    """A reference to a value of the library, which is released at the end of a with block."""

    def __init__(self, pointer: int | None) -> None:
        self.pointer = pointer

    def __enter__(self) -> int | None:
        return self.pointer

    def __exit__(self, *exception: object) -> None:
        _library.value_release(self.pointer)


# ---- to Python ----


def text_at(pointer: int | None, length: int) -> str:
    return ctypes.string_at(pointer or 0, length).decode()


def to_python(pointer: int) -> Value:
    """The Python value for a borrowed value of the library."""
    return _READERS[_library.value_kind(pointer)](pointer)


def _items(pointer: int) -> list[Value]:
    return [to_python(_library.value_at(pointer, i)) for i in range(_library.value_count(pointer))]


def _dictionary(pointer: int) -> Value:
    length = c_size_t()
    result: dict[str, Value] = {}
    for i in range(_library.value_count(pointer)):
        key = _library.value_key_at(pointer, i, length)
        result[text_at(key, length.value)] = to_python(_library.value_at(pointer, i))
    return result


def _set(pointer: int) -> Value:
    members = _items(pointer)
    try:
        result = frozenset(members)
    except TypeError:
        return ValueSet(members)
    return result if len(result) == len(members) else ValueSet(members)


def _string(pointer: int) -> Value:
    length = c_size_t()
    text = _library.value_string(pointer, length)
    return text_at(text, length.value)


def _data(pointer: int) -> Value:
    length = c_size_t()
    data = _library.value_data(pointer, length)
    return ctypes.string_at(data, length.value)


def _date(pointer: int) -> Value:
    seconds = c_double()
    _library.value_date(pointer, seconds)
    try:
        date = _EPOCH + timedelta(seconds=seconds.value)
    except OverflowError:
        return Date(seconds.value)
    is_exact = _seconds(date).hex() == seconds.value.hex()
    return date if is_exact else Date(seconds.value)


def _integer(pointer: int) -> Value:
    signed = c_int64()
    if _library.value_int64(pointer, signed) == _library.OK:
        return signed.value
    unsigned = c_uint64()
    _library.value_uint64(pointer, unsigned)
    return unsigned.value


def _real(pointer: int) -> Value:
    real = c_double()
    _library.value_real(pointer, real)
    return real.value


def _boolean(pointer: int) -> Value:
    boolean = c_bool()
    _library.value_boolean(pointer, boolean)
    return boolean.value


_READERS: dict[int, Callable[[int], Value]] = {
    _library.DICTIONARY: _dictionary,
    _library.ARRAY: _items,
    _library.SET: _set,
    _library.STRING: _string,
    _library.DATA: _data,
    _library.DATE: _date,
    _library.INTEGER: _integer,
    _library.REAL: _real,
    _library.BOOLEAN: _boolean,
}


# ---- from Python ----


def from_python(value: object) -> Owned:
    """A new value of the library. Raises TypeError, ValueError or OverflowError for what is no value."""
    return Owned(_new(value, _DEPTH_LIMIT))


def _checked(pointer: int | None) -> int:
    if pointer is None:
        raise MemoryError("out of memory")
    return pointer


def _new(value: object, depth: int) -> int:
    if isinstance(value, bool):
        return _checked(_library.boolean_new(value))
    if isinstance(value, int):
        return _new_integer(value)
    if isinstance(value, float):
        return _checked(_library.real_new(value))
    if isinstance(value, str):
        text = value.encode()
        return _checked(_library.string_new(text, len(text)))
    if isinstance(value, (bytes, bytearray, memoryview)):
        data = bytes(value)
        return _checked(_library.data_new(data, len(data)))
    if isinstance(value, (datetime, Date)):
        return _new_date(value)
    if depth == 0:
        raise ValueError(f"a value nests more than {_DEPTH_LIMIT} deep")
    if isinstance(value, Mapping):
        return _new_dictionary(value, depth - 1)
    if isinstance(value, (set, frozenset, ValueSet)):
        return _new_container(_library.set_new, value, depth - 1)
    if isinstance(value, (list, tuple)):
        return _new_container(_library.array_new, value, depth - 1)
    raise TypeError(f"{type(value).__name__} has no form in a property list")


def _new_integer(value: int) -> int:
    if -(2**63) <= value < 2**63:
        return _checked(_library.int64_new(value))
    if 0 <= value < 2**64:
        return _checked(_library.uint64_new(value))
    raise OverflowError(f"not from -2**63 to 2**64 - 1: {value}")


def _seconds(date: datetime) -> float:
    return (date - _EPOCH) / timedelta(seconds=1)


def _new_date(value: datetime | Date) -> int:
    if isinstance(value, datetime) and value.utcoffset() is None:
        raise ValueError("a datetime without a time zone is no point in time")
    seconds = value.seconds if isinstance(value, Date) else _seconds(value)
    if not math.isfinite(seconds):
        raise ValueError(f"a date must be finite: {seconds}")
    return _checked(_library.date_new(float(seconds)))


def _new_all(values: Iterable[object], depth: int) -> Sequence[int]:
    pointers: list[int] = []
    try:
        for value in values:
            pointers.append(_new(value, depth))
    except BaseException:
        for pointer in pointers:
            _library.value_release(pointer)
        raise
    return pointers


def _new_container(create: Any, values: Iterable[object], depth: int) -> int:
    pointers = _new_all(values, depth)
    return _checked(create((c_void_p * len(pointers))(*pointers), len(pointers)))


def _encoded_key(key: object) -> bytes:
    if not isinstance(key, str):
        raise TypeError(f"a key must be a str, not {type(key).__name__}")
    return key.encode()


def _new_dictionary(value: Mapping[Any, object], depth: int) -> int:
    entries = list(value.items())
    keys = [_encoded_key(key) for key, _ in entries]
    pointers = _new_all((content for _, content in entries), depth)
    count = len(keys)
    lengths = (c_size_t * count)(*map(len, keys))
    return _checked(
        _library.dictionary_new((c_char_p * count)(*keys), lengths, (c_void_p * count)(*pointers), count)
    )
