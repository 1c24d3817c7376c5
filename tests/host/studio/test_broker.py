"""Who may do what at the broker, with the configuration that comes along; TLS; reconnecting."""

import gc
import threading
import unittest
import warnings
from unittest import mock

import programs
from lumatie_host.studio.address import Address
from lumatie_host.studio.broker import Connection, Listener
from lumatie_host.studio.problems import BrokerRefused
from lumatie_host.studio.studio import Studio
from studio_support import CONFIGURATION, Broker, StudioTestCase, wait_until

NOT_AUTHORIZED = 0x87
BRANCHES = "lumatie/1/pta/"


class Noting(Listener):
    def __init__(self):
        self.ups, self.downs, self.messages, self.answers = 0, [], [], {}

    def up(self):
        self.ups += 1

    def down(self, words, is_hopeless):
        self.downs.append((words, is_hopeless))

    def heard(self, message):
        self.messages.append(message)

    def sent(self, number, is_taken):
        self.answers[number] = is_taken


class Rights(StudioTestCase):
    def assert_not_allowed(self, client, topic, watched):
        """Publishing is refused, and nobody hears of it."""
        self.assertEqual(client.publish(topic, b"{}").value, NOT_AUTHORIZED)
        self.assertEqual(watched.messages(topic), [])

    def test_a_viewer_reads_and_writes_nothing(self):
        station = self.client("7", [BRANCHES + "7/cmd/+"])
        viewer = self.client("viewer", [BRANCHES + "+/state", BRANCHES + "+/event/+"])
        for topic in ("7/cmd/shoot", "7/event/picture", "7/state", "viewer/state",
                      "viewer/event/picture", "7/reply/x"):  # fmt: skip
            self.assert_not_allowed(viewer, BRANCHES + topic, station)
        station.publish(BRANCHES + "7/event/shot", {"n": 1})
        wait_until(lambda: viewer.messages(BRANCHES + "7/event/shot"), "the event")
        self.assertEqual(station.heard, [])

    def test_a_viewer_does_not_hear_commands_and_answers(self):
        viewer = self.client("viewer", ["lumatie/#"])
        desk = self.client("studio")
        station = self.client("7", [BRANCHES + "7/cmd/+"])
        desk.publish(BRANCHES + "7/cmd/enter", {"token": "secret"})
        wait_until(lambda: station.heard, "the command")
        station.publish(BRANCHES + "7/reply/x", {})
        station.publish(BRANCHES + "7/event/shot", {"n": 1})
        wait_until(lambda: viewer.heard, "the event")
        self.assertEqual([message.topic for message in viewer.heard], [BRANCHES + "7/event/shot"])

    def test_a_station_writes_its_own_branch_and_no_other_one(self):
        desk = self.client("studio", [BRANCHES + "+/event/+", BRANCHES + "+/state"])
        station = self.client("7")
        for topic in ("8/event/picture", "8/state", "8/cmd/shoot", "7/cmd/shoot", "8/tick"):
            self.assert_not_allowed(station, BRANCHES + topic, desk)
        for topic in ("7/event/picture", "7/state", "7/tick", "7/claim", "7/settings"):
            self.assertFalse(station.publish(BRANCHES + topic, b"{}").is_failure)

    def test_a_station_does_not_read_anothers_commands(self):
        other = self.client("3", [BRANCHES + "7/cmd/+", "#"])
        station = self.client("7", [BRANCHES + "7/cmd/+"])
        self.client("studio").publish(BRANCHES + "7/cmd/tag", {"tag": "x"})
        wait_until(lambda: station.heard, "the command")
        self.assertEqual(other.heard, [])

    def test_the_studio_does_not_write_events(self):
        studio, viewer = self.client("studio"), self.client("viewer", [BRANCHES + "+/event/+"])
        self.assert_not_allowed(studio, BRANCHES + "7/event/picture", viewer)

    def test_without_the_right_password_nobody_is_let_in(self):
        for user, password in ((None, None), ("studio", "wrong"), ("nobody", "x")):
            with self.subTest(user=user):
                client = self.client(user, password=password)
                self.assertTrue(client.code.is_failure, client.code)

    def test_a_message_of_ten_megabytes_is_not_passed_on(self):
        desk = self.client("studio", [BRANCHES + "+/event/+"])
        listener = Noting()
        station = Connection(self.broker.address("7"), "x", listener, [BRANCHES + "7/cmd/+"])
        self.addCleanup(station.close)
        with mock.patch.object(threading, "excepthook", lambda _: None):
            station.start()
            wait_until(lambda: listener.ups, "a connection")
            station.publish(BRANCHES + "7/event/shot", b"x" * 10_000_000)
            wait_until(lambda: listener.ups == 2, lambda: "another one: %r" % listener.downs)
        station.publish(BRANCHES + "7/event/shot", b'{"n":1}')
        wait_until(lambda: desk.heard, "the next event")
        self.assertEqual(desk.messages(BRANCHES + "7/event/shot"), [{"n": 1}])


class Connections(StudioTestCase):
    def connect(self, user="studio", address=None, topics=(BRANCHES + "+/event/+",), name="x"):
        listener = Noting()
        connection = Connection(address or self.broker.address(user), name, listener, topics)
        self.addCleanup(connection.close)
        connection.start()
        return connection, listener

    def test_it_comes_back_when_the_broker_does(self):
        connection, listener = self.connect()
        wait_until(lambda: listener.ups == 1, "a connection")
        self.broker.stop()
        wait_until(lambda: listener.downs and not connection.is_up, "the loss")
        self.assertFalse(listener.downs[0][1])
        self.assertIsNone(connection.publish(BRANCHES + "7/cmd/tag", b"{}"))
        self.broker.start()
        wait_until(lambda: listener.ups == 2, lambda: "a connection: %r" % listener.downs)

    def test_a_wrong_password_is_said_and_hopeless(self):
        _, listener = self.connect(address=self.broker.address("studio", "wrong"))
        wait_until(lambda: listener.downs, "a word")
        self.assertEqual(listener.downs[0], ("Not authorized", True))

    def test_a_studio_with_a_wrong_password_does_not_start(self):
        address = self.broker.address("studio", "wrong")
        studio = Studio(address, "pta", str(self.folder), self.say)
        with self.assertRaises(BrokerRefused) as raised:
            studio.start()
        self.assertIn("refuses this program: Not authorized", str(raised.exception))
        self.assertNotIn("wrong", str(raised.exception))

    def test_a_broker_that_is_not_there_is_waited_for(self):
        self.broker.stop()
        connection, listener = self.connect()
        wait_until(lambda: listener.downs, "a word")
        self.assertRegex(listener.downs[0][0], "cannot be reached")
        self.broker.start()
        wait_until(lambda: listener.ups, "a connection")

    def test_what_the_broker_does_not_allow_is_told(self):
        connection, listener = self.connect("viewer")
        wait_until(lambda: listener.ups, "a connection")
        number = connection.publish(BRANCHES + "7/cmd/shoot", b"{}")
        wait_until(lambda: number in listener.answers, "an answer")
        self.assertFalse(listener.answers[number])


class Secure(StudioTestCase):
    """TLS, with the certificates that the documentation's command makes."""

    def setUp(self):
        super().setUp()
        self.certificates = self.base / "certs"
        self.certificates.mkdir()
        made = programs.path_of(self.certificates)
        script = programs.path_of(CONFIGURATION / "make-certificates.sh")
        programs.run(self.base / "certs.log", "sh", script, made, "localhost")
        self.broker.stop()
        (self.base / "secure").mkdir()
        lines = "\ncafile %s/ca.crt\ncertfile %s/broker.crt\nkeyfile %s/broker.key\n"
        self.broker = Broker(
            str(self.base / "secure"),
            changes=[("set_tcp_nodelay", lines % ((made,) * 3) + "set_tcp_nodelay")],
        )
        self.addCleanup(self.broker.stop)

    def listen(self, authorities):
        listener = Noting()
        address = Address("localhost", self.broker.port, "studio", "pw-studio", True, authorities)
        connection = Connection(address, "x", listener, [BRANCHES + "+/state"])
        self.addCleanup(connection.close)
        connection.start()
        wait_until(lambda: listener.ups or listener.downs, "an answer")
        return listener

    def test_a_broker_whose_certificate_is_known_is_talked_to(self):
        self.assertEqual(self.listen(str(self.certificates / "ca.crt")).ups, 1)

    def test_a_broker_whose_certificate_is_not_known_is_not(self):
        listener = self.listen(None)
        self.assertEqual(listener.ups, 0)
        self.assertRegex(listener.downs[0][0], "(?i)certificate")

    def test_a_connection_that_is_not_made_leaves_no_socket_open(self):
        with warnings.catch_warnings(record=True) as caught:
            warnings.simplefilter("always", ResourceWarning)
            self.listen(None)
            gc.collect()
        self.assertEqual([str(one.message) for one in caught], [])


if __name__ == "__main__":
    unittest.main()
