"""Who may ask for what, and how one becomes somebody who may."""

import io
import logging
import unittest
from unittest import mock

from lumatie_host.page import guard
from page_support import PageCase
from walks import Walks

BODIES = {
    "/api/set": {"name": "iso", "text": "200"},
    "/api/rate": {"n": 1, "rating": 1},
    "/api/tag": {"tag": "a"},
    "/api/sequence": {"kind": "stop"},
}
ACTING = {
    *("POST /api/" + name for name in ("set", "shoot", "rate", "tag", "sequence", "open")),
    *(method + path for method in ("GET", "HEAD") for path in (" /api/links", " /api/qr.svg")),
}


class Rights(Walks, PageCase):
    BODIES, ACTING, FEWEST, SECRET = BODIES, ACTING, 20, b"Virtual EOS"

    @property
    def STRANGE_STATES(self):  # noqa: N802  a constant of others
        return [None, "", "0" * 32, self.operator[:-1], self.operator + "0", "\xe4" * 32]

    def begin(self):
        self.serve_open()

    def done(self):
        told = self.state()
        return told["settings"], told["shots"], told["tag"], told["sequence"]

    def test_viewers_rate_where_that_is_allowed(self):
        self.serve_open(viewers_rate=True)
        picture = self.shoot()
        self.assertEqual(self.state(token="viewer")["may"], ["rate"])
        answer = self.post("/api/rate", {"n": picture["n"], "rating": 4}, token="viewer")
        self.assertEqual(answer.status, 200, answer)
        self.assertEqual(self.post("/api/shoot", token="viewer").status, 403)

    def test_a_state_tells_what_one_may_do(self):
        self.serve()
        self.assertEqual(self.state(token="viewer")["may"], [])
        self.assertEqual(self.state()["may"], ["set", "shoot", "rate", "tag", "sequence", "open"])

    def test_an_unknown_part_of_the_interface_is_not_there(self):
        self.serve()
        self.assertEqual(self.get("/api/nothing").status, 404)
        self.assertEqual(self.get("/api/nothing", token=None).status, 401)
        self.assertEqual(self.get("/nothing", token=None).status, 404)

    def test_a_browser_enters_with_its_links_token_and_keeps_it_in_a_cookie(self):
        self.serve()
        answer = self.post("/api/enter", token="viewer")
        self.assertEqual(answer.json, {"v": 1, "role": "viewer"})
        cookie = answer.headers["Set-Cookie"]
        name, value = cookie.split(";")[0].split("=")
        self.assertEqual(name, "lumatie-%d" % self.server.port)
        attributes = {part.strip().lower() for part in cookie.split(";")[1:]}
        self.assertEqual(attributes, {"httponly", "path=/", "samesite=strict"})
        headers = {"Cookie": "%s=%s" % (name, value)}
        self.assertEqual(self.state(token=None, headers=headers)["role"], "viewer")
        self.assertEqual(self.get("/api/links", token=None, headers=headers).status, 403)

    def test_a_form_of_another_page_cannot_act_with_the_cookie(self):
        self.serve_open()
        headers = {
            "Cookie": "lumatie-%d=%s" % (self.server.port, self.operator),
            "Content-Type": "text/plain",
        }
        self.assertEqual(
            self.post("/api/tag", {"tag": "x"}, token=None, headers=headers).status, 400
        )
        headers["Content-Type"] = "application/json"
        self.assertEqual(
            self.post("/api/tag", {"tag": "x"}, token=None, headers=headers).status, 200
        )

    def test_a_wrong_token_is_not_saved_by_a_right_cookie(self):
        self.serve()
        headers = {"Cookie": "lumatie-%d=%s" % (self.server.port, self.operator)}
        self.assertEqual(self.get("/api/state", token="0" * 32, headers=headers).status, 401)

    def test_guessing_tokens_is_slowed_down_and_does_not_lock_others_out(self):
        self.serve()
        with mock.patch.object(guard, "_LOOKS", (20, 0.0)):  # however slowly these come
            statuses = [self.get("/api/state", token="%032x" % n).status for n in range(40)]
        self.assertEqual(statuses, [401] * 20 + [429] * 20)
        self.assertEqual(self.get("/api/state").status, 200)

    def test_who_tries_all_there_is_without_a_token_is_not_told_to_wait(self):
        self.serve()
        statuses = {self.get("/api/state", token=token).status for token in [None, "0"] * 100}
        self.assertEqual(statuses, {401})

    def test_what_one_may_not_or_cannot_do_is_no_act(self):
        self.serve()
        with mock.patch.object(guard, "_ACTS", (5, 0.0)):
            statuses = [self.post("/api/shoot", token="viewer").status for _ in range(10)]
            self.assertEqual(statuses, [403] * 10)
            for role in ("viewer", "operator"):
                statuses = [self.ask("PUT", "/api/state", token=role).status for _ in range(10)]
                self.assertEqual(statuses, [405] * 10)
            self.assertEqual(self.post("/api/tag", {"tag": "a"}).status, 200)

    def test_tokens_are_neither_logged_nor_sent_on(self):
        log = io.StringIO()
        handler = logging.StreamHandler(log)
        loggers = [logging.getLogger(name) for name in ("lumatie_host", "aiohttp", "asyncio")]
        for logger in loggers:
            level = logger.level
            logger.addHandler(handler)
            logger.setLevel(logging.DEBUG)
            self.addCleanup(logger.removeHandler, handler)
            self.addCleanup(logger.setLevel, level)
        self.serve_open()
        answers = [
            self.post("/api/enter"),
            self.get("/api/state?token=" + self.operator),
            self.get("/api/live?since=" + self.operator),
            self.get("/" + self.viewer, token=None),
            self.post("/api/tag", {"tag": 1}),
            self.ask("POST", "/api/tag", b"{" + self.viewer.encode()),
        ]
        broken = ["GET / HTTP/1.1", self.host_line, "Authorization Bearer " + self.operator]
        self.assertEqual(self.raw_status(*broken), 400)
        self.assertIn("/api/enter", log.getvalue())
        self.assertNotIn(self.operator, log.getvalue())
        for answer in answers:
            self.assertEqual(answer.headers["Referrer-Policy"], "no-referrer")
            self.assertNotIn(self.operator.encode(), answer.body)

    def test_every_answer_has_the_headers_that_keep_other_pages_out(self):
        self.serve_open()
        self.shoot()
        answers = [self.ask(method, path) for method, path, _ in self.routes()]
        answers += [self.get("/api/nothing"), self.get("/api/state", token=None)]
        answers += [self.post("/api/set", {"name": "nothing"})]
        self.assert_keeps_others_out(answers)
        for answer in answers:
            self.assertEqual(answer.headers["Server"], "Lumatie")
            self.assertIsNone(answer.headers["Access-Control-Allow-Origin"])
        self.assertEqual(self.get("/api/state").headers["Cache-Control"], "no-store")

    def test_links_and_their_code_are_for_the_operator(self):
        self.serve()
        links = self.get("/api/links").json
        self.assertEqual(links["operator"], self.server.links.url + "#" + self.operator)
        self.assertEqual(links["viewer"], self.server.links.url + "#" + self.viewer)
        code = self.get("/api/qr.svg")
        self.assertEqual(code.headers["Content-Type"], "image/svg+xml")
        self.assertIn(b"<svg", code.body)

    def test_an_error_says_what_is_wrong_and_what_to_do(self):
        self.serve_open()
        problem = self.get("/api/state", token=None).json
        self.assertEqual(set(problem), {"v", "error", "advice", "reason"})
        refused = self.post("/api/set", {"name": "iso", "text": "7"})
        self.assertEqual(refused.status, 409)
        self.assertEqual(refused.json["reason"], "refused")
        self.assertIn("400", refused.json["allowed"])


class TwoPages(PageCase):
    def test_the_tokens_of_one_page_open_nothing_of_another(self):
        first = self.serve()
        token = self.operator
        other = self.serve({"folder": self.base})
        self.assertNotEqual(first.port, other.port)
        self.assertEqual(self.get("/api/state", token=token).status, 401)
        self.assertEqual(self.get("/api/state").status, 200)
        headers = {"Cookie": "lumatie-%d=%s" % (first.port, token)}
        self.assertEqual(self.get("/api/state", token=None, headers=headers).status, 401)


if __name__ == "__main__":
    unittest.main()
