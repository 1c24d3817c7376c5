"""A ledger on its way to the broker: each record, in order, again until it is acknowledged."""

import os
import tempfile
import unittest

import lumatie_host
from lumatie_host.studio import publisher as publishers
from lumatie_host.studio.memory import Memory


class Publishing(unittest.TestCase):
    def setUp(self):
        base = tempfile.TemporaryDirectory(prefix="lumatie-publish-")
        self.addCleanup(base.cleanup)
        self.folder = os.path.realpath(base.name)
        self.ledger = lumatie_host.Ledger(self.folder)
        self.ledger.prepare()
        self.said = []
        self.is_up = True
        self.begin()

    def begin(self):
        self.sent = []  # numbers of records; a message's number is its place, from 1
        self.memory = Memory(self.folder, "pta", "7")
        self.publisher = publishers.Publisher(self.ledger, self.memory, self.send, self.said.append)

    def send(self, record):
        if not self.is_up:
            return None
        self.sent.append(record["n"])
        return len(self.sent)

    def record(self, count=1, **more):
        for _ in range(count):
            self.ledger.append("rated", file="a.JPG", rating=1, **more)

    def acknowledge(self, *messages):
        for message in messages:
            self.publisher.acknowledge(message, True)

    def test_records_go_in_their_order_and_a_few_at_a_time(self):
        self.record(100)
        self.publisher.pump()
        self.assertEqual(self.sent, list(range(1, publishers.WINDOW + 1)))
        self.acknowledge(*range(1, 65))
        self.publisher.pump()
        self.assertEqual(self.sent, list(range(1, 101)))
        self.assertEqual(self.publisher.left, 36)

    def test_what_was_not_acknowledged_is_sent_again_over_another_connection(self):
        self.record(5)
        self.publisher.pump()
        self.acknowledge(1, 2, 4)
        self.publisher.begin_anew()
        self.publisher.pump()
        self.assertEqual(self.sent, [1, 2, 3, 4, 5, 3, 4, 5])
        self.acknowledge(3)  # of the earlier connection
        self.assertEqual(self.publisher.left, 3)

    def test_a_station_that_was_killed_goes_on_behind_what_was_acknowledged(self):
        self.record(5)
        self.publisher.pump()
        self.acknowledge(1, 2, 4)
        self.publisher.remember(at_once=True)
        self.begin()
        self.publisher.pump()
        self.assertEqual(self.sent, [3, 4, 5])

    def test_without_a_broker_nothing_is_passed_over(self):
        self.is_up = False
        self.record(3)
        self.publisher.pump()
        self.is_up = True
        self.publisher.pump()
        self.assertEqual(self.sent, [1, 2, 3])

    def test_a_record_that_is_too_long_for_the_broker_is_left_to_the_stations_server(self):
        self.record()
        self.record(label="x" * 300_000)
        self.record()
        self.publisher.pump()
        self.assertEqual(self.sent, [1, 3])
        self.acknowledge(1, 2)
        self.assertEqual(self.publisher.left, 0)

    def test_what_the_broker_does_not_allow_is_said_and_kept(self):
        self.record(2)
        self.publisher.pump()
        self.publisher.acknowledge(1, False)
        self.assertIn("does not take this station's records", self.said[0])
        self.assertEqual(self.publisher.left, 2)

    def test_a_folder_whose_ledger_is_another_one_is_published_from_its_beginning(self):
        self.record(3)
        self.publisher.pump()
        self.acknowledge(1, 2, 3)
        self.publisher.remember(at_once=True)
        os.unlink(os.path.join(self.folder, ".lumatie", "ledger.id"))
        self.begin()
        self.publisher.pump()
        self.assertEqual(self.sent, [1, 2, 3])

    def test_each_station_of_a_folder_has_a_mark_of_its_own_and_one_identity_of_the_ledger(self):
        self.memory.acknowledge(5)
        other = Memory(self.folder, "pta", "8")
        self.assertEqual((other.acknowledged, other.ledger), (0, self.memory.ledger))
        self.assertEqual(Memory(self.folder, "pta", "7").acknowledged, 5)


if __name__ == "__main__":
    unittest.main()
