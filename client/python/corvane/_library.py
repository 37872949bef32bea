"""The functions of libcorvane.so.0, with the types that corvane.h gives them."""

from __future__ import annotations

import ctypes
from ctypes import POINTER, c_bool, c_char, c_char_p, c_double, c_int, c_int32, c_int64, c_size_t, c_uint, c_uint64
from ctypes import c_void_p
from typing import Any

OK = 0
TIMED_OUT = 4
END = 10

DICTIONARY, ARRAY, SET, STRING, DATA, DATE, INTEGER, REAL, BOOLEAN = range(1, 10)

PUBLIC = 0
ADMIN = 1


class ErrorRecord(ctypes.Structure):
    _fields_ = [("status", c_int), ("code", c_int64), ("message", c_char * 512)]


class ImageRecord(ctypes.Structure):
    _fields_ = [
        ("name", c_void_p),
        ("name_length", c_size_t),
        ("bytes", c_void_p),
        ("length", c_size_t),
        ("media_type", c_char_p),
        ("extension", c_char_p),
    ]


class NotificationRecord(ctypes.Structure):
    _fields_ = [("name", c_void_p), ("name_length", c_size_t), ("missed", c_int64)]


_library = ctypes.CDLL("libcorvane.so.0")

_error = POINTER(ErrorRecord)
_place = POINTER(c_void_p)
_length = POINTER(c_size_t)


def _function(name: str, result: Any, *arguments: Any) -> Any:
    function = _library[name]
    function.restype = result
    function.argtypes = arguments
    return function


value_kind = _function("corvane_value_kind", c_int, c_void_p)
value_release = _function("corvane_value_release", None, c_void_p)
value_count = _function("corvane_value_count", c_size_t, c_void_p)
value_get = _function("corvane_value_get", c_void_p, c_void_p, c_char_p)
value_at = _function("corvane_value_at", c_void_p, c_void_p, c_size_t)
value_key_at = _function("corvane_value_key_at", c_void_p, c_void_p, c_size_t, _length)
value_string = _function("corvane_value_string", c_void_p, c_void_p, _length)
value_data = _function("corvane_value_data", c_void_p, c_void_p, _length)
value_int64 = _function("corvane_value_int64", c_int, c_void_p, POINTER(c_int64))
value_uint64 = _function("corvane_value_uint64", c_int, c_void_p, POINTER(c_uint64))
value_real = _function("corvane_value_real", c_int, c_void_p, POINTER(c_double))
value_boolean = _function("corvane_value_boolean", c_int, c_void_p, POINTER(c_bool))
value_date = _function("corvane_value_date", c_int, c_void_p, POINTER(c_double))

string_new = _function("corvane_string_new_with_length", c_void_p, c_char_p, c_size_t)
data_new = _function("corvane_data_new", c_void_p, c_char_p, c_size_t)
int64_new = _function("corvane_int64_new", c_void_p, c_int64)
uint64_new = _function("corvane_uint64_new", c_void_p, c_uint64)
real_new = _function("corvane_real_new", c_void_p, c_double)
boolean_new = _function("corvane_boolean_new", c_void_p, c_bool)
date_new = _function("corvane_date_new", c_void_p, c_double)
array_new = _function("corvane_array_new", c_void_p, _place, c_size_t)
set_new = _function("corvane_set_new", c_void_p, _place, c_size_t)
dictionary_new = _function("corvane_dictionary_new", c_void_p, POINTER(c_char_p), _length, _place, c_size_t)

connection_open = _function("corvane_connection_open", c_int, c_int, c_char_p, c_int, _place, _error)
connection_close = _function("corvane_connection_close", None, c_void_p)
ask = _function("corvane_ask", c_int, c_void_p, c_char_p, c_void_p, _place, _error)
get_version = _function("corvane_get_version", c_int, c_void_p, _place, _error)
get_images = _function("corvane_get_images", c_int, c_void_p, _place, _error)
store_images = _function("corvane_store_images", c_int, c_void_p, c_void_p, _error)
get_entitlements = _function("corvane_get_entitlements", c_int, c_void_p, c_int32, _place, _error)
get_status = _function("corvane_get_status", c_int, c_void_p, _place, _error)
get_device = _function("corvane_get_device", c_int, c_void_p, POINTER(c_char_p), c_size_t, _place, _error)
get_radio = _function("corvane_get_radio", c_int, c_void_p, _place, _error)
get_carrier = _function("corvane_get_carrier", c_int, c_void_p, _place, _error)
ark_get = _function("corvane_ark_get", c_int, c_void_p, c_char_p, c_char_p, _place, _error)
ark_set = _function("corvane_ark_set", c_int, c_void_p, c_char_p, c_char_p, c_void_p, _place, _error)
ark_remove = _function("corvane_ark_remove", c_int, c_void_p, c_char_p, c_char_p, _place, _error)
ark_list = _function("corvane_ark_list", c_int, c_void_p, c_char_p, c_char_p, _place, _error)
ark_restore = _function("corvane_ark_restore", c_int, c_void_p, c_void_p, _error)
ark_set_attributes = _function(
    "corvane_ark_set_attributes", c_int, c_void_p, c_char_p, c_char_p, POINTER(c_uint), c_size_t, _place, _error
)
ark_watch = _function("corvane_ark_watch", c_int, c_void_p, c_char_p, c_char_p, _place, _error)

images_open = _function("corvane_images_open", c_void_p, c_void_p)
images_next = _function("corvane_images_next", c_int, c_void_p, POINTER(ImageRecord))
images_close = _function("corvane_images_close", None, c_void_p)

subscription_open = _function("corvane_subscription_open", c_int, c_char_p, _place, _error)
subscription_close = _function("corvane_subscription_close", None, c_void_p)
subscription_descriptor = _function("corvane_subscription_descriptor", c_int, c_void_p)
subscription_next = _function(
    "corvane_subscription_next", c_int, c_void_p, c_int, POINTER(NotificationRecord), _error
)
