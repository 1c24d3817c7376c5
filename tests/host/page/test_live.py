"""What the page's sockets tell, in which order, and that none of them waits for another."""

import asyncio
import socket
import threading
import time
import unittest
from unittest import mock

from lumatie_host import Ledger
from lumatie_host.page import desk, live, routes
from page_support import DEADLINE, PageCase
from virtual_cameras import wait_until


class Sockets(PageCase):
    def test_a_socket_tells_the_whole_state_first_and_then_each_record_as_it_is(self):
        self.serve_open()

        async def run(client):
            page = await self.live(client, "viewer")
            first = await page.next()
            self.assertEqual((first["kind"], first["role"]), ("state", "viewer"))
            before = first["n"]
            await self.beside(self.shoot)
            await page.kind("picture")
            await page.kind("preview")
            return before, [told for told in page.seen if "time" in told]

        before, records = self.run_async(run)
        self.assertEqual(records, [one for one in self.ledger() if one["n"] > before])
        self.assertEqual([one["kind"] for one in records], ["shot", "picture"])

    def test_a_socket_that_names_its_last_number_gets_the_rest_without_gaps(self):
        self.serve_open()
        for _ in range(3):
            self.shoot()

        async def run(client):
            page = await self.live(client, since=2)
            state = await page.kind("state")
            await page.kind("picture", n=state["n"])
            await page.socket.send_str('{"since": 4}')
            await self.beside(self.shoot)
            await page.kind("preview", n=state["n"] + 2)
            return state["n"], [told["n"] for told in page.seen if "time" in told]

        last, numbers = self.run_async(run)
        self.assertEqual(numbers[: last - 2], list(range(3, last + 1)))
        self.assertEqual(sorted(numbers[last - 2 :]), [*range(5, last + 1), last + 1, last + 2])

    def test_what_changes_without_a_record_is_told_once_and_alone(self):
        self.serve_open()

        async def run(client):
            page = await self.live(client)
            await page.kind("state")
            await self.beside(self.post, "/api/tag", {"tag": "A7"})
            told = await page.kind("status", tag="A7")
            self.assertLessEqual(set(told), {"v", "kind", "n", "tag", "next_name", "disk"})
            await self.beside(self.post, "/api/tag", {"tag": "A8"})
            await page.kind("status", tag="A8")
            self.assertEqual(sum("tag" in one for one in page.seen[1:]), 2)

        self.run_async(run)

    def test_every_message_has_a_number(self):
        self.serve_open()

        async def run(client):
            page = await self.live(client)
            await self.beside(self.post, "/api/set", {"name": "iso", "text": "800"})
            await self.beside(self.shoot)
            await page.kind("preview")
            for told in page.seen:
                self.assertIs(type(told["n"]), int)

        self.run_async(run)

    def test_viewers_are_counted(self):
        self.serve()

        async def run(client):
            page = await self.live(client)
            viewer = await self.live(client, "viewer")
            await page.kind("status", viewers=1)
            await viewer.socket.close()
            await page.kind("status", viewers=0)

        self.run_async(run)

    def test_a_cable_that_is_pulled_and_put_back_is_told(self):
        self.serve_open()

        async def run(client):
            page = await self.live(client)
            await page.kind("state", connection="open")
            self.camera.unplug()
            with mock.patch.object(live, "HEARTBEAT", 5):
                answer = await self.beside(self.post, "/api/shoot", {"timeout": 1})
                self.assertIn(answer.status, (409, 504), answer)
                answer = await self.beside(self.post, "/api/shoot", {"timeout": 1})
            await page.each(
                lambda one: one["kind"] == "lost",
                lambda one: one.get("connection") in ("lost", "reopening")
                and "Virtual EOS" in one["words"],
            )
            answer = await self.beside(self.post, "/api/set", {"name": "iso", "text": "200"})
            self.assertEqual((answer.status, answer.json["reason"]), (409, "session_lost"))
            self.camera.plug()
            await page.each(
                lambda one: one["kind"] == "back",
                lambda one: one["kind"] == "status" and one.get("connection") == "open",
            )

        self.run_async(run)

    def test_settings_that_differ_after_a_return_are_offered_and_can_be_set_back(self):
        self.serve_open()
        n = self.record("back", after=1.0, differences={"iso": ["800", "400"], "mode": ["P", "M"]})
        self.assertEqual(self.state()["n"], n)
        # The mode is set on the camera alone, so there is nothing to offer.
        self.assertEqual(self.state()["offer"], {"iso": ["800", "400"]})
        self.post("/api/set", {"name": "iso", "text": "800"})
        self.wait_for_state(lambda state: state["offer"] is None)
        self.record("back", after=1.0, differences={"iso": ["100", "800"]})
        self.assertEqual(self.state()["offer"], {"iso": ["100", "800"]})
        self.post("/api/set", {"name": "iso", "text": "800"})
        self.assertIsNone(self.state()["offer"])

    def test_what_was_in_the_folder_before_is_waited_for_and_told_whole(self):
        numbers = [Ledger(self.folder).append("alarm", what="a", advice="b").n for _ in range(5)]
        may_read = threading.Event()
        self.addCleanup(may_read.set)

        def ledger_of(folder):
            may_read.wait(DEADLINE)
            return Ledger(folder)

        with mock.patch.object(desk, "Ledger", ledger_of), mock.patch.object(
            routes, "TOLD_WITHIN", DEADLINE
        ):
            self.serve()

            async def run(client):
                answers = [
                    asyncio.ensure_future(self.beside(self.get, path))
                    for path in ("/api/state", "/api/ledger?since=0")
                ]
                page = asyncio.ensure_future(self.first_message(client))
                asked = [*answers, page]
                await self.beside(
                    wait_until,
                    lambda: self.busy() + sum(one.done() for one in asked) >= len(asked),
                    lambda: "all have asked",
                )
                may_read.set()
                return [(await one).json for one in answers], await page

            (state, records), first = self.run_async(run)
        self.assertGreaterEqual(state["n"], numbers[-1])
        self.assertEqual([one["n"] for one in records[:5]], numbers)
        self.assertEqual(first["kind"], "state")
        self.assertGreaterEqual(first["n"], numbers[-1])

    async def first_message(self, client):
        page = await self.live(client)
        return await page.next()

    def busy(self):
        """How many requests have come and are not answered."""
        return sum(gate.is_busy for gate in list(self.server.gates._open))


class Slow(PageCase):
    def test_a_viewer_who_takes_nothing_delays_nobody_and_is_told_what_it_missed(self):
        self.serve_open()
        handshake = ["GET /api/live HTTP/1.1", self.host_line, "Upgrade: websocket"]
        handshake += ["Connection: Upgrade", "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ=="]
        handshake += ["Sec-WebSocket-Version: 13", "Authorization: Bearer " + self.viewer, "", ""]
        stuck = socket.socket()
        self.addCleanup(stuck.close)
        stuck.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        stuck.connect(("127.0.0.1", self.server.port))
        stuck.sendall("\r\n".join(handshake).encode())
        stuck.settimeout(DEADLINE)
        self.assertIn(b" 101 ", stuck.recv(200))

        async def run(client):
            page = await self.live(client, "viewer")
            await page.kind("state")
            for index in range(80):
                n = await self.beside(self.append, index)
                begun = time.monotonic()
                await page.kind("alarm", n=n)
                # It would be for ever: the other one never takes anything.
                self.assertLess(time.monotonic() - begun, DEADLINE / 2)

        with mock.patch.object(live, "LIMIT", 20), mock.patch("lumatie_host.ledger.os.fsync"):
            self.run_async(run)
        received = b""
        while b'"lagged"' not in received:
            block = stuck.recv(1 << 20)
            self.assertTrue(block, "it is told that it lagged")
            received = received[-20:] + block

    def append(self, index):
        event = self.server.desk.ledger.append("alarm", what="x" * 200_000, advice=str(index))
        self.server.desk._on_news()
        return event.n

    def test_who_lagged_is_told_the_numbers_and_the_state_anew(self):
        hub = live.Hub(lambda role: {"kind": "state", "n": 9}, lambda: 9, None, lambda: None)

        async def run():
            client = live.Client(hub, "viewer")
            hub.add(client)
            for n in range(1, 7):
                hub.tell_record({"n": n, "kind": "alarm"})
            hub.tell({"kind": "status"})
            return [message.text for message in client._queue]

        with mock.patch.object(live, "LIMIT", 5):
            told = asyncio.run(run())
        self.assertEqual(
            told,
            [
                '{"n":9,"kind":"lagged","first":1,"last":6}',
                '{"kind":"state","n":9}',
                '{"n":9,"kind":"status"}',
            ],
        )

    def test_one_that_is_gone_without_a_word_is_noticed(self):
        with mock.patch.object(live, "HEARTBEAT", 0.4):
            self.serve()

            async def run(client):
                await self.live(client, "viewer", autoping=False)
                await self.beside(
                    wait_until,
                    lambda: self.state()["viewers"] == 1,
                    lambda: "it is counted",
                )
                # It is read no more, so no ping is answered.
                await self.beside(
                    wait_until,
                    lambda: self.state()["viewers"] == 0,
                    lambda: "it is given up",
                )

            self.run_async(run)


if __name__ == "__main__":
    unittest.main()
