"""The studio's page: who may ask for what, what is told, what is done, what is passed on."""

import asyncio
import json
import os
import pathlib
import re
import sys
import unittest
from unittest import mock

from lumatie_host.studio import relay
from studio_support import DEADLINE, jpeg_of, wait_until
from walks import Walks
from wall_support import WallCase

REPOSITORY = pathlib.Path(__file__).resolve().parents[3]
sys.path.append(str(REPOSITORY / "tests" / "host" / "page"))

from test_description import problems  # noqa: E402

BODIES = {
    "/api/tag": {"tag": "a"},
    "/api/stations/7/set": {"name": "iso", "text": "200"},
    "/api/stations/7/tag": {"tag": "a"},
    "/api/stations/7/rate": {"n": 2, "rating": 3},
    "/api/stations/7/sequence": {"kind": "interval", "count": 3, "every": 0.5},
}
ACTING = {
    *("POST /api/" + name for name in ("shoot", "tag")),
    *("POST /api/stations/{station}/" + one for one in ("set", "shoot", "tag", "rate", "sequence")),
    *(method + path for method in ("GET", "HEAD") for path in (" /api/links", " /api/qr.svg")),
}


class Rights(Walks, WallCase):
    BODIES, ACTING, FEWEST, SECRET = BODIES, ACTING, 25, b"Simulated"

    def begin(self):
        self.serve()
        (self.station_7,) = self.acting("7")

    def done(self):
        commands = [one.topic.rsplit("/", 1)[1] for one in self.station_7.commands]
        return [one for one in commands if one != "enter"]

    def test_a_state_tells_what_one_may_do(self):
        self.serve()
        self.assertEqual(self.state()["may"], ["set", "shoot", "tag"])

    def test_every_answer_has_the_headers_that_keep_other_pages_out(self):
        self.serve()
        (station,) = self.acting("7")
        station.shot()
        station.picture(b"picture")
        self.wait_for_station("7", lambda one: one["picture"])
        path = "/api/stations/7/pictures/2"
        answers = [self.get(path), self.get(path + "/preview")]
        answers += [self.ask(method, path) for method, path, _ in self.routes()]
        self.assert_keeps_others_out(answers)

    def test_another_host_and_another_page_are_refused(self):
        self.serve()
        for headers, status in (
            ({"Host": "evil.example:%d" % self.wall.port}, 400),
            ({"Origin": "http://evil.example"}, 403),
            ({"Sec-Fetch-Site": "cross-site"}, 403),
        ):
            with self.subTest(headers=headers):
                self.assertEqual(self.post("/api/shoot", headers=headers).status, status)

    def test_a_file_that_is_none_of_the_pages_is_not_told(self):
        self.serve()
        for path in ("/wall/../schema.json", "/wall/%2e%2e/schema.json", "/wall/main.py", "/wall/"):
            with self.subTest(path=path):
                self.assertEqual(self.get(path).status, 404)
        self.assertIn(b"lumatie-picture", self.get("/stations/7/").body)
        self.assertIn(b"wall-stations", self.get("/").body)


class Description(WallCase):
    def setUp(self):
        super().setUp()
        self.text = (REPOSITORY / "docs" / "studio.md").read_text(encoding="utf-8")

    def schema(self):
        return self.get("/api/schema").json

    def check(self, value, name):
        whole = self.schema()
        self.assertEqual(problems(value, whole["$defs"][name], whole), [])

    def test_the_router_the_schema_and_the_page_have_the_same_routes(self):
        self.serve()
        rows = re.findall(r"^\| `((?:GET|POST) /api\S+)` \| (\w+) \|", self.text, re.MULTILINE)
        routed = {
            "%s %s" % (route.method, route.path): route.role
            for route in self.wall.routes
            if route.path.startswith("/api")
        }
        self.assertEqual(dict(rows), routed)
        schema = {name: one["role"] for name, one in self.schema()["routes"].items()}
        self.assertEqual(schema, routed)

    def test_the_state_the_schema_and_the_page_have_the_same_fields(self):
        self.serve()
        section = self.text.partition("| field of the state |")[2].partition("\n\n")[0]
        cells = re.findall(r"^\| (`[^|]+) \|", section, re.MULTILINE)
        described = {name for cell in cells for name in re.findall(r"`(\w+)`", cell)}
        self.assertEqual(described, set(self.state()))

    def test_states_answers_and_messages_are_as_the_schema_says(self):
        self.serve(patience=0.3)
        self.check(self.state(), "State")
        stations = self.acting("1", "2", "7")

        async def run(page):
            await page.kind("state")
            release = await self.beside(self.post, "/api/shoot")
            await page.has(lambda one: one["kind"] == "preview")
            stations[0].shot()
            await page.kind("alarms")
            return page.seen, release

        seen, release = self.listen(run)
        whole = self.schema()
        answers = {
            "POST /api/shoot": release,
            "POST /api/tag": self.post("/api/tag", {"tag": "a", "stations": ["7"]}),
            "POST /api/enter": self.post("/api/enter"),
            "GET /api/links": self.get("/api/links"),
            "POST /api/stations/{station}/set": self.post(
                "/api/stations/7/set", {"name": "iso", "text": "200"}
            ),
            "POST /api/stations/{station}/shoot": self.post("/api/stations/7/shoot"),
            "POST /api/stations/{station}/tag": self.post("/api/stations/7/tag", {"tag": "a"}),
        }
        for what in ("rate", "sequence"):
            path = "/api/stations/7/" + what
            answers["POST /api/stations/{station}/" + what] = self.post(path, BODIES[path])
        for name, answer in answers.items():
            with self.subTest(route=name):
                self.assertEqual(answer.status, 200, answer)
                self.assertEqual(problems(answer.json, whole["routes"][name]["answer"], whole), [])
        answer = whole["routes"]["GET /api/live"]["answer"]
        for told in seen:
            with self.subTest(kind=told["kind"]):
                self.assertEqual(problems(told, answer, whole), [])
        self.check(self.state(), "State")
        self.check(self.get("/api/stations/9/state").json, "Problem")
        self.assertTrue(problems({**self.state(), "more": 1}, whole["$defs"]["State"], whole))


class Told(WallCase):
    def test_a_new_picture_is_told_at_once_and_its_preview_is_there(self):
        self.serve()
        (station,) = self.acting("7")

        async def run(page):
            await page.kind("state")
            station.shot()
            record = station.picture(b"picture")
            told = await page.until(
                lambda one: one["kind"] == "station" and one["station"]["picture"]
            )
            self.assertEqual(told["station"]["picture"]["n"], record["n"])
            await page.has(lambda one: one["kind"] == "preview" and one["of"] == record["n"])

        self.listen(run)
        answer = self.get("/api/stations/7/pictures/2/preview?w=500", token="viewer")
        self.assertEqual((answer.status, answer.body), (200, jpeg_of("2 512")))
        etag = {"If-None-Match": answer.headers["ETag"]}
        self.assertEqual(
            self.get("/api/stations/7/pictures/2/preview?w=500", headers=etag).status, 304
        )

    def test_a_shot_without_a_picture_is_an_alarm_soon_after_its_deadline(self):
        self.serve(patience=0.5)
        (station,) = self.acting("7")
        for _ in range(2):
            station.shot()
            station.picture(os.urandom(100))

        async def run(page):
            await page.kind("state")
            station.shot()
            begun = asyncio.get_event_loop().time()
            told = await page.kind("alarms")
            return told["alarms"], asyncio.get_event_loop().time() - begun

        alarms, seconds = self.listen(run)
        self.assertEqual([one["what"] for one in alarms], ["station 7 has 2 of 3"])
        self.assertEqual(alarms[0]["station"], "7")
        self.assertLess(seconds, 0.5 + 5.0)
        counts = ("have", "asked", "missing")
        self.wait_for_station("7", lambda one: [one[name] for name in counts] == [2, 3, 1])

    def test_a_station_that_is_gone_is_an_alarm_until_it_is_back(self):
        self.serve()
        (station,) = self.acting("7")
        station.kill()
        told = self.wait_for_state(lambda state: state["alarms"])
        self.assertEqual([one["what"] for one in told["alarms"]], ["station 7 is gone"])
        told = self.wait_for_state(lambda state: state["connection"] == "lost")
        self.assertEqual(self.station("7")["connection"], "gone")
        self.assertEqual(told["words"], "0 of 1 station ready: 7 is gone.")
        self.assertEqual(told["connection"], "lost")
        self.acting("7")
        self.wait_for_state(lambda state: state["alarms"] == [] and state["connection"] == "open")

    def test_what_fails_at_a_station_is_an_alarm_with_its_name(self):
        self.serve()
        (station,) = self.acting("7")
        station.record("alarm", what="a copy has failed", advice="Make room.")
        station.record("lost", evidence="no report for 5 s")
        told = self.wait_for_state(lambda state: len(state["alarms"]) == 2)
        whats = [one["what"] for one in told["alarms"]]
        self.assertEqual(
            whats,
            ["station 7: a copy has failed", "station 7: the camera is gone: no report for 5 s"],
        )

    def test_the_broker_that_is_not_there_is_said(self):
        self.serve()
        self.acting("7")
        self.broker.stop()
        told = self.wait_for_state(lambda state: not state["broker"])
        self.assertEqual((told["connection"], told["words"]), ("lost", "The broker is not there."))

    def test_the_newest_pictures_are_there_after_a_restart_without_their_stations(self):
        self.serve()
        (station,) = self.acting("7")
        station.shot()
        station.picture(b"picture", file="a.JPG")
        wait_until(self.collected, "the picture")
        self.wait_for_station("7", lambda one: one["picture"])
        station.close()
        self.wait_for_station("7", lambda one: one["connection"] == "left")
        self.wall.close()
        self.studio.close()
        self.serve()
        self.wait_for_state(lambda state: state["stations"])
        self.assertEqual(self.station("7")["picture"]["n"], 2)
        answer = self.get("/api/stations/7/pictures/2/preview?w=512")
        self.assertEqual((answer.status, answer.body), (200, jpeg_of("2 512")))


class Acts(WallCase):
    def test_all_shoot_and_the_spread_is_told_to_everybody(self):
        self.serve()
        self.acting("1", "2", "7")

        async def run(page):
            await page.kind("state")
            answer = await self.beside(self.post, "/api/shoot")
            told = await page.until(lambda one: one.get("release"))
            return answer, told

        answer, told = self.listen(run, token="viewer")
        release = answer.json["release"]
        self.assertEqual((release["asked"], release["done"]), (3, 3))
        self.assertLess(release["seconds"], 5.0)
        self.assertRegex(release["words"], r"^3 of 3 stations, within \d+ ms \(give or take \d+ ms")
        self.assertEqual(min(one["after"] for one in release["stations"].values()), 0.0)
        self.assertEqual(told["release"], release)

    def test_some_shoot_and_the_others_do_not(self):
        self.serve()
        stations = self.acting("1", "2", "7")
        release = self.post("/api/shoot", {"stations": ["1", "7"]}).json["release"]
        self.assertEqual(set(release["stations"]), {"1", "7"})
        self.assertEqual([len(one.pictures) for one in stations], [1, 0, 1])

    def test_a_station_that_refuses_says_why_and_the_others_shoot(self):
        self.serve()
        good, bad = self.acting("1", "7")
        bad.refusal = ("session_lost", "the camera has been gone for 6 seconds")
        release = self.post("/api/shoot").json["release"]
        self.assertEqual(release["done"], 1)
        told = release["stations"]["7"]
        self.assertFalse(told["ok"])
        self.assertEqual(told["error"], "the camera has been gone for 6 seconds")
        one = self.post("/api/stations/7/shoot")
        self.assertEqual((one.status, one.json["reason"]), (409, "session_lost"))

    def test_all_get_a_tag_or_say_why_not(self):
        self.serve()
        good, bad = self.acting("1", "7")
        self.assertEqual(
            self.post("/api/tag", {"tag": "a"}).json["stations"], {"1": None, "7": None}
        )
        self.assertEqual(self.state()["tag"], "a")
        bad.refusal = ("closed", "the session is closed")
        done = self.post("/api/tag", {"tag": "b"}).json["stations"]
        self.assertIsNone(done["1"])
        self.assertIn("the session is closed", done["7"])

    def test_a_setting_of_one_station_is_set_by_text_or_by_key(self):
        self.serve()
        (station,) = self.acting("7")
        path = "/api/stations/7/set"
        self.assertEqual(self.post(path, {"name": "iso", "text": "200"}).json["text"], "200")
        self.assertEqual(self.post(path, {"name": "iso", "key": 9}).json["text"], "by key")
        sent = [json.loads(one.payload) for one in station.commands if one.topic.endswith("set")]
        self.assertEqual(sent, [{"name": "iso", "text": "200"}, {"name": "iso", "key": 9}])

    def test_a_picture_is_rated_and_a_sequence_begun_and_ended_at_its_station(self):
        self.serve()
        (station,) = self.acting("7")
        path = "/api/stations/7/rate"
        self.assertEqual(self.post(path, {"n": 2, "rating": 3}).json["file"], "2.JPG")
        path, wanted = "/api/stations/7/sequence", {"kind": "interval", "count": 3, "every": 0.5}
        self.assertEqual(self.post(path, wanted).json["sequence"]["of"], 3)
        self.assertIsNone(self.post(path, {"kind": "stop"}).json["sequence"])
        sent = [(one.topic.rsplit("/", 1)[1], one) for one in station.commands]
        sent = {name: json.loads(one.payload) for name, one in sent if name != "enter"}
        since = sent["sequence"].pop("since")
        self.assertLess(since["after"], DEADLINE)
        rated = {"n": 2, "rating": 3}  # a label that is not named stays
        self.assertEqual(sent, {"rate": rated, "sequence": wanted, "stop": {}})
        station.refusal = ("refused", "a sequence is running")
        refused = self.post(path, wanted)
        self.assertEqual((refused.status, refused.json["reason"]), (409, "refused"))
        self.assertIn("a sequence is running", refused.json["error"])

    def test_what_cannot_be_meant_is_refused(self):
        self.serve()
        self.acting("7")
        for path, body in (
            ("/api/shoot", {"stations": []}),
            ("/api/shoot", {"stations": ["9"]}),
            ("/api/shoot", {"stations": ["7", "7"]}),
            ("/api/shoot", {"stations": "7"}),
            ("/api/shoot", {"more": 1}),
            ("/api/tag", {}),
            ("/api/tag", {"tag": "a" * 201}),
            ("/api/stations/7/set", {"name": "iso"}),
            ("/api/stations/7/set", {"name": "nothing", "text": "1"}),
            ("/api/stations/7/rate", {"n": 2}),
            ("/api/stations/7/rate", {"n": 2, "rating": 6}),
            ("/api/stations/7/sequence", {}),
            ("/api/stations/7/sequence", {"kind": "interval", "count": 0, "every": 1}),
        ):
            with self.subTest(path=path, body=body):
                self.assertEqual(self.post(path, body).status, 400)
        self.assertEqual(self.post("/api/stations/9/shoot").status, 404)
        self.assertEqual(self.get("/api/stations/7/pictures/x").status, 404)


class PassedOn(WallCase):
    """What a station's own server tells; here one that the test plays."""

    def play(self, path, status, body, headers=()):
        """The station answers so below this path."""
        server = self.station_7.server
        inner = server.answer

        def answer(request):
            if request.path.startswith(path):
                return server._send(request, status, body, headers)
            return inner(request)

        patch = mock.patch.object(server, "answer", answer)
        patch.start()
        self.addCleanup(patch.stop)

    def setUp(self):
        super().setUp()
        self.serve()
        (self.station_7,) = self.acting("7")
        wait_until(lambda: self.station_7.server.tokens, "the station knows the studio")

    def test_the_state_says_what_one_may_do_at_the_desk(self):
        told = {"v": 1, "kind": "state", "n": 3, "role": "viewer", "may": ["rate"], "camera": "A"}
        told["offer"] = {"iso": ["800", "400"]}
        self.play("/api/state", 200, json.dumps(told).encode())
        state = self.get("/api/stations/7/state").json
        may = ["set", "shoot", "tag", "rate", "sequence"]
        own = {"role": "operator", "may": may, "offer": None}
        self.assertEqual(state, {**told, **own})
        state = self.get("/api/stations/7/state", token="viewer").json
        self.assertEqual((state["role"], state["may"]), ("viewer", []))

    def test_records_and_parts_of_pictures_come_from_the_station(self):
        self.station_7.shot()
        self.station_7.picture(b"0123456789")
        self.assertEqual(self.get("/api/stations/7/ledger").json, self.station_7.ledger)
        part = self.get("/api/stations/7/pictures/2", headers={"Range": "bytes=4-"})
        self.assertEqual((part.status, part.body), (206, b"456789"))
        self.assertEqual(part.headers["Content-Range"], "bytes 4-9/10")
        self.assertEqual(self.get("/api/stations/7/pictures/9").status, 404)

    def test_what_a_station_says_that_it_sends_is_not_believed(self):
        kind = {"Content-Type": "text/html", "Set-Cookie": "a=b", "ETag": "anything"}
        self.play("/api/pictures", 200, b"<script>", kind)
        answer = self.get("/api/stations/7/pictures/1")
        self.assertEqual(answer.headers["Content-Type"], "application/octet-stream")
        self.assertIsNone(answer.headers["Set-Cookie"])
        self.assertIsNone(answer.headers["ETag"])

    def test_an_answer_that_leads_elsewhere_is_not_followed(self):
        self.play("/api/", 302, b"", {"Location": "http://127.0.0.1:%d/" % self.wall.port})
        for path in ("state", "ledger", "pictures/1", "pictures/1/preview"):
            with self.subTest(path=path):
                self.assertEqual(self.get("/api/stations/7/" + path).status, 504)

    def test_rubbish_and_too_much_are_said_to_be_no_answer(self):
        self.play("/api/state", 200, b"[1, 2")
        self.assertEqual(self.get("/api/stations/7/state").status, 504)
        with mock.patch.object(relay, "LONGEST_ANSWER", 100):
            self.play("/api/state", 200, json.dumps({"a": "b" * 200}).encode())
            self.assertEqual(self.get("/api/stations/7/state").status, 504)

    def test_a_station_that_is_gone_is_said_to_give_no_answer(self):
        self.station_7.kill()
        self.wait_for_station("7", lambda one: not one["online"])
        answer = self.get("/api/stations/7/state")
        self.assertEqual((answer.status, answer.json["reason"]), (504, "no_answer"))

    def test_a_station_that_has_forgotten_the_studio_is_told_its_token_again(self):
        self.play("/api/state", 401, b"{}")
        self.station_7.server.tokens.clear()
        self.assertEqual(self.get("/api/stations/7/state").status, 503)
        wait_until(lambda: self.station_7.server.tokens, "the token", DEADLINE)


if __name__ == "__main__":
    unittest.main()
