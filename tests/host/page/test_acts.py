"""What the operator does through the page, and what comes back."""

import os
import threading
import unittest
from unittest import mock

import lumatie_host
from lumatie_host import NoAnswer, sidecar
from lumatie_host.page import acts, desk, routes
from page_support import PageCase
from timing import timed, within
from virtual_cameras import wait_until


class Acts(PageCase):
    def test_a_setting_is_answered_with_what_the_camera_has_confirmed(self):
        self.serve_open()
        answer = self.post("/api/set", {"name": "aperture", "text": "f/8"})
        self.assertEqual(answer.json, {"v": 1, "name": "aperture", "text": "8"})
        settings = {one["name"]: one for one in self.state()["settings"]}
        self.assertEqual(settings["aperture"]["text"], "8")
        key = next(c["key"] for c in settings["iso"]["choices"] if c["text"] == "1600")
        answer = self.post("/api/set", {"name": "iso", "key": key})
        self.assertEqual(answer.json["text"], "1600")

    def test_a_picture_that_was_answered_is_there_for_whoever_asks_next(self):
        self.serve_open()
        # The page learns of it at its next look only.
        with mock.patch.object(self.server._feed, "wake"):
            picture = self.post("/api/shoot").json["pictures"][0]
            self.assertEqual(self.state()["pictures"], 1)
            self.assertEqual(self.get("/api/pictures/%d" % picture["n"]).status, 200)
        with mock.patch.object(routes, "TOLD_WITHIN", 0.0), mock.patch.object(
            self.server._feed, "wake"
        ):
            picture = self.post("/api/shoot").json["pictures"][0]
        rated = self.post("/api/rate", {"n": picture["n"], "rating": 3})
        self.assertEqual(rated.status, 200, rated)

    def test_what_the_camera_refuses_is_a_conflict_and_silence_a_timeout(self):
        self.serve_open()
        refused = self.post("/api/set", {"name": "iso", "text": "123"})
        self.assertEqual((refused.status, refused.json["reason"]), (409, "refused"))
        fixed = self.post("/api/set", {"name": "quality", "text": "RAW"})
        self.assertEqual((fixed.status, fixed.json["reason"]), (409, "not_settable"))
        self.camera.sleep()
        silent = self.post("/api/shoot", {"timeout": 0.5})
        self.camera.sleep(False)
        self.assertEqual((silent.status, silent.json["reason"]), (504, "no_answer"))

    def test_requests_that_cannot_be_meant_are_told_what_is_wrong(self):
        self.serve_open()
        wrong = {
            "/api/set": [
                {}, {"name": "iso"}, {"text": "100"}, {"name": "zoom", "text": "1"},
                {"name": "iso", "text": 100}, {"name": "iso", "text": "1", "key": 1},
                {"name": "iso", "key": "1"}, {"name": "iso", "key": True},
                {"name": "iso", "key": 1.5}, {"name": "iso", "key": 10**30},
                {"name": "iso", "text": "1", "more": 1},
                {"name": "iso", "text": "a" * 2000}, {"name": None, "text": "1"},
            ],
            "/api/shoot": [{"pair": 1}, {"timeout": "1"}, {"timeout": -1}, {"timeout": 1e9}],
            "/api/rate": [
                {"rating": 1}, {"n": 1}, {"n": 1, "file": "a", "rating": 1}, {"n": 1, "rating": 6},
                {"n": 1, "rating": -1}, {"n": 1, "rating": 2.5}, {"n": "1", "rating": 2},
                {"n": 1, "rating": 2, "label": 3}, {"n": 1, "rating": 2, "label": "a" * 100},
            ],
            "/api/tag": [{}, {"tag": 1}, {"tag": "a" * 300}, {"tag": "\ud800"}, {"tag": "a\0b"}],
            "/api/sequence": [
                {}, {"kind": "x"}, {"kind": "interval"},
                {"kind": "interval", "count": 0, "every": 1},
                {"kind": "interval", "count": 1, "every": -1},
                {"kind": "interval", "count": 1e9, "every": 1},
                {"kind": "bracket", "setting": "zoom"}, {"kind": "bracket", "frames": 4},
                {"kind": "bracket", "values": []}, {"kind": "bracket", "values": [1]},
                {"kind": "bracket", "values": "1/60"}, {"kind": "stop", "count": 1},
                {"kind": "bracket", "frames": 3, "values": ["1/60"]},
            ],
            "/api/open": [{"folder": 1}, {"folder": ""}, {"more": 1}],
            "/api/enter": [{"a": 1}],
        }  # fmt: skip
        for path, bodies in wrong.items():
            for body in bodies:
                with self.subTest(path=path, body=body):
                    answer = self.post(path, body)
                    self.assertEqual(answer.status, 400, answer)
                    self.assertEqual(answer.json["reason"], "bad_request")
        for body in (b"[]", b"1", b"null", b"{", b"\xff", b"[" * 30000, b'"a"',
                     b'{"tag":NaN}', b'{"tag":"a","tag":"b"}'):  # fmt: skip
            self.assertEqual(self.ask("POST", "/api/tag", body).status, 400, body[:20])
        endless = self.ask("POST", "/api/shoot", b'{"timeout":1e999}')
        self.assertEqual((endless.status, endless.json["error"]), (400, "the request is no JSON"))
        for query in ("since=-1", "since=x", "since=1e3", "limit=0", "since=" + "9" * 30):
            self.assertEqual(self.get("/api/ledger?" + query).status, 400, query)
        self.assertEqual(self.state()["shots"], 0)

    def test_the_ledger_is_told_from_any_number_on(self):
        self.serve_open()
        self.shoot()
        records = self.ledger()
        self.assertEqual(self.get("/api/ledger").json, records)
        self.assertEqual(self.get("/api/ledger?since=0").json, records)
        self.assertEqual(self.get("/api/ledger?since=5").json, records[5:])
        self.assertEqual(self.get("/api/ledger?since=2&limit=3").json, records[2:5])
        self.assertEqual(self.get("/api/ledger?since=99999").json, [])

    def test_a_rating_is_in_the_sidecar_the_ledger_and_the_state(self):
        self.serve_open()
        picture = self.shoot()
        answer = self.post("/api/rate", {"n": picture["n"], "rating": 3, "label": "Red"})
        told = {"v": 1, "file": picture["file"], "rating": 3, "label": "Red"}
        self.assertEqual(answer.json, told)
        self.wait_for_state(
            lambda state: state["ratings"] == {picture["file"]: {"rating": 3, "label": "Red"}}
        )
        self.assertTrue(any(name.endswith(".xmp") for name in os.listdir(self.folder)))
        answer = self.post("/api/rate", {"file": picture["file"], "rating": 0})
        self.assertEqual(answer.json, {**told, "rating": 0})  # a label that is not named stays
        path = os.path.join(self.folder, picture["file"])
        self.assertEqual((sidecar.read(path).rating, sidecar.read(path).label), (0, "Red"))
        answer = self.post("/api/rate", {"file": picture["file"], "rating": 1, "label": ""})
        self.assertEqual((answer.json["label"], sidecar.read(path).label), ("", None))
        self.assertEqual(self.post("/api/rate", {"n": 99999, "rating": 0}).status, 404)
        self.assertEqual(self.post("/api/rate", {"file": "x", "rating": 0}).status, 404)

    def test_a_tag_is_in_the_next_name(self):
        self.serve({"name": "{tag}_{n:03}"})
        self.assertEqual(self.post("/api/tag", {"tag": "before"}).json["tag"], "before")
        self.wait_for_connection("open")
        answer = self.post("/api/tag", {"tag": "a/<b>"})
        self.assertEqual(answer.json["next_name"], "a__b__001.JPG")
        self.assertEqual(self.shoot()["file"], "a__b__001.JPG")

    def test_names_with_markup_are_told_as_they_are_and_never_as_markup(self):
        self.serve_open(wanted={"job": "<script>alert(1)</script>"})
        answer = self.get("/api/state")
        self.assertEqual(answer.json["job"], "<script>alert(1)</script>")
        self.assertEqual(answer.headers["Content-Type"], "application/json; charset=utf-8")
        self.assertEqual(answer.headers["X-Content-Type-Options"], "nosniff")
        problem = self.post("/api/set", {"name": "<img src=x>", "text": "1"})
        self.assertEqual(problem.headers["Content-Type"], "application/json; charset=utf-8")

    def test_too_much_at_once_is_told_so_and_does_not_hold_up_those_who_look(self):
        self.serve_open()
        hold = threading.Event()
        self.addCleanup(hold.set)
        session = self.server.desk.session
        with mock.patch.object(session, "shoot", lambda **fields: hold.wait(20)):
            threads = [
                threading.Thread(target=self.post, args=("/api/shoot",), daemon=True)
                for _ in range(acts.MOST)
            ]
            for thread in threads:
                thread.start()
            wait_until(
                lambda: self.server._routes._acts._count == acts.MOST,
                lambda: "all of them wait: %d" % self.server._routes._acts._count,
            )
            self.assertEqual(self.post("/api/shoot").status, 429)
            self.assertEqual(self.get("/api/state").status, 200)
            hold.set()
            for thread in threads:
                thread.join(20)


class SequencesOfShots(PageCase):
    def wait_for_end(self):
        state = self.wait_for_state(
            lambda state: state["sequence"] and not state["sequence"]["running"]
        )
        return state["sequence"]

    def test_an_interval_shoots_its_frames_and_tells_how_far_it_is(self):
        self.serve_open()
        answer = self.post("/api/sequence", {"kind": "interval", "count": 3, "every": 0.3})
        self.assertEqual(answer.json["sequence"]["of"], 3)
        self.assertTrue(answer.json["sequence"]["running"])
        self.assertEqual(self.wait_for_end()["frame"], 3)
        self.wait_for_state(lambda state: state["shots"] == 3)

    def test_it_is_the_only_one_and_is_stopped_before_its_next_frame(self):
        self.serve_open()
        self.post("/api/sequence", {"kind": "interval", "count": 100, "every": 60})
        state = self.wait_for_state(lambda state: state["sequence"]["frame"] == 1)
        self.assertLessEqual(state["sequence"]["next"], 60)
        busy = self.post("/api/sequence", {"kind": "interval", "count": 3, "every": 1})
        self.assertEqual((busy.status, busy.json["reason"]), (409, "running"))
        self.assertEqual(self.post("/api/sequence", {"kind": "stop"}).status, 200)
        ended = self.wait_for_end()
        self.assertEqual((ended["frame"], ended["stopped"], ended["error"]), (1, True, None))
        self.assertIsNone(ended["next"])

    def test_a_bracket_sets_its_setting_back(self):
        self.serve_open()
        body = {"kind": "bracket", "setting": "shutter", "values": ["1/60", "1/125", "1/250"]}
        self.assertEqual(self.post("/api/sequence", body).status, 200)
        self.assertEqual(self.wait_for_end()["frame"], 3)
        shutters = [one["settings"]["shutter"] for one in self.ledger("picture")]
        self.assertEqual(shutters, ["1/60", "1/125", "1/250"])
        settings = {one["name"]: one["text"] for one in self.state()["settings"]}
        self.assertEqual(settings["shutter"], "1/125")
        body = {"kind": "bracket", "setting": "iso", "frames": 3, "steps": 1}
        self.assertEqual(self.post("/api/sequence", body).status, 200)
        self.assertEqual(self.wait_for_end()["of"], 3)

    def test_what_cannot_be_bracketed_is_a_conflict(self):
        self.serve_open()
        body = {"kind": "bracket", "setting": "quality"}
        self.assertEqual(self.post("/api/sequence", body).json["reason"], "not_settable")
        body = {"kind": "bracket", "values": ["1/7", "1/8"]}
        self.assertEqual(self.post("/api/sequence", body).json["reason"], "refused")
        self.assertIsNone(self.state()["sequence"])

    def test_a_frame_that_fails_ends_it_and_says_why(self):
        self.serve_open()
        session = self.server.desk.session
        with mock.patch.object(session, "shoot", side_effect=NoAnswer(1.0, "take a picture")):
            self.post("/api/sequence", {"kind": "interval", "count": 3, "every": 0})
            ended = self.wait_for_end()
        self.assertIn("frame 1 failed", ended["error"]["text"])
        self.assertTrue(ended["error"]["advice"])


class FirstUse(PageCase):
    def waiting(self):
        return self.wait_for_state(lambda state: state["connection"] == "waiting")

    def test_without_a_camera_it_is_looked_for_until_it_is_there(self):
        self.camera.remove()
        with mock.patch.object(desk, "AGAIN_EVERY", 0.2):
            self.serve()
            state = self.waiting()
            self.assertEqual(state["error"]["reason"], "camera_not_found")
            self.assertEqual(state["words"], 'No camera "Virtual EOS" was found.')
            self.assertIn("Switch the camera on", state["advice"])
            self.assertEqual((state["settings"], state["picture"]), ([], None))
            answer = self.post("/api/shoot")
            self.assertEqual((answer.status, answer.json["reason"]), (409, "camera_not_found"))
            self.camera.add("Virtual EOS")
            self.wait_for_connection("open")
            self.assertIsNone(self.state()["error"])

    def test_without_its_folder_it_waits_and_takes_another_one(self):
        with mock.patch.object(desk, "AGAIN_EVERY", 60):
            self.serve({"folder": os.path.join(self.base, "nowhere")})
            state = self.waiting()
            self.assertEqual(state["error"]["reason"], "folder_rejected")
            self.assertIn("no such folder", state["words"])
            self.assertEqual(self.get("/api/ledger").json, [])
            answer = self.post("/api/open", {"folder": self.folder})
            self.assertEqual(answer.status, 200, answer)
            self.wait_for_connection("open")
            self.assertEqual(self.state()["folder"], self.folder)
            self.shoot()

    def test_another_folder_takes_the_place_of_one_whose_pictures_can_only_be_read(self):
        long = os.path.join(self.base, "a" * (215 - len(self.base)))
        os.makedirs(long)
        lumatie_host.Ledger(long).append("alarm", what="of the long folder", advice="b")
        self.serve({"folder": long})
        state = self.wait_for_state(lambda one: one["error"] is not None and one["n"] == 1)
        self.assertIn("too long", state["error"]["text"])
        self.assertEqual(state["error"]["asks"], "folder")

        async def run(client):
            page = await self.live(client)
            await page.kind("state", n=1)
            await self.beside(self.post, "/api/open", {"folder": self.folder})
            await page.kind("state", folder=self.folder)

        self.run_async(run)
        self.wait_for_connection("open")
        picture = self.shoot()
        self.assertEqual(self.get("/api/pictures/%d" % picture["n"]).status, 200)
        self.assertEqual(self.get("/api/ledger").json, self.ledger())

    def test_the_folder_stays_when_that_of_the_copies_is_in_the_way(self):
        file = os.path.join(self.base, "file")
        with open(file, "wb"):
            pass
        self.serve({"copy": file})
        state = self.wait_for_state(lambda one: one["error"] is not None)
        self.assertEqual(state["error"]["reason"], "folder_rejected")
        self.assertNotIn("asks", state["error"])
        self.assertEqual(self.post("/api/open", {"folder": self.base}).status, 409)
        self.assertEqual(self.state()["folder"], self.folder)

    def test_a_folder_that_is_in_nobodys_way_stays(self):
        self.serve_open()
        answer = self.post("/api/open", {"folder": self.base})
        self.assertEqual(answer.status, 409)
        self.assertEqual(self.state()["folder"], self.folder)
        self.assertEqual(self.post("/api/open", {}).json["connection"], "open")

    def test_a_wrong_library_is_tried_again_only_when_somebody_says_so(self):
        library = os.path.join(self.base, "libEDSDK.so")
        with open(library, "wb") as file:
            file.write(b"no library")
        with mock.patch.object(desk, "AGAIN_EVERY", 0.05):
            self.serve({"virtual": None, "camera": "EOS", "canon_library": library})
            state = self.waiting()
            self.assertIn(state["error"]["reason"], ("library_missing", "library_unfit"))
            with mock.patch.object(desk.sessions, "open", side_effect=desk.Closed) as opened:
                self.get("/api/state")
                self.assertFalse(self.server.desk._wake.wait(0.5))
                self.assertEqual(opened.call_count, 0)
                self.post("/api/open", {})
                wait_until(lambda: opened.call_count > 0, lambda: "it is tried again")

    def test_the_camera_is_opened_again_when_its_session_ends_by_itself(self):
        with mock.patch.object(desk, "AGAIN_EVERY", 0.05):
            self.serve_open()
            first = self.state()["session"]
            self.server.desk.session.close()
            self.wait_for_state(
                lambda state: state["connection"] == "open" and state["session"] != first
            )


class End(PageCase):
    def close(self):
        with within(2.0):
            self.server.close()
        self.assertTrue(self.server.wait(0))

    @timed
    def test_it_ends_within_two_seconds_while_the_camera_owes_a_picture(self):
        self.serve_open()
        self.camera.sleep()
        answers = []
        shooting = threading.Thread(target=lambda: answers.append(self.post("/api/shoot")))
        shooting.start()
        wait_until(lambda: self.ledger("shot"), lambda: "the shot is asked for")
        self.close()
        shooting.join(20)
        self.assertEqual((answers[0].status, answers[0].json["reason"]), (409, "closed"))

    @timed
    def test_it_ends_within_two_seconds_without_a_camera_and_while_one_is_opened(self):
        self.camera.remove()
        self.serve()
        self.wait_for_connection("waiting")
        self.close()
        self.serve()
        self.close()

    @timed
    def test_it_ends_within_two_seconds_with_a_sequence_that_waits(self):
        self.serve_open()
        self.post("/api/sequence", {"kind": "interval", "count": 100, "every": 60})
        self.wait_for_state(lambda state: state["sequence"]["frame"] == 1)
        self.close()

    @timed
    def test_to_close_it_twice_does_nothing_more(self):
        self.serve_open()
        self.close()
        self.close()


class Nikon(PageCase):
    maker = "nikon"

    def test_the_page_works_with_a_nikon_camera(self):
        self.serve_open()
        picture = self.shoot()
        self.assertEqual(self.state()["maker"], "nikon")
        self.assertEqual(self.get("/api/pictures/%d/preview" % picture["n"]).status, 200)
        answer = self.post("/api/set", {"name": "iso", "text": "800"})
        self.assertEqual((answer.status, answer.json["text"]), (200, "800"), answer)


if __name__ == "__main__":
    unittest.main()
