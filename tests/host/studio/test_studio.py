"""A studio whose stations a generator plays: nothing lost, nothing twice, whatever happens."""

import json
import os
import subprocess
import sys
import threading
import unittest
from unittest import mock

import lumatie_host
from lumatie_host.studio import hub as hubs
from lumatie_host.studio import messages
from lumatie_host.studio import studio as studios
from lumatie_host.studio.studio import Studio
from studio_support import DEADLINE, HOST, Proxy, Rate, StudioTestCase, wait_until


class WithStudio(StudioTestCase):
    def start_studio(self, port=None, **options):
        address = self.broker.address(None if self.is_open else "studio", port=port)
        studio = Studio(address, "pta", str(self.folder), self.say, **options)
        self.addCleanup(studio.close)
        feed = studio.feed()
        self.records = []

        def follow():
            while not feed.is_over:
                record = feed.take(1.0)
                if record is not None:
                    self.records.append(record)

        threading.Thread(target=follow, daemon=True).start()
        studio.start()
        return studio

    def numbers(self, station="7"):
        told = [r for r in list(self.records) if r.get("station") == station and "n" in r]
        return [record["n"] for record in told]

    def alarms(self):
        return [r["what"] for r in list(self.records) if r["kind"] == "alarm" and "n" not in r]

    def assert_complete(self, *stations):
        """Every record is told once, every picture is in the folder once, as it was."""

        def is_complete():
            pictures = {
                "%s/%s" % (one.name, record["file"]): one.pictures[record["n"]]
                for one in stations
                for record in one.ledger
                if record["kind"] == "picture"
            }
            return self.collected() == pictures

        wait_until(is_complete, lambda: "%r %r" % (sorted(self.collected()), self.said))
        for one in stations:
            numbers = list(range(1, len(one.ledger) + 1))
            wait_until(lambda: len(self.numbers(one.name)) >= len(numbers), "the records")
            self.assertEqual(sorted(self.numbers(one.name)), numbers)
        self.assertEqual(lumatie_host.verify(str(self.folder)), [])


class Following(WithStudio):
    def test_records_that_never_reach_the_broker_are_asked_for_at_the_station(self):
        self.start_studio()
        station = self.simulated("7")
        for number in range(20):
            station.shot(publish=number % 3 == 0)
            station.picture(os.urandom(5000), publish=number % 4 == 0)
        station.tell_state()
        self.assert_complete(station)

    def test_records_twice_late_and_out_of_order_are_each_taken_once(self):
        self.start_studio()
        station = self.simulated("7")
        for _ in range(20):
            station.shot(publish=False)
            station.picture(os.urandom(5000), publish=False)
        for record in [*reversed(station.ledger), *station.ledger, station.ledger[0]]:
            station.publish(record)
        self.assert_complete(station)

    def test_a_studio_that_starts_later_has_everything(self):
        station = self.simulated("7")
        for _ in range(10):
            station.shot()
            station.picture(os.urandom(5000))
        station.tell_state()
        self.start_studio()
        self.assert_complete(station)

    def test_a_station_of_which_a_second_start_has_another_ledger_loses_nothing(self):
        self.start_studio()
        first = self.simulated("7")
        first.picture(b"first", file="a.JPG")
        wait_until(lambda: len(self.collected()) == 1, "the first picture")
        first.close()
        second = self.simulated("7", instance="b", ledger="another")
        second.picture(b"second", file="a.JPG")
        wait_until(lambda: len(self.collected()) == 2, "the second picture")
        self.assertEqual(self.collected(), {"7/a.JPG": b"first", "7/a (2).JPG": b"second"})

    def test_a_second_start_with_another_ledger_is_collected_while_the_first_one_is_owed(self):
        studio = self.start_studio()
        first = self.simulated("7")
        first.server.pace = threading.Event()
        for number in range(1, 6):
            first.picture(os.urandom(500_000), file="%d.JPG" % number)
        wait_until(lambda: studio.to_collect == 5, "the first pictures' records")
        first.server.close()
        first.close()
        first.server.pace.set()
        second = self.simulated("7", instance="b", ledger="another")
        second.picture(b"second", file="b.JPG")
        wait_until(lambda: "7/b.JPG" in self.collected(), lambda: repr(self.said))
        self.assertEqual(self.collected(), {"7/b.JPG": b"second"})
        second.close()
        third = self.simulated("7", instance="c")
        third.pictures, third.ledger = first.pictures, first.ledger
        third.tell_state()
        wait_until(lambda: len(self.collected()) == 6, lambda: repr(self.said))
        for number in range(1, 6):
            self.assertEqual(self.collected()["7/%d.JPG" % number], first.pictures[number])
        self.assertEqual(self.alarms(), [])

    def test_a_picture_that_is_said_to_be_elsewhere_is_refused_and_had_from_the_station(self):
        self.start_studio()
        station, other = self.simulated("7"), self.simulated("1")
        record = station.picture(b"mine", publish=False)
        station.publish(record, url=other.server.url + "api/pictures/1")
        self.wait_for_words("a picture that is said to be at " + other.server.url)
        self.assert_complete(station)
        self.assertEqual([p for p, _ in other.server.requests if "pictures" in p], [])

    def test_a_picture_is_had_from_its_address_and_by_its_number_when_the_ledger_told_of_it(self):
        self.start_studio()
        station = self.simulated("7")
        station.server.files["/files/a.jpg"] = 1
        record = station.picture(b"first", publish=False)
        station.publish(record, url=station.server.url + "files/a.jpg")
        self.assert_complete(station)
        station.picture(b"second", publish=False, url="http://127.0.0.1:9/b.jpg")
        station.tell_state()
        self.assert_complete(station)
        asked = [path for path, _ in station.server.requests]
        originals = [path for path in asked if "ledger" not in path and "preview" not in path]
        self.assertEqual(originals, ["/files/a.jpg", "/api/pictures/2"])

    def test_rubbish_disturbs_nothing(self):
        studio = self.start_studio()
        station = self.simulated("7")
        branch = station.branch
        for payload in (b"x", b"{}", b"[" * 60000, b"\xff", b"x" * 200_000):
            for topic in (branch.event("picture"), branch.event("dance"), branch.state,
                          branch.settings, branch.tick):  # fmt: skip
                station.connection.publish(topic, payload)
        for _ in range(5):
            station.shot()
            station.picture(os.urandom(5000))
        self.assert_complete(station)
        self.assertGreater(studio.view()["stations"][0]["refused"], 20)

    def test_rubbish_in_place_of_a_stations_own_record_is_not_the_end_of_it(self):
        self.start_studio()
        station = self.simulated("7")
        rubbish = [b"x", b"{}", b"[" * 60000, b"\xff", b'[5, null, {}, {"n": "1"}, {"n": -1}]']
        answer, send = station.server.answer, station.server._send

        def spoil(request):
            if "/api/ledger" in request.path and rubbish:
                return send(request, 200, rubbish.pop())
            return answer(request)

        with mock.patch.object(studios, "FILL_AGAIN", 0.05):
            station.server.answer = spoil
            for _ in range(5):
                station.shot(publish=False)
                station.picture(os.urandom(5000), publish=False)

            def is_told_again():
                station.tell_state()
                return not rubbish

            wait_until(is_told_again, "that all of it is asked for")
            station.tell_state()
            self.assert_complete(station)
        self.wait_for_words("Records of station 7 are missing, and it says: its record")

    def test_a_station_that_goes_without_a_word_is_an_alarm_and_one_that_leaves_is_not(self):
        studio = self.start_studio()
        gone, left = self.simulated("7"), self.simulated("1")
        wait_until(lambda: studio.stations == ["1", "7"], lambda: repr(studio.stations))
        left.close()
        gone.kill()
        wait_until(lambda: studio.stations == [], lambda: repr(studio.stations))
        wait_until(self.alarms, "an alarm")
        self.wait_for_words("Station 1 has left.")
        self.assertEqual(self.alarms(), ["station 7 is gone"])

    def test_a_station_that_is_silent_is_an_alarm_and_is_followed_when_it_is_back(self):
        with mock.patch.object(hubs, "SILENCE", 3.0):
            studio = self.start_studio()
            station = self.simulated("7")
            wait_until(lambda: studio.stations == ["7"], lambda: repr(studio.stations))
            station.end_ticks()
            wait_until(lambda: studio.stations == [], lambda: repr(studio.stations))
            wait_until(lambda: "station 7 is gone" in self.alarms(), "an alarm")
            station.picture(b"x" * 100)
            station.begin_ticks()
            self.assert_complete(station)
            wait_until(lambda: studio.stations == ["7"], lambda: repr(studio.stations))

    def test_what_is_collected_is_the_folders_own_record(self):
        self.start_studio()
        station = self.simulated("7")
        station.shot()
        station.picture(b"data" * 1000)
        self.assert_complete(station)
        wait_until(lambda: [r for r in self.records if r["kind"] == "collected"], "the word")
        (record,) = lumatie_host.Ledger(str(self.folder)).read()
        told = [record[name] for name in ("kind", "studio", "station", "of", "size")]
        self.assertEqual(told, ["picture", "pta", "7", 2, 4000])


class Missing(WithStudio):
    def test_a_frame_that_is_missing_is_told_within_five_seconds_of_its_deadline(self):
        self.start_studio(patience=1.0)
        station = self.simulated("7")
        for _ in range(41):
            station.shot()
            station.picture(b"x" * 100)
        station.shot()
        wait_until(lambda: self.alarms(), "the alarm", 1.0 + 5.0)
        self.assertEqual(self.alarms(), ["station 7 has 41 of 42"])
        (record,) = [
            r for r in lumatie_host.Ledger(str(self.folder)).read() if r["kind"] == "alarm"
        ]
        self.assertEqual((record["what"], record["station"]), ("station 7 has 41 of 42", "7"))

    def test_a_station_that_does_not_answer_a_shot_has_a_frame_less(self):
        studio, station = self.ready()
        threading.Thread(target=self.refuse, args=(station,), daemon=True).start()
        spread = studio.shoot(timeout=1.0)
        self.assertEqual(str(spread), "0 of 1 stations")
        wait_until(self.alarms, "an alarm")
        self.assertEqual(self.alarms(), ["station 7 has 0 of 1"])

    def test_a_shot_that_got_too_old_behind_its_record_is_one_frame_less(self):
        studio, station = self.ready()

        def refuse():
            self.refuse(station, shot=1)
            station.shot()
            station.record("failed", reason="no_answer", text="late", advice="ask", shot=1)

        threading.Thread(target=refuse, daemon=True).start()
        studio.shoot(timeout=1.0)
        wait_until(self.alarms, "an alarm")
        station.shot()
        station.picture(b"x")
        self.assert_complete(station)
        (view,) = studio.view()["stations"]
        self.assertEqual((view["asked"], view["have"]), (2, 1))
        self.assertEqual(self.alarms(), ["station 7 has 0 of 1"])

    def test_a_shot_whose_answer_is_lost_counts_once(self):
        studio, station = self.ready()
        with mock.patch.object(studios, "ANSWER_PATIENCE", 0.5):
            spread = studio.shoot(timeout=0.5)
        self.assertEqual(str(spread), "0 of 1 stations")
        wait_until(self.alarms, "an alarm")
        station.shot()
        station.picture(b"x")
        self.assert_complete(station)
        (view,) = studio.view()["stations"]
        self.assertEqual((view["asked"], view["have"], view["missing"]), (1, 1, 0))

    def test_a_command_that_nobody_answers_is_forgotten(self):
        with mock.patch.object(studios, "ANSWER_PATIENCE", 1.0):
            studio = self.start_studio()
            station = self.simulated("7", is_silent=True)
            wait_until(lambda: station.commands, "the command")
            wait_until(lambda: not studio._asking._asked, "that it is forgotten")

    def ready(self):
        """A studio, and a station whose clock it knows."""
        studio = self.start_studio()
        station = self.simulated("7")
        wait_until(lambda: studio.stations, "the station")
        tick = {"kind": "tick", "instance": "a", "tick": 1.0, "n": 0}
        station.connection.publish(station.branch.tick, messages.encode(tick))
        wait_until(lambda: studio._hub.since("7"), "its clock")
        return studio, station

    def refuse(self, station, **more):
        topic = station.branch.command("shoot")
        command = wait_until(
            lambda: next((c for c in station.commands if c.topic == topic), None), "the command"
        )
        self.assertEqual(command.expiry, 2)
        self.assertEqual(json.loads(command.payload)["since"]["instance"], "a")
        answer = {"ok": False, "reason": "refused", "error": "no", "advice": "wait", **more}
        station.connection.publish(
            command.response, messages.encode(answer), correlation=command.correlation
        )


class Disturbed(WithStudio):
    def play(self, station, count=30, size=20_000):
        for _ in range(count):
            station.shot()
            station.picture(os.urandom(size))

    def test_a_broker_that_is_stopped_and_started_loses_nothing(self):
        self.start_studio()
        station = self.simulated("7")
        self.play(station)
        self.broker.stop()
        self.play(station)
        self.broker.start()
        wait_until(lambda: station.connection.is_up, "the station's connection")
        self.play(station)
        self.assert_complete(station)

    def test_a_network_that_drops_connections_loses_nothing(self):
        proxy = Proxy(self.broker.port, drops=5)
        self.addCleanup(proxy.close)
        self.start_studio(port=proxy.port)
        other = Proxy(self.broker.port, drops=4)
        self.addCleanup(other.close)
        station = self.simulated("7", port=other.port)
        rounds = 0
        while rounds < 20 or (proxy.dropped + other.dropped <= 3 and rounds < 200):
            rounds += 1
            self.play(station, 3)
            station.tell_state()
            wait_until(lambda: station.connection.is_up, "the station's connection")
        other._drops = proxy._drops = 0
        wait_until(lambda: station.connection.is_up, "the station's connection")
        station.tell_state()
        self.assert_complete(station)
        self.assertGreater(proxy.dropped + other.dropped, 3)

    def test_a_studio_that_is_killed_while_it_collects_goes_on_and_has_each_picture_once(self):
        stations = [self.simulated(name) for name in ("1", "2", "7")]
        for station in stations:
            station.server.pace = Rate()
            self.play(station, 10, 1_000_000)
            station.tell_state()
        for least in (2, 9, 17):
            command = self.start_command()
            wait_until(lambda: len(self.collected()) >= least, "some pictures", 3 * DEADLINE)
            command.kill()
            command.communicate()
        self.assertLess(len(self.collected()), 30, "the test is too slow to kill it in time")
        self.start_studio()
        wait_until(lambda: len(self.collected()) == 30, lambda: repr(self.said))
        wanted = {
            "%s/%s" % (one.name, record["file"]): one.pictures[record["n"]]
            for one in stations
            for record in one.ledger
            if record["kind"] == "picture"
        }
        self.assertEqual(self.collected(), wanted)
        self.assertEqual(lumatie_host.verify(str(self.folder)), [])
        wait_until(lambda: len(self.acknowledged()) >= 30, "the last acknowledgement")
        self.assertEqual(len(self.acknowledged()), 30)

    def acknowledged(self):
        return [r["of"] for r in lumatie_host.Ledger(str(self.folder)).read() if "of" in r]

    def start_command(self):
        arguments = ("--broker", self.broker.url("studio"), "--studio", "pta", "--json")
        environment = dict(os.environ, PYTHONPATH=str(HOST))
        command = subprocess.Popen(
            [sys.executable, "-m", "lumatie_host.cli", "studio", *arguments]
            + ["--folder", str(self.folder)],
            env=environment,
            stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL,
        )
        self.addCleanup(command.wait, DEADLINE)
        self.addCleanup(command.kill)
        return command


class WithoutPersistence(Disturbed):
    has_persistence = False

    test_a_network_that_drops_connections_loses_nothing = None
    test_a_studio_that_is_killed_while_it_collects_goes_on_and_has_each_picture_once = None


class Open(WithStudio):
    """A broker that lets everybody do everything."""

    is_open = True

    def test_a_record_that_somebody_else_makes_up_does_not_hide_the_true_one(self):
        self.start_studio()
        station = self.simulated("7")
        somebody = self.client()
        forged = {"v": 1, "n": 1, "time": "2026-11-22T05:40:48.123Z", "kind": "picture"}
        forged.update(file="a.JPG", size=4, sha256="0" * 64, shot=1, origin="host", format="JPEG")
        forged.update(studio="pta", station="7", url="http://127.0.0.1:9/api/pictures/1")
        somebody.publish(station.branch.event("picture"), forged)
        self.wait_for_words("said to be at http://127.0.0.1:9")
        station.picture(b"true")
        self.assert_complete(station)


if __name__ == "__main__":
    unittest.main()
