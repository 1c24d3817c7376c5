"""Stations as they are: the command with virtual cameras, a real broker, a studio."""

import json
import os
import pathlib
import re
import signal
import subprocess
import threading
import unittest

import interrupting
import lumatie_host
from lumatie_host.studio.studio import Studio
from studio_support import DEADLINE, HOST, Proxy, StudioTestCase, wait_until
from this_process import ON_WINDOWS
from virtual_cameras import PYTHON_DIR

# Shots that the camera's log says were asked for.
FIRED = {
    "canon": re.compile(r" EdsSendCommand\(camera#\d+, 0x4, 0x3\) = 0x0 "),
    "nikon": re.compile(r" CapStart\(source#\d+, 0x11\) = 1 "),
}

# The command on a computer whose clocks are all an hour ahead.
AN_HOUR_AHEAD = """
import runpy, sys, time

def ahead(clock):
    return lambda *which: clock(*which) + 3600.0

for name in ("time", "clock_gettime", "perf_counter"):  # the second one is not on every system
    if hasattr(time, name):
        setattr(time, name, ahead(getattr(time, name)))
sys.argv[0] = "lumatie"
runpy.run_module("lumatie_host.cli", run_name="__main__", alter_sys=True)
"""


class Command:
    """The command `lumatie station`, running."""

    def __init__(self, test, name, maker="canon", url=None, is_ahead=False, settings=""):
        self.base = test.base / ("station-" + name)
        self.folder = self.base / "shoot"
        self.folder.mkdir(parents=True, exist_ok=True)
        self.log = self.base / "camera.log"
        self.maker = maker
        self.words = self.base / "words"
        (self.base / "camera.txt").write_text(settings)
        environment = dict(
            os.environ,
            PYTHONPATH=os.pathsep.join((str(HOST), str(PYTHON_DIR))),
            LUMATIE_VIRTUAL_LOG=str(self.log),
        )
        environment["LUMATIE_VIRTUAL_" + maker.upper()] = str(self.base / "camera.txt")
        program = AN_HOUR_AHEAD if is_ahead else interrupting.COMMAND
        url = url or test.broker.url(None if test.is_open else name)
        arguments = ["station", "--broker", url, "--studio", "pta", "--name", name]
        arguments += ["--virtual", maker, "--folder", str(self.folder), "--json"]
        with open(str(self.words), "ab") as words:
            self.process = interrupting.start(
                arguments,
                program,
                env=environment,
                cwd=str(self.base),
                stdout=subprocess.PIPE,
                stderr=words,
            )
        test.addCleanup(self.end)

    def end(self):
        interrupting.end(self.process)

    def interrupt(self):
        interrupting.interrupt(self.process)
        output, _ = self.process.communicate(timeout=DEADLINE)
        return self.process.returncode, [json.loads(line) for line in output.splitlines()]

    def kill(self):
        self.process.kill()
        self.process.communicate()

    def fired(self):
        text = self.log.read_text(errors="replace") if self.log.exists() else ""
        return len(FIRED[self.maker].findall(text))

    def pictures(self):
        return {p.name: p.read_bytes() for p in self.folder.iterdir() if p.is_file()}

    def ledger(self):
        return list(lumatie_host.Ledger(str(self.folder)).read())


def stands_still(process):
    """Whether all threads were stopped; the last of them runs on for a while."""
    tasks = pathlib.Path("/proc/%d/task" % process).glob("*/stat")
    return all(task.read_text().rpartition(")")[2].split()[0] == "T" for task in tasks)


class StationsTestCase(StudioTestCase):
    def setUp(self):
        super().setUp()
        self.desk = self.client(None if self.is_open else "studio", ["lumatie/1/pta/+/reply/+",
                                "lumatie/1/pta/+/state", "lumatie/1/pta/+/event/+"])  # fmt: skip

    def station(self, name, *arguments, **options):
        """A station that is at the broker."""
        command = Command(self, name, *arguments, **options)
        self.wait_for_state(name, command)
        return command

    def wait_for_state(self, name, command, is_online=True):
        topic = "lumatie/1/pta/%s/state" % name

        def is_there():
            if is_online and command.process.poll() is not None:
                raise AssertionError("the station has ended: " + why())
            states = self.desk.messages(topic)
            return states and states[-1]["online"] is is_online

        def why():
            return command.words.read_text()

        wait_until(is_there, why)

    def start_studio(self, **options):
        address = self.broker.address(None if self.is_open else "studio")
        studio = Studio(address, "pta", str(self.folder), self.say, **options)
        self.addCleanup(studio.close)
        self.feed = studio.feed()
        studio.start()
        return studio

    def ask(self, name, operation, request, data, expiry=2):
        branch = "lumatie/1/pta/%s/" % name
        self.desk.publish(
            branch + "cmd/" + operation, request, False, expiry, branch + "reply/desk", data
        )

    def answers(self, name):
        return self.desk.messages("lumatie/1/pta/%s/reply/desk" % name)

    def answer(self, name, count=1):
        wait_until(lambda: len(self.answers(name)) >= count, "answer %d" % count)
        return self.answers(name)[count - 1]

    def assert_collected(self, *stations):
        """What the stations have is what the studio has."""

        def is_equal():
            return self.collected() == {
                "%s/%s" % (name, file): data
                for name, command in stations
                for file, data in command.pictures().items()
            }

        wait_until(is_equal, lambda: "%s %s" % (sorted(self.collected()), self.said))
        self.assertEqual(lumatie_host.verify(str(self.folder)), [])


class BothMakers:
    maker = ""

    def test_a_session_is_published_obeys_and_is_collected(self):
        self.start_studio()
        station = self.station("7", self.maker)
        self.ask("7", "set", {"name": "iso", "text": "800"}, b"1")
        self.assertEqual(self.answer("7")["text"], "800")
        self.ask("7", "tag", {"tag": "4b"}, b"2")
        self.assertEqual(self.answer("7", 2)["tag"], "4b")
        for _ in range(3):
            self.ask("7", "shoot", {}, b"3")
        answer = self.answer("7", 3)
        self.assertEqual((answer["ok"], answer["shot"]), (True, 1), answer)
        self.assert_collected(("7", station))
        self.assertEqual(len(station.pictures()), 1)
        status, printed = station.interrupt()
        self.assertEqual(status, 130)
        names = {"studio": "pta", "station": "7"}
        ledger = [{**record, **names} for record in station.ledger()]
        self.assertEqual(printed, ledger)
        wait_until(lambda: len(self.published()) == len(ledger), "the whole ledger")
        events = self.published()
        for record in ledger:
            event = dict(events[record["n"]])
            url = event.pop("url", None)
            self.assertEqual(event, record)
            if record["kind"] == "picture":
                self.assertRegex(url, r"^http://127\.0\.0\.1:\d+/api/pictures/%d$" % record["n"])
        told = [m for m in self.desk.heard if "/event/" in m.topic]
        self.assertEqual(len(told), len(events), "a record was published twice")
        self.wait_for_state("7", station, is_online=False)

    def published(self):
        told = [m for m in list(self.desk.heard) if "/event/" in m.topic]
        return {e["n"]: e for e in (json.loads(m.payload) for m in told)}


class Canon(BothMakers, StationsTestCase):
    maker = "canon"

    def test_a_retained_command_is_refused(self):
        self.desk.publish(
            "lumatie/1/pta/7/cmd/shoot", {}, True, None, "lumatie/1/pta/7/reply/desk", b"1"
        )
        station = self.station("7")
        answer = self.answer("7")
        self.assertIn("it is retained", answer["error"])
        self.assertIn("it is retained", station.words.read_text())
        self.ask("7", "shoot", {}, b"2")
        self.assertTrue(self.answer("7", 2)["ok"])
        self.assertEqual(station.fired(), 1)

    def test_rubbish_disturbs_no_station(self):
        station = self.station("7")
        branch, own = "lumatie/1/pta/7/", self.client("7")
        rubbish = (b"", b"x", b"[]", b"\xff", b"[" * 60000, b'{"pair": 1e999}', b"x" * 200_000)
        for number, payload in enumerate(rubbish):
            for operation in ("set", "tag", "enter", "dance", "shoot"):
                if payload or operation != "shoot":  # nothing asks for nothing special: a picture
                    data = b"%s %d" % (operation.encode(), number)
                    self.ask("7", operation, payload, data)
            for topic in ("tick", "claim", "state"):
                own.publish(branch + topic, payload)
        self.ask("7", "shoot", {}, b"good")
        answer = wait_until(
            lambda: next((one for one in self.answers("7") if one["ok"]), None),
            lambda: repr(self.answers("7")),
        )
        self.assertEqual((answer["operation"], answer["shot"]), ("shoot", 1))
        self.assertEqual(station.fired(), 1)
        self.assertIn("it cannot be read", station.words.read_text())

    def test_a_request_that_was_held_up_for_two_seconds_does_not_fire(self):
        proxy = Proxy(self.broker.port)
        self.addCleanup(proxy.close)
        url = self.broker.url("7").replace(str(self.broker.port), str(proxy.port))
        station = self.station("7", url=url)
        self.ask("7", "shoot", {}, b"1")
        self.assertTrue(self.answer("7")["ok"])
        proxy.is_holding.clear()
        wait_for(0.8)  # ticks of the station wait in front of the request
        self.ask("7", "shoot", {}, b"2")
        wait_for(2.6)
        proxy.is_holding.set()
        answer = self.answer("7", 2)
        self.assertRegex(answer["error"], "seconds old, and 2 are allowed")
        self.assertEqual((station.fired(), len(station.pictures())), (1, 1))

    @unittest.skipIf(ON_WINDOWS, "no signal stops a process there and has it go on")
    def test_a_station_that_stood_still_does_not_fire_what_came_meanwhile(self):
        station = self.station("7")
        station.process.send_signal(signal.SIGSTOP)
        wait_until(lambda: stands_still(station.process.pid), "the station's threads")
        self.ask("7", "shoot", {}, b"1")
        wait_for(2.6)
        station.process.send_signal(signal.SIGCONT)
        self.assertRegex(self.answer("7")["error"], "seconds old, and 2 are allowed")
        self.assertEqual(station.fired(), 0)

    def test_a_second_station_of_the_name_is_refused_in_words_and_the_first_goes_on(self):
        first = self.station("7")
        (self.base / "other").mkdir()
        base, self.base = self.base, self.base / "other"
        second = Command(self, "7")
        self.base = base
        self.assertEqual(second.process.wait(DEADLINE), 5)
        words = second.words.read_text()
        self.assertIn("there is a station 7 already: it has the camera Virtual EOS", words)
        self.assertIn("Give this station another name, or end the other one.", words)
        self.ask("7", "shoot", {}, b"1")
        self.assertTrue(self.answer("7")["ok"])
        self.assertEqual((first.fired(), second.fired()), (1, 0))

    def test_a_wrong_password_is_said_and_not_shown(self):
        url = self.broker.url("7").replace("pw-7", "secret")
        command = Command(self, "7", url=url)
        self.assertEqual(command.process.wait(DEADLINE), 6)
        words = command.words.read_text()
        self.assertIn("refuses this program: Not authorized", words)
        self.assertNotIn("secret", words)

    def test_a_station_under_another_name_than_its_own_says_that_it_may_not(self):
        command = Command(self, "1", url=self.broker.url("7"))
        self.assertEqual(command.process.wait(DEADLINE), 6)
        words = "it does not let this user write as station 1"
        self.assertIn(words, command.words.read_text())
        self.assertEqual(self.desk.messages("lumatie/1/pta/1/state"), [])

    def test_without_a_broker_pictures_are_taken_and_published_when_it_is_there(self):
        self.broker.stop()
        station = Command(self, "7")
        wait_until(
            lambda: "The station goes on without it." in station.words.read_text(),
            lambda: station.words.read_text(),
            3 * DEADLINE,  # a start, and the patience for a broker
        )
        self.broker.start()
        self.desk = self.client("studio", ["lumatie/1/pta/+/state", "lumatie/1/pta/+/reply/+"])
        self.wait_for_state("7", station)
        self.ask("7", "shoot", {}, b"1")
        self.assertTrue(self.answer("7")["ok"])
        self.start_studio()
        self.assert_collected(("7", station))

    def test_a_station_that_is_killed_in_a_burst_loses_nothing_and_fires_nothing_twice(self):
        studio = self.start_studio(patience=3.0)
        asked = 0
        for _ in range(3):
            station = self.station("7")
            wait_until(lambda: studio._hub.since("7") is not None, "the station's clock")
            fired = station.fired()
            for _ in range(4):
                asked += 1
                self.ask("7", "shoot", {}, b"%d" % asked)
            wait_until(lambda: station.fired() > fired, "a shot")
            station.kill()
            self.wait_for_state("7", station, is_online=False)
        station = self.station("7")
        for number in range(1, asked + 1):
            self.ask("7", "shoot", {}, b"%d" % number)
        self.assertLessEqual(station.fired(), asked)
        wait_until(
            lambda: sum(1 for m in self.desk.heard if m.topic.endswith("/reply/desk")) >= asked,
            "all answers",
        )
        self.assertLessEqual(station.fired(), asked)
        self.assert_collected(("7", station))
        self.assertEqual(lumatie_host.verify(str(station.folder)), [])
        hashes = list(station.pictures().values())
        self.assertEqual(len(hashes), len(set(hashes)))
        recorded = [r["n"] for r in station.ledger() if r["kind"] == "picture"]
        # A file has its name a moment before it is acknowledged.
        wait_until(lambda: len(self.acknowledged()) >= len(recorded), "the last acknowledgement")
        self.assertEqual(sorted(self.acknowledged()), recorded)

    def acknowledged(self):
        return [r["of"] for r in lumatie_host.Ledger(str(self.folder)).read() if "of" in r]


class Nikon(BothMakers, StationsTestCase):
    maker = "nikon"


class Several(StationsTestCase):
    def test_all_shoot_at_once_with_clocks_an_hour_apart_and_the_spread_is_told(self):
        studio = self.start_studio()
        stations = [("1", self.station("1")), ("7", self.station("7", is_ahead=True))]
        for name, _ in stations:
            wait_until(lambda name=name: studio._hub.since(name), "its clock")
        spread = studio.shoot(timeout=20.0)
        self.assertEqual([r.answer.get("error") for r in spread.releases], [None, None])
        self.assertRegex(str(spread), r"^2 of 2 stations, within \d+ ms \(give or take \d+ ms\)$")
        self.assertLess(spread.seconds, 2.0)
        self.assertEqual([command.fired() for _, command in stations], [1, 1])
        self.assertEqual(studio.tag("4b"), {"1": None, "7": None})
        self.assertEqual(studio.set("7", "iso", "800"), "800")
        with self.assertRaisesRegex(lumatie_host.TetherError, "station 7: .* does not take 5"):
            studio.set("7", "iso", "5")
        self.assert_collected(*stations)

    def test_a_broker_that_is_stopped_and_started_while_shooting_loses_nothing(self):
        self.start_studio()
        stations = [("1", self.station("1")), ("2", self.station("2"))]
        self.shoot(stations, b"a")
        self.broker.stop()
        self.broker.start()
        self.desk = self.client("studio", ["lumatie/1/pta/+/reply/+", "lumatie/1/pta/+/state"])
        for name, command in stations:
            self.wait_for_state(name, command)
        self.shoot(stations, b"b")
        self.assert_collected(*stations)
        for _, command in stations:
            self.assertEqual(command.fired(), 2)

    def shoot(self, stations, data):
        for name, _ in stations:
            self.ask(name, "shoot", {}, data)
        for name, _ in stations:
            wait_until(lambda name=name: self.answers(name), "an answer")
            self.assertTrue(self.answers(name)[-1]["ok"], self.answers(name))


def wait_for(seconds):
    """Lets time pass, where that it passes is what is tested."""
    threading.Event().wait(seconds)


if __name__ == "__main__":
    unittest.main()
