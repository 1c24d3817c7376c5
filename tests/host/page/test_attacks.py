"""What the page does with those who do not ask as they should."""

import contextlib
import os
import socket
import time
import unittest
from http.client import HTTPConnection
from unittest import mock

import aiohttp
from lumatie_host.page import gate, guard, live, routes, server
from page_support import DEADLINE, PageCase, read_all
from timing import timed, within
from virtual_cameras import wait_until


class Origins(PageCase):
    def test_exactly_one_host_that_is_known_is_answered(self):
        self.serve()
        get = "GET /api/state HTTP/1.1"
        port = self.server.port
        known = ["127.0.0.1:%d" % port, "localhost:%d" % port, "[::1]:%d" % port]
        for name in [*known, known[1].upper()]:
            with self.subTest(host=name):
                self.assertEqual(self.raw_status(get, "Host: " + name, token=self.operator), 200)
        strange = ["evil.example:%d" % port, "127.0.0.1", "127.0.0.1:1", "", ":%d" % port]
        strange += ["127.0.0.1:%d.evil.example" % port, "evil.example@127.0.0.1:%d" % port]
        strange += ["127.0.0.1:0%d" % port, "0.0.0.0:%d" % port, "127.1:%d" % port]
        for name in strange:
            with self.subTest(host=name):
                self.assertEqual(self.raw_status(get, "Host: " + name, token=self.operator), 400)

    def test_the_port_may_be_left_out_where_browsers_do(self):
        self.serve()
        get = "GET /api/state HTTP/1.1"
        self.server.guard._port = 80
        for name in ("127.0.0.1", "localhost", "[::1]", "127.0.0.1:80"):
            lines = [get, "Host: " + name, "Origin: http://" + name]
            self.assertEqual(self.raw_status(*lines, token=self.operator), 200, name)
        for name in ("evil.example", "127.0.0.1:8080", "127.0.0.1:", ""):
            self.assertEqual(self.raw_status(get, "Host: " + name, token=self.operator), 400, name)

    def test_no_host_or_two_of_them_are_refused(self):
        self.serve()
        get = "GET / HTTP/1.1"
        self.assertEqual(self.raw_status(get), 400)
        self.assertEqual(self.raw_status("GET / HTTP/1.0"), 400)
        self.assertEqual(self.raw_status(get, self.host_line, self.host_line), 400)
        self.assertEqual(self.raw_status(get, self.host_line, "Host: evil.example"), 400)
        evil = "GET http://evil.example/api/state HTTP/1.1"
        self.assertEqual(self.raw_status(evil, "Host: evil.example", token=self.operator), 400)

    def test_another_name_of_this_machine_is_strange_unless_the_network_is_let_in(self):
        self.serve()
        name = "Host: %s:%d" % (socket.gethostname(), self.server.port)
        self.assertEqual(self.raw_status("GET / HTTP/1.1", name), 400)
        self.server.close()
        self.serve(is_open=True)
        name = "Host: %s:%d" % (socket.gethostname(), self.server.port)
        self.assertEqual(self.raw_status("GET / HTTP/1.1", name), 200)
        evil = "Host: evil.example:%d" % self.server.port
        self.assertEqual(self.raw_status("GET / HTTP/1.1", evil), 400)

    def test_nothing_but_this_machine_is_listened_to_unless_asked_for(self):
        self.serve()
        self.assertEqual(self.server.socket.getsockname()[0], "127.0.0.1")

    def test_pages_of_others_may_neither_ask_nor_listen(self):
        self.serve()
        own = "http://127.0.0.1:%d" % self.server.port
        for origin in ("http://evil.example", "null", "http://127.0.0.1:1", "https" + own[4:]):
            with self.subTest(origin=origin):
                self.assertEqual(self.get("/api/state", headers={"Origin": origin}).status, 403)
                self.assertEqual(self.post("/api/enter", headers={"Origin": origin}).status, 403)
        self.assertEqual(self.get("/api/state", headers={"Origin": own}).status, 200)
        for site in ("cross-site", "same-site"):
            headers = {"Sec-Fetch-Site": site}
            self.assertEqual(self.get("/api/state", headers=headers).status, 403)
            self.assertEqual(self.get("/", headers=headers).status, 200)

    def test_a_socket_of_another_page_is_refused(self):
        self.serve()

        async def refused(client):
            with self.assertRaises(aiohttp.WSServerHandshakeError) as caught:
                await self.live(client, headers={"Origin": "http://evil.example"})
            self.assertEqual(caught.exception.status, 403)

        self.run_async(refused)


class Paths(PageCase):
    def test_no_way_leads_out_of_the_pages_own_files(self):
        self.serve()
        ways = ["/static/../server.py", "/static/%2e%2e/server.py", "/static/..%2fserver.py"]
        ways += ["/static/%2e%2e%2fserver.py", "/static//etc/passwd", "/static/%2fetc%2fpasswd"]
        ways += ["/../../../etc/passwd", "/static/..%5cserver.py", "/static/c:%5cwindows%5cwin.ini"]
        ways += ["/static/index.html%00.js", "/static/index.html%0a", "/static/.", "/static/"]
        ways += ["/static/index.html/", "/static/%c0%ae%c0%ae/server.py", "/static/con.js"]
        ways += ["/static/elements", "/static/" + "a" * 5000 + ".js", "/static/....//server.py"]
        for way in ways:
            with self.subTest(way=way[:60]):
                status = self.raw_status("GET %s HTTP/1.1" % way, self.host_line)
                self.assertIn(status, (400, 404))
        self.assertEqual(self.get("/static/index.html", token=None).status, 200)

    def test_a_record_of_a_file_outside_of_the_folder_brings_nothing(self):
        secret = os.path.join(self.base, "secret.jpg")
        with open(secret, "wb") as file:
            file.write(b"secret")
        self.serve_open()
        names = ["../secret.jpg", secret, "a/../../secret.jpg", "a\0.jpg", "/etc/passwd"]
        numbers = [
            self.record(
                "picture",
                file=name,
                size=6,
                sha256="a" * 64,
                shot=0,
                origin="body",
                format="JPEG",
            )
            for name in names
        ]
        for n, name in zip(numbers, names):
            with self.subTest(name=name):
                self.assertEqual(self.get("/api/pictures/%d" % n).status, 404)
                self.assertEqual(self.get("/api/pictures/%d/preview" % n).status, 404)
        self.assertEqual(self.post("/api/rate", {"file": names[0], "rating": 1}).status, 404)

    @unittest.skipUnless(hasattr(os, "mkfifo"), "this system has no pipes in folders")
    def test_a_link_out_of_the_folder_and_a_pipe_bring_nothing_and_hold_nobody_up(self):
        secret = os.path.join(self.base, "secret.jpg")
        with open(secret, "wb") as file:
            file.write(b"secret")
        os.symlink(secret, os.path.join(self.folder, "link.jpg"))
        os.symlink(self.base, os.path.join(self.folder, "way"))
        pipe = os.path.join(self.folder, "pipe.jpg")
        os.mkfifo(pipe)
        self.addCleanup(self.end_waiting, pipe)
        self.serve_open()
        for name, size in (("link.jpg", 6), ("way/secret.jpg", 6), ("pipe.jpg", 0)):
            with self.subTest(name=name):
                n = self.record(
                    "picture",
                    file=name,
                    size=size,
                    sha256="a" * 64,
                    shot=0,
                    origin="body",
                    format="JPEG",
                )
                self.assertEqual(self.get("/api/pictures/%d" % n).status, 404)
                self.assertEqual(self.get("/api/pictures/%d/preview" % n).status, 404)

    @staticmethod
    def end_waiting(pipe):
        """Lets go whoever waits for a pipe's other end."""
        with contextlib.suppress(OSError):
            os.close(os.open(pipe, os.O_WRONLY | os.O_NONBLOCK))

    def test_a_hash_that_is_none_never_becomes_a_header(self):
        self.serve_open()
        with open(os.path.join(self.folder, "a.jpg"), "wb") as file:
            file.write(b"a")
        n = self.record(
            "picture",
            file="a.jpg",
            size=1,
            sha256='a"\r\nX: y',
            shot=0,
            origin="body",
            format="JPEG",
        )
        self.assertEqual(self.get("/api/pictures/%d" % n).status, 404)


class Sizes(PageCase):
    def test_a_body_that_is_too_large_is_refused_before_it_is_read(self):
        self.serve()
        body = b'{"tag": "' + b"a" * 70_000 + b'"}'
        self.assertEqual(self.ask("POST", "/api/tag", body).status, 413)
        lines = ["POST /api/tag HTTP/1.1", self.host_line, "Content-Length: 99999999999"]
        self.assertEqual(self.raw_status(*lines, token=self.operator), 413)

    def test_a_body_in_pieces_without_an_end_is_refused_as_well(self):
        self.serve()
        lines = ["POST /api/tag HTTP/1.1", self.host_line, "Transfer-Encoding: chunked"]
        connection = self.raw(*lines, token=self.operator)
        piece = b"4000\r\n" + b"a" * 0x4000 + b"\r\n"
        with contextlib.suppress(ConnectionError):
            for _ in range(10):
                connection.sendall(piece)
        self.assertIn(b" 413 ", read_all(connection).split(b"\r\n")[0])

    def test_heads_that_are_too_large_are_refused(self):
        self.serve()
        lines = ["GET / HTTP/1.1", self.host_line]
        self.assertEqual(self.raw_status(*lines, "X: " + "a" * 20_000), 400)
        self.assertEqual(self.raw_status("GET /%s HTTP/1.1" % ("a" * 20_000), self.host_line), 400)

    def test_what_is_no_request_at_all_is_answered_with_an_error_and_the_end(self):
        self.serve()
        for junk in (b"\x16\x03\x01\x02\x00\x01\x00", b"\0" * 100, b"GET / HTTP/9.9\r\n\r\n"):
            connection = self.connect()
            connection.sendall(junk + b"\r\n\r\n")
            answer = read_all(connection)
            self.assertTrue(answer == b"" or b" 400 " in answer.split(b"\r\n")[0], answer[:80])
        self.assertEqual(self.get("/api/state").status, 200)

    def test_requests_that_mean_two_things_are_refused(self):
        self.serve()
        lines = ["POST /api/tag HTTP/1.1", self.host_line]
        both = ["Content-Length: 4", "Transfer-Encoding: chunked"]
        self.assertEqual(self.raw_status(*lines, *both, token=self.operator), 400)
        two = ["Content-Length: 4", "Content-Length: 5"]
        self.assertEqual(self.raw_status(*lines, *two, token=self.operator), 400)

    def test_too_many_requests_are_told_so_and_later_ones_are_answered(self):
        self.serve()
        with mock.patch.object(guard, "_ACTS", (5, 0.0)):  # however slowly these come
            statuses = [self.post("/api/tag", {"tag": "a"}).status for _ in range(12)]
            self.assertEqual(statuses, [200] * 5 + [429] * 7)
            self.assertEqual(self.get("/api/state").status, 200)
            for budget in self.server.guard._budgets.values():
                budget._rate = 2.0
            wait_until(
                lambda: self.post("/api/tag", {"tag": "b"}).status == 200,
                lambda: "the page answers again",
            )


class Slow(PageCase):
    @timed
    def test_a_head_that_never_ends_is_not_waited_for(self):
        with mock.patch.object(gate, "HEAD_PATIENCE", 0.5):
            self.serve()
            end = time.monotonic() + 3
            with within(3):
                silent, dripping = self.connect(), self.connect()
                dripping.sendall(b"GET / HTTP/1.1\r\n")
                with contextlib.suppress(ConnectionError):
                    while time.monotonic() < end:
                        dripping.sendall(b"X-a: b\r\n")
                        time.sleep(0.05)  # the pace of the drops
                self.assertEqual(read_all(silent, 3), b"")
                self.assertEqual(read_all(dripping, 3), b"")

    def test_who_has_shown_a_token_may_be_silent_for_longer(self):
        with mock.patch.object(gate, "HEAD_PATIENCE", 0.3):
            self.serve()
            known = HTTPConnection("127.0.0.1", self.server.port, timeout=DEADLINE)
            self.addCleanup(known.close)
            known.request("GET", "/api/state", headers={"Authorization": "Bearer " + self.viewer})
            known.getresponse().read()
            first = known.sock
            self.assertEqual(read_all(self.connect()), b"")  # a stranger's time is over
            known.request("GET", "/", headers={})
            self.assertEqual(known.getresponse().status, 200)
            self.assertIs(known.sock, first)

    def test_a_body_that_never_ends_is_not_waited_for(self):
        with mock.patch("lumatie_host.page.fields.BODY_PATIENCE", 0.3):
            self.serve()
            lines = ["POST /api/tag HTTP/1.1", self.host_line, "Content-Length: 10"]
            self.assertEqual(self.raw_status(*lines, token=self.operator), 408)

    def test_who_takes_nothing_of_an_answer_loses_the_connection(self):
        with mock.patch.object(gate, "WRITE_PATIENCE", 0.5):
            self.serve_open()
            path = os.path.join(self.folder, "large.bin")
            with open(path, "wb") as file:
                file.truncate(24 << 20)
            n = self.record(
                "picture",
                file="large.bin",
                size=24 << 20,
                sha256="b" * 64,
                shot=0,
                origin="body",
                format="OTHER",
            )
            get = "GET /api/pictures/%d HTTP/1.1" % n
            connection = self.raw(get, self.host_line, token=self.operator)
            connection.recv(100)
            wait_until(lambda: not len(self.server.gates), lambda: "the connection is gone")
            with contextlib.suppress(ConnectionError):
                self.assertLess(len(read_all(connection)), 24 << 20)

    def test_strangers_make_room_for_whoever_has_a_token(self):
        with mock.patch.object(gate, "MOST", 50):
            self.serve()
            connections = [self.connect() for _ in range(200)]
            self.assertEqual(self.get("/api/state").status, 200)
            self.assertLessEqual(len(self.server.gates), 50)
            for connection in connections:
                connection.close()

    @timed
    def test_more_connections_than_there_are_places_leave_the_page_usable(self):
        self.serve_open()
        connections = []
        for _ in range(700):
            connections.append(socket.create_connection(("127.0.0.1", self.server.port)))
        try:
            with within(5):
                self.assertEqual(self.get("/api/state").status, 200)
                self.assertEqual(self.post("/api/shoot").status, 200)
        finally:
            for connection in connections:
                connection.close()


# Frames whose rest may still come: a ping finds out.
UNFINISHED = (b"\x81\xfe\xff", b"\x81\xff" + b"\xff" * 8 + b"\0" * 4)


class Frames(PageCase):
    def close_code(self, send):
        async def run(client):
            page = await self.live(client)
            await page.kind("state")
            await send(page.socket)
            return await page.end()

        return self.run_async(run)

    def test_whatever_is_not_a_wish_for_records_ends_the_socket(self):
        self.serve()
        texts = ["", "{}", "[]", "null", '{"since":-1}', '{"since":"1"}', '{"since":1,"a":2}']
        texts += ['{"since":1e3}', '{"since":true}', "x", "[" * 500, '{"kind":"shoot"}']
        for text in texts:
            with self.subTest(text=text[:30]):

                async def send(page, text=text):
                    await page.send_str(text)

                self.assertEqual(self.close_code(send), 1008)
        self.assertEqual(self.close_code(lambda page: page.send_bytes(b'{"since":1}')), 1008)
        self.assertEqual(self.close_code(lambda page: page.send_str("a" * 5000)), 1009)

    def test_who_asks_for_records_all_the_time_is_sent_away(self):
        self.serve()

        async def send(page):
            with contextlib.suppress(ConnectionError):
                for _ in range(100):
                    await page.send_str('{"since":0}')

        self.assertEqual(self.close_code(send), 1008)

    def test_malformed_frames_end_one_socket_and_no_other(self):
        self.serve()
        handshake = ["GET /api/live HTTP/1.1", self.host_line, "Upgrade: websocket"]
        handshake += ["Connection: Upgrade", "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ=="]
        handshake += ["Sec-WebSocket-Version: 13"]
        frames = [b"\xff\xff\xff\xff", b"\x81\xfe\xff", b"\x83\x80\0\0\0\0", b"\xc1\x80\0\0\0\0"]
        frames += [b"\x81\x05hello", b"\x09\x80\0\0\0\0", UNFINISHED[1]]
        frames += [b"\x88\x81\0\0\0\0\0", b"\x81\x82\0\0\0\0\xff\xfe", b"\x80\x80\0\0\0\0"]

        async def others(client):
            page = await self.live(client)
            await page.kind("state")
            for frame in frames:
                await self.beside(self.send_frame, handshake, frame)
            await self.beside(self.post, "/api/tag", {"tag": "still here"})
            await page.kind("status", tag="still here")

        self.run_async(others)

    def send_frame(self, handshake, frame):
        with contextlib.closing(
            self.raw(*handshake, token=self.operator, close=False)
        ) as connection:
            self.assertIn(b" 101 ", connection.recv(4096))
            connection.sendall(frame)
            if frame in UNFINISHED:
                return
            read_all(connection)

    def test_no_more_sockets_than_a_page_can_serve(self):
        self.serve()

        async def run(client):
            pages = [await self.live(client) for _ in range(5)]
            with self.assertRaises(aiohttp.WSServerHandshakeError) as caught:
                await self.live(client)
            self.assertEqual(caught.exception.status, 429)
            await pages[0].socket.close()
            page = await self.live(client)
            await page.kind("state")

        with mock.patch.object(routes, "MOST_SOCKETS", 5):
            self.run_async(run)

    def test_a_request_that_is_no_handshake_is_refused(self):
        self.serve()
        self.assertEqual(self.get("/api/live").status, 400)

    def test_constants_are_as_they_are_described(self):
        self.assertEqual((live.HEARTBEAT, server.PORT, guard.LARGEST_BODY), (20.0, 8466, 65536))


if __name__ == "__main__":
    unittest.main()
