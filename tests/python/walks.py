"""Walks of all that a page's own router knows, with each token and with none."""

from answers import Asking
from lumatie_host.page.guard import HEADERS

METHODS = ("GET", "HEAD", "POST", "PUT", "DELETE", "PATCH", "OPTIONS", "TRACE", "PROPFIND")
STRANGE = (None, "f" * 32)


class Walks(Asking):
    """What a test case of rights inherits; its `begin` starts the page."""

    BODIES = {}  # what each path is asked with, so that it would answer something else
    ACTING = ()  # the routes that act
    SECRET = b""  # what no stranger is told
    STRANGE_STATES = STRANGE  # tokens that are none, for the state
    FEWEST = 0  # routes

    def routes(self):
        """Method, path and name of all that the application itself answers."""
        found = []
        parts = {"{n}": "1", "{station}": "7", "{name}": "main.js"}
        for route in self.page.app.router.routes():
            path = route.resource.canonical
            for part, value in parts.items():
                path = path.replace(part, value)
            found.append((route.method, path, "%s %s" % (route.method, route.resource.canonical)))
        self.assertGreater(len(found), self.FEWEST)
        return found

    def walk(self, token="operator"):
        """The name of each route, and its answer."""
        for method, path, name in self.routes():
            with self.subTest(route=name):
                yield name, self.ask(method, path, self.BODIES.get(path), token=token)

    def test_without_a_token_of_this_page_nothing_but_its_own_files_is_told(self):
        self.begin()
        for method, path, name in self.routes():
            for token in self.STRANGE_STATES if name == "GET /api/state" else STRANGE:
                with self.subTest(route=name, token=token):
                    answer = self.ask(method, path, self.BODIES.get(path), token=token)
                    if path.startswith("/api"):
                        self.assertEqual(answer.status, 401)
                        self.assertNotIn(self.SECRET, answer.body)
                    else:
                        self.assertEqual(answer.status, 200)

    def test_a_viewer_looks_and_does_nothing(self):
        self.begin()
        before = self.done()
        for name, answer in self.walk("viewer"):
            if name in self.ACTING:
                self.assertEqual(answer.status, 403)
            else:
                self.assertNotIn(answer.status, (401, 403))
        self.assertEqual(self.done(), before)
        self.assertEqual(self.state(token="viewer")["may"], [])

    def test_who_works_the_page_may_do_all_of_it(self):
        self.begin()
        for _, answer in self.walk():
            self.assertNotIn(answer.status, (401, 403, 405, 500))

    def test_every_other_method_is_refused_and_needs_a_token_first(self):
        self.begin()
        known = {(method, path) for method, path, _ in self.routes()}
        for path in sorted({path for _, path in known}):
            for method in METHODS:
                if (method, path) in known:
                    continue
                with self.subTest(method=method, path=path):
                    self.assertEqual(self.ask(method, path).status, 405)
                    if path.startswith("/api"):
                        self.assertEqual(self.ask(method, path, token=None).status, 401)

    def assert_keeps_others_out(self, answers):
        for answer in answers:
            for name, value in HEADERS.items():
                self.assertEqual(answer.headers[name], value)
