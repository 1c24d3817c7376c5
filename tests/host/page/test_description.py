"""That the page's description, its schema and the page itself say the same."""

import pathlib
import re
import unittest

from lumatie_host.page import state
from page_support import PageCase

REPOSITORY = pathlib.Path(__file__).resolve().parents[3]
TYPES = {
    "array": list,
    "boolean": bool,
    "integer": int,
    "null": type(None),
    "number": (int, float),
    "object": dict,
    "string": str,
}


def problems(value, schema, whole, place="$"):
    """Where a value is not as a schema of ours says: the keywords that it uses, and no others."""
    schema = dict(schema)
    schema.pop("description", None)
    if "$ref" in schema:
        name = schema["$ref"].rpartition("/")[2]
        return problems(value, whole["$defs"][name], whole, place)
    found = []
    for keyword, wanted in schema.items():
        if keyword == "anyOf":
            tried = [problems(value, one, whole, place) for one in wanted]
            found += [] if not all(tried) else min(tried, key=len)
        elif keyword == "type":
            is_flag = isinstance(value, bool) and wanted != "boolean"
            if is_flag or not isinstance(value, TYPES[wanted]):
                found.append("%s is no %s" % (place, wanted))
        elif keyword == "enum" and value not in wanted or keyword == "const" and value != wanted:
            found.append("%s is %r" % (place, value))
        elif keyword == "required" and isinstance(value, dict):
            found += ["%s.%s is missing" % (place, name) for name in wanted if name not in value]
        elif keyword == "items" and isinstance(value, list):
            for index, item in enumerate(value):
                found += problems(item, wanted, whole, "%s[%d]" % (place, index))
        elif keyword == "properties" and isinstance(value, dict):
            for name in wanted.keys() & value.keys():
                found += problems(value[name], wanted[name], whole, "%s.%s" % (place, name))
        elif keyword == "additionalProperties" and isinstance(value, dict):
            for name in value.keys() - schema.get("properties", {}).keys():
                if wanted is False:
                    found.append("%s.%s is not described" % (place, name))
                else:
                    found += problems(value[name], wanted, whole, "%s.%s" % (place, name))
    return found


class Description(PageCase):
    def setUp(self):
        super().setUp()
        self.text = (REPOSITORY / "docs" / "page.md").read_text(encoding="utf-8")

    def schema(self):
        answer = self.get("/api/schema")
        self.assertEqual(answer.headers["Content-Type"], "application/schema+json; charset=utf-8")
        return answer.json

    def check(self, value, name):
        whole = self.schema()
        self.assertEqual(problems(value, whole["$defs"][name], whole), [])

    def test_the_router_the_schema_and_the_page_have_the_same_routes(self):
        self.serve()
        rows = re.findall(r"^\| `((?:GET|POST) /api\S+)` \| (\w+) \|", self.text, re.MULTILINE)
        described = dict(rows)
        routed = {
            "%s %s" % (route.method, route.path): route.role
            for route in self.server.routes
            if route.path.startswith("/api")
        }
        schema = {name: one["role"] for name, one in self.schema()["routes"].items()}
        self.assertEqual(described, routed)
        self.assertEqual(schema, routed)
        router = {
            "%s %s" % (route.method, route.resource.canonical)
            for route in self.server.app.router.routes()
            if route.method != "HEAD" and route.resource.canonical.startswith("/api")
        }
        self.assertEqual(router, set(routed))

    def test_the_state_the_schema_and_the_page_have_the_same_fields(self):
        self.serve()
        section = self.text.partition("## The state")[2].partition("\n## ")[0]
        cells = re.findall(r"^\| (`[^|]+) \|", section, re.MULTILINE)
        described = {name for cell in cells for name in re.findall(r"`(\w+)`", cell)}
        told = self.state()
        self.assertEqual(described, set(told))
        self.assertEqual(set(self.schema()["$defs"]["State"]["properties"]), set(told))

    def test_states_are_as_the_schema_says(self):
        self.serve(wanted={"copy": self.base + "/second"}, viewers_rate=True)
        self.check(self.state(), "State")
        self.wait_for_connection("open")
        picture = self.shoot()
        self.post("/api/rate", {"n": picture["n"], "rating": 2})
        self.post("/api/sequence", {"kind": "interval", "count": 2, "every": 0.1})
        self.record("back", after=1.0, differences={"iso": ["800", "400"]})
        self.record("alarm", what="a", advice="b")
        told = self.wait_for_state(
            lambda one: one["sequence"]["frame"] == 2 and one["disk"] and one["copy"]
        )
        for name in ("offer", "alarms", "ratings", "picture", "settings"):
            self.assertTrue(told[name], name)
        self.check(told, "State")
        self.check(self.state(token="viewer"), "State")
        self.camera.remove()
        self.server.close()
        self.serve({"folder": self.base + "/nowhere"})
        self.check(self.wait_for_state(lambda one: one["error"]), "State")

    def test_answers_are_as_the_schema_says(self):
        self.serve_open()
        picture = self.shoot()
        asked = {
            "POST /api/enter": {},
            "POST /api/set": {"name": "iso", "text": "800"},
            "POST /api/shoot": {},
            "POST /api/rate": {"n": picture["n"], "rating": 1},
            "POST /api/tag": {"tag": "a"},
            "POST /api/sequence": {"kind": "stop"},
            "POST /api/open": {},
            "GET /api/links": None,
            "GET /api/ledger": None,
        }
        whole = self.schema()
        for name, body in asked.items():
            method, _, path = name.partition(" ")
            with self.subTest(route=name):
                answer = self.ask(method, path, body)
                route = whole["routes"][name]
                self.assertEqual(answer.status, 200, answer)
                self.assertEqual(problems(answer.json, route["answer"], whole), [])
                if body is not None:
                    self.assertEqual(problems(body, route["body"], whole), [])
        refused = self.post("/api/set", {"name": "iso", "text": "1"})
        for answer in (self.get("/api/nothing"), refused):
            self.check(answer.json, "Problem")

    def test_messages_are_as_the_schema_says(self):
        self.serve_open()

        async def run(client):
            page = await self.live(client)
            await page.kind("state")
            await self.beside(self.shoot)
            await page.kind("preview")
            return page.seen

        whole = self.schema()
        for told in self.run_async(run):
            answer = whole["routes"]["GET /api/live"]["answer"]
            with self.subTest(kind=told["kind"]):
                self.assertEqual(problems(told, answer, whole), [])

    def test_the_check_finds_what_is_wrong(self):
        self.serve()
        told = self.state()
        whole = self.schema()
        for change in ({"n": "1"}, {"more": 1}, {"connection": "x"}, {"viewers": True}):
            with self.subTest(change=change):
                self.assertTrue(problems({**told, **change}, whole["$defs"]["State"], whole))
        del told["words"]
        self.assertTrue(problems(told, whole["$defs"]["State"], whole))

    def test_what_cannot_be_had_is_described(self):
        self.assertIn(", ".join(state.ABSENT), self.text)


if __name__ == "__main__":
    unittest.main()
