"""What the desk sends with a command, and how long it may be under way."""

import unittest

from lumatie_host.studio.asking import Asking


class Sent:
    """A connection that sends nothing, and keeps what it was asked for."""

    def __init__(self):
        self.expiries = []

    def publish(self, topic, payload, *, expiry, response, correlation):
        self.expiries.append(expiry)
        return len(self.expiries)


class Expiries(unittest.TestCase):
    def expiry(self, operation, patience):
        connection = Sent()
        Asking("S", "desk", lambda _: {}).ask(connection, "7", operation, {}, patience)
        return connection.expiries

    def test_what_fires_may_be_under_way_for_two_seconds(self):
        self.assertEqual(self.expiry("shoot", 40.0), [2])
        self.assertEqual(self.expiry("sequence", 10.0), [2])

    def test_what_changes_something_may_be_so_for_as_long_as_somebody_waits(self):
        for operation in ("set", "tag", "rate"):
            with self.subTest(operation):
                self.assertEqual(self.expiry(operation, 9.5), [10])


if __name__ == "__main__":
    unittest.main()
