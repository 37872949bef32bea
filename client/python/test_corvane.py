"""Tests of the Python package against a running daemon. client_library_test.sh starts it."""

import asyncio
import os
import signal
import threading
import unittest
from datetime import datetime, timezone

import corvane

WATCHED = "com.norvane.corvaned.ark.-watched"


class CorvaneTest(unittest.TestCase):
    def setUp(self):
        self.daemon = self.enterContext(corvane.Public())
        self.admin = self.enterContext(corvane.Admin())

    def round_trip(self, value):
        self.admin.ark.set("value", value)
        return self.admin.ark.get("value").value

    def test_values_come_back_as_they_were_sent(self):
        for value in [
            {"": {}, "nul\0": [b"", b"\0", "nul\0", "\u20ac"]},
            [1, 1.0, True, -(2**63), 2**63 - 1, 2**64 - 1, -0.0, float("inf")],
            [datetime(1, 1, 1, tzinfo=timezone.utc), datetime(2026, 11, 22, 3, 4, 5, 678901, timezone.utc)],
            [corvane.Date(1e300), corvane.Date(1e-9)],
            frozenset([frozenset(["a"])]),
            corvane.ValueSet([[1, 2]]),
        ]:
            with self.subTest(value=value):
                result = self.round_trip(value)
                self.assertEqual((repr(result), type(result)), (repr(value), type(value)))

    def test_a_set_keeps_members_that_python_takes_for_equal(self):
        result = self.round_trip(corvane.ValueSet([1, 1.0, True]))
        self.assertEqual(sorted(map(repr, result)), ["1", "1.0", "True"])

    def test_what_is_no_value_is_refused_before_it_is_sent(self):
        endless = []
        endless.append(endless)
        dates = [corvane.Date(seconds) for seconds in (float("nan"), "x", None, 10**400)]
        for value in [None, {1: 2}, [2**64], "\ud800", *dates, datetime(2026, 1, 1), endless]:
            with self.assertRaises((TypeError, ValueError, OverflowError), msg=repr(value)):
                self.admin.ark.set("value", value)

    def test_errors_are_pythons_own_as_well(self):
        with self.assertRaises(corvane.DaemonError) as caught:
            self.daemon.ask("noSuchMethod")
        self.assertEqual(caught.exception.code, 1)
        with self.assertRaisesRegex(ConnectionRefusedError, "No such file"):
            corvane.Public(root="/nowhere").version()

    def test_the_ark_is_listed_over_all_its_pages(self):
        keys = [f"{number:04}" for number in range(1001)]
        self.admin.ark.restore(corvane.ArkEntry(f"pages-{key}", key, frozenset({8})) for key in keys[:1000])
        self.admin.ark.set(keys[1000], keys[1000], "pages")
        listed = list(self.admin.ark.list("pages"))
        self.assertEqual([entry.value for entry in listed], keys)
        self.assertEqual(listed[0].attributes, {8})

    def test_notifications_reach_both_kinds_of_loops(self):
        self.assertEqual(self.admin.ark.watch("watched"), WATCHED)

        async def first(subscription):
            asyncio.get_running_loop().call_later(0.1, self.admin.ark.set, "watched", 2)
            return [notification.name async for notification in subscription]

        with corvane.Subscription(timeout=2) as subscription:
            while self.admin.status()["Services"]["Notifications"]["Open"] == 0:
                continue
            self.admin.ark.set("watched", 1)
            self.assertEqual([notification.name for notification in subscription], [WATCHED])
            self.assertEqual(asyncio.run(first(subscription)), [WATCHED])
            threading.Timer(0.1, self.admin.ark.set, ["watched", 3]).start()
            self.assertEqual(subscription.next(timeout=float("inf")).name, WATCHED)

    def test_a_child_may_ask_although_its_parent_was_asking(self):
        with self.daemon._lock:
            child = os.fork()
            if child == 0:
                signal.alarm(5)
                self.daemon.version()
                os._exit(0)
        self.assertEqual(os.waitpid(child, 0)[1], 0)


if __name__ == "__main__":
    unittest.main()
