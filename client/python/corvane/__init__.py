"""The client library of corvaned, the device-state daemon.

    with corvane.Public() as daemon:
        for image in daemon.images():
            print(image.name, len(image.data))

`Public` and `Admin` ask the daemon, `Subscription` follows its notifications. docs/client.md has complete
programs, docs/wire-protocol.md says what each method answers. It all works over libcorvane.so.0.
"""

from ._connection import DEFAULT_TIMEOUT, Admin, Ark, ArkEntry, Image, Public
from ._errors import (
    BadAnswer,
    BadRequest,
    Closed,
    DaemonError,
    Error,
    NotPermitted,
    Refused,
    TimedOut,
)
from ._subscription import Notification, Subscription
from ._values import Date, Value, ValueSet

__all__ = [
    "DEFAULT_TIMEOUT",
    "Admin",
    "Ark",
    "ArkEntry",
    "BadAnswer",
    "BadRequest",
    "Closed",
    "DaemonError",
    "Date",
    "Error",
    "Image",
    "NotPermitted",
    "Notification",
    "Public",
    "Refused",
    "Subscription",
    "TimedOut",
    "Value",
    "ValueSet",
]
