"""Pictures and their previews, as a browser fetches them."""

import concurrent.futures
import hashlib
import io
import os
import shutil
import struct
import threading
import unittest
import zlib
from unittest import mock

from digital_negative import negative
from lumatie_host.page import book, developing, previews
from page_support import DEADLINE, PageCase
from PIL import Image
from this_process import ON_WINDOWS
from timing import timed, within
from virtual_cameras import wait_until


def jpeg(width, height, colour=(200, 40, 40), **options):
    """The bytes of a JPEG that is not all of one colour."""
    image = Image.new("RGB", (width, height), colour)
    image.paste((20, 200, 20), (0, 0, width // 2, height // 2))
    buffer = io.BytesIO()
    image.save(buffer, "JPEG", **options)
    return buffer.getvalue()


def opened(data):
    return Image.open(io.BytesIO(data))


class PictureCase(PageCase):
    def put(self, name, data, kind="JPEG", shot=0, **fields):
        """A picture as if the camera had brought it; its number."""
        path = os.path.join(self.folder, name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as file:
            file.write(data)
        fields.setdefault("sha256", hashlib.sha256(data).hexdigest())
        fields.setdefault("size", len(data))
        fields.update(file=name, shot=shot, origin="body", format=kind, session="s")
        return self.record("picture", **fields)

    def wait_for_kept(self, count):
        """The names of the previews on the disk, which may come behind their answers."""

        cache = developing.cache_of(self.folder)

        def names():
            found = os.listdir(cache) if os.path.isdir(cache) else []
            return [name for name in found if name.endswith(".jpg")]

        wait_until(lambda: len(names()) >= count, lambda: "%d previews: %s" % (count, names()))
        self.assertEqual(len(names()), count)
        return names()

    def preview(self, n, width=2048, **options):
        return self.get("/api/pictures/%d/preview?w=%s" % (n, width), **options)


class Originals(PictureCase):
    def test_a_picture_comes_as_its_file_is_and_is_kept_for_ever(self):
        self.serve_open()
        picture = self.shoot()
        answer = self.get("/api/pictures/%d?of=12345678" % picture["n"], token="viewer")
        self.assertEqual(answer.status, 200)
        self.assertEqual(hashlib.sha256(answer.body).hexdigest(), picture["sha256"])
        self.assertEqual(answer.headers["ETag"], '"%s"' % picture["sha256"])
        self.assertEqual(answer.headers["Cache-Control"], "private, max-age=31536000, immutable")
        self.assertEqual(answer.headers["Content-Type"], "image/jpeg")
        self.assertIsNone(answer.headers["Content-Disposition"])

    def test_a_download_has_the_pictures_name(self):
        self.serve_open()
        quote, told_as = ("'", "%27") if ON_WINDOWS else ('"', "%22")
        n = self.put("sub/a {0}b{0} \u00e4.jpg".format(quote), jpeg(10, 10))
        told = self.get("/api/pictures/%d?download=1" % n).headers["Content-Disposition"]
        name = "a%20{0}b{0}%20%C3%A4.jpg".format(told_as)
        self.assertEqual(told, "attachment; filename=\"a _b_ _.jpg\"; filename*=UTF-8''" + name)

    def test_a_raw_file_is_one(self):
        self.serve_open()
        n = self.put("a.CR3", b"raw" * 100, "RAW")
        self.assertEqual(self.get("/api/pictures/%d" % n).headers["Content-Type"], "image/x-raw")

    def test_parts_of_it_are_sent_as_they_are_asked_for(self):
        self.serve_open()
        data = bytes(range(256)) * 8
        n = self.put("a.bin", data, "OTHER")
        parts = {
            "bytes=0-9": (206, data[:10], "bytes 0-9/2048"),
            "bytes=2040-": (206, data[2040:], "bytes 2040-2047/2048"),
            "bytes=2040-9999": (206, data[2040:], "bytes 2040-2047/2048"),
            "bytes=-5": (206, data[-5:], "bytes 2043-2047/2048"),
            "bytes=-5000": (206, data, "bytes 0-2047/2048"),
            "bytes=5-4": (200, data, None),
            "bytes=2048-": (416, b"", "bytes */2048"),
            "bytes=-0": (416, b"", "bytes */2048"),
            "bytes=0-1,5-6": (200, data, None),
            "bytes=-": (200, data, None),
            "lines=0-1": (200, data, None),
            "bytes=99999999999999999999-": (200, data, None),
        }
        for asked, (status, body, told) in parts.items():
            with self.subTest(asked=asked):
                answer = self.get("/api/pictures/%d" % n, headers={"Range": asked})
                self.assertEqual((answer.status, answer.body), (status, body))
                self.assertEqual(answer.headers["Content-Range"], told)
        headers = {"Range": "bytes=0-9", "If-Range": '"another"'}
        self.assertEqual(self.get("/api/pictures/%d" % n, headers=headers).status, 200)

    def test_who_has_it_is_not_sent_it_again(self):
        self.serve_open()
        picture = self.shoot()
        tag = '"%s"' % picture["sha256"]
        for path in ("/api/pictures/%d", "/api/pictures/%d/preview"):
            for told in (tag, "W/" + tag, '"x", ' + tag, "*"):
                answer = self.get(path % picture["n"], headers={"If-None-Match": told})
                self.assertEqual((answer.status, answer.body), (304, b""))
                self.assertEqual(answer.headers["ETag"], tag)
            answer = self.get(path % picture["n"], headers={"If-None-Match": '"x"'})
            self.assertEqual(answer.status, 200)

    def test_head_tells_all_but_the_bytes(self):
        self.serve_open()
        picture = self.shoot()
        ways = ["/api/pictures/%d", "/api/pictures/%d/preview?w=256"]
        for path in [*(way % picture["n"] for way in ways), "/api/state"]:
            whole, head = self.get(path), self.ask("HEAD", path)
            self.assertEqual((head.status, head.body), (200, b""))
            self.assertEqual(head.headers["Content-Length"], str(len(whole.body)))
            self.assertEqual(head.headers["ETag"], whole.headers["ETag"])

    def test_a_file_that_is_not_what_was_recorded_is_not_sent(self):
        self.serve_open()
        n = self.put("a.jpg", jpeg(10, 10), size=5)
        self.assertEqual(self.get("/api/pictures/%d" % n).status, 404)
        gone = self.put("b.jpg", jpeg(10, 10))
        os.remove(os.path.join(self.folder, "b.jpg"))
        self.assertEqual(self.get("/api/pictures/%d" % gone).status, 404)

    def test_a_number_that_is_none_brings_nothing(self):
        self.serve_open()
        self.shoot()
        for n in ("0", "-1", "1.5", "x", "99999", "9" * 40, "%D9%A1", "1"):
            self.assertEqual(self.get("/api/pictures/%s" % n).status, 404, n)
            self.assertEqual(self.get("/api/pictures/%s/preview" % n).status, 404, n)


class Previews(PictureCase):
    def test_it_is_no_wider_and_no_higher_than_the_size_that_was_asked_for(self):
        self.serve_open()
        n = self.put("a.jpg", jpeg(3000, 2000))
        sizes = {1: (256, 171), 256: (256, 171), 300: (512, 341), 2048: (2048, 1365)}
        sizes[9999] = sizes[2048]
        for width, size in sizes.items():
            answer = self.preview(n, width)
            self.assertEqual(answer.headers["Content-Type"], "image/jpeg")
            self.assertEqual(opened(answer.body).size, size)
        high = self.put("b.jpg", jpeg(200, 3000, (1, 2, 3)))
        self.assertEqual(opened(self.preview(high).body).size, (137, 2048))
        small = self.put("c.jpg", jpeg(100, 50))
        self.assertEqual(opened(self.preview(small).body).size, (100, 50))
        for width in ("0", "-1", "x", "1e3", "9" * 20):
            self.assertEqual(self.preview(n, width).status, 400)

    def test_it_stands_upright_and_tells_no_secrets(self):
        self.serve_open()
        exif = Image.Exif()
        exif[0x0112] = 6
        exif[0x013B] = "somebody"
        n = self.put("a.jpg", jpeg(400, 200, exif=exif))
        image = opened(self.preview(n).body)
        self.assertEqual(image.size, (200, 400))
        self.assertEqual(dict(image.getexif()), {})
        # The green quarter was at the upper left before it was turned.
        self.assertGreater(image.getpixel((150, 50))[1], 150)
        self.assertGreater(image.getpixel((50, 350))[0], 150)

    def test_a_colour_profile_goes_with_it(self):
        self.serve_open()
        n = self.put("a.jpg", jpeg(400, 200, icc_profile=b"profile" * 10))
        self.assertEqual(opened(self.preview(n).body).info["icc_profile"], b"profile" * 10)

    def test_other_modes_of_colour_are_shown_as_well(self):
        self.serve_open()
        for mode in ("L", "CMYK"):
            buffer = io.BytesIO()
            Image.new(mode, (300, 200)).save(buffer, "JPEG")
            n = self.put("%s.jpg" % mode, buffer.getvalue())
            self.assertEqual(opened(self.preview(n).body).size, (300, 200))

    def test_it_is_made_once_and_smaller_ones_come_from_it(self):
        self.serve_open()
        n = self.put("a.jpg", jpeg(3000, 2000))
        first = self.preview(n).body
        os.remove(os.path.join(self.folder, "a.jpg"))
        self.server._previews._at_hand.clear()
        self.assertEqual(self.preview(n).body, first)
        self.assertEqual(opened(self.preview(n, 256).body).size, (256, 171))
        self.wait_for_kept(2)

    def test_those_that_were_made_last_are_at_hand_without_the_disk(self):
        self.serve_open()
        n = self.put("0.jpg", jpeg(64, 64))
        first = self.preview(n).body
        os.remove(os.path.join(self.folder, "0.jpg"))
        self.wait_for_kept(1)
        shutil.rmtree(developing.cache_of(self.folder))
        self.assertEqual(self.preview(n).body, first)
        for number in range(1, 1 + previews.AT_HAND):
            later = self.put("%d.jpg" % number, jpeg(64, 64, (30 * number, 0, 0)))
            self.assertEqual(self.preview(later).status, 200)
        self.assertEqual(self.preview(n).status, 404)

    def test_nobody_waits_for_the_disk_that_takes_it(self):
        go = threading.Event()
        self.addCleanup(go.set)
        self.serve_open()
        with mock.patch.object(developing, "keep", lambda *arguments: go.wait(DEADLINE)):
            n = self.put("a.jpg", jpeg(300, 200))
            self.assertEqual(opened(self.preview(n).body).size, (300, 200))
            self.assertFalse(go.is_set())
            go.set()

    def test_one_that_was_made_while_it_was_asked_for_does_not_wait_for_the_disk_either(self):
        go = threading.Event()
        self.addCleanup(go.set)
        with open(os.path.join(self.folder, "1.jpg"), "wb") as file:
            file.write(jpeg(300, 200))
        with mock.patch.object(developing, "keep", lambda *arguments: go.wait(DEADLINE)):
            pool = previews.Previews(workers=1)
            self.addCleanup(pool.close)
            pool.announce(developing.Source(self.folder, entry(1)))
            wait_until(lambda: pool.at_hand("%064x" % 1, 2048), lambda: "the preview")
            asked = pool.ask(developing.Source(self.folder, entry(1)), 2048)
            self.assertEqual(opened(asked.result(2.0)).size, (300, 200))
            go.set()

    def test_a_torn_one_on_the_disk_is_made_anew(self):
        self.serve_open()
        n = self.put("a.jpg", jpeg(300, 200))
        first = self.preview(n).body
        path = os.path.join(developing.cache_of(self.folder), self.wait_for_kept(1)[0])
        with open(path, "r+b") as file:
            file.truncate(len(first) // 2)
        self.server._previews._at_hand.clear()
        self.assertEqual(self.preview(n).body, first)

    def test_a_disk_that_takes_none_costs_nothing_but_time(self):
        self.serve_open()
        cache = developing.cache_of(self.folder)
        with open(cache, "w"):
            pass  # a file where the folder should be
        n = self.put("a.jpg", jpeg(300, 200))
        self.assertEqual(self.preview(n).status, 200)

    @timed
    def test_what_is_no_picture_has_none_and_does_no_harm(self):
        self.serve_open()
        good = jpeg(800, 600)
        bombs = {
            "text.jpg": b"<script>alert(1)</script>" * 10,
            "empty.jpg": b"",
            "torn.jpg": good[: len(good) // 3],
            "head.jpg": good[:20],
            "png.jpg": png(100, 100),
            "huge.jpg": resized(good, 65500, 65500),
            "large.jpg": resized(good, 20000, 20000),
            "progressive.jpg": resized(jpeg(800, 600, progressive=True), 9000, 9000),
        }
        for name, data in bombs.items():
            with within(5):
                answer = self.preview(self.put(name, data))
            self.assertEqual(answer.status, 404, (name, answer))
            self.assertIn("preview", answer.json["error"])
        self.assertEqual(self.preview(self.put("good.jpg", good)).status, 200)

    def test_a_raw_file_is_shown_by_the_jpeg_of_its_shot(self):
        self.serve_open()
        with mock.patch.object(developing, "_embedded", lambda path: None):
            raw = self.put("a.CR3", b"raw", "RAW", shot=7)
            alone = self.put("b.CR3", b"no", "RAW", shot=8)
            self.assertEqual(self.preview(raw).status, 404)
            self.put("a.JPG", jpeg(300, 200), "JPEG", shot=7)
            self.assertEqual(opened(self.preview(raw).body).size, (300, 200))
            self.assertEqual(self.preview(alone).status, 404)

    def test_a_raw_file_is_shown_by_the_jpeg_in_it_where_a_library_finds_it(self):
        self.serve_open()
        with mock.patch.object(developing, "_embedded", lambda path: jpeg(640, 480)):
            n = self.put("a.CR3", b"raw", "RAW")
            self.assertEqual(opened(self.preview(n).body).size, (640, 480))

    def test_a_raw_file_is_shown_upright_by_the_preview_in_it(self):
        self.serve_open()
        preview = jpeg(640, 400)
        # Where the quarter is that was at the upper left on the sensor.
        places = {1: (640, 400, 160, 100), 6: (400, 640, 300, 160), 8: (400, 640, 100, 480)}
        for orientation, (width, height, x, y) in places.items():
            data = negative(preview, 640, 400, orientation)
            answer = self.preview(self.put("%d.dng" % orientation, data, "RAW"))
            self.assertEqual(answer.status, 200, answer)
            image = opened(answer.body)
            self.assertEqual(image.size, (width, height))
            self.assertGreater(image.getpixel((x, y))[1], 150)
            self.assertGreater(image.getpixel((width - x, height - y))[0], 150)

    def test_a_raw_file_that_is_cut_within_its_preview_has_none(self):
        self.serve_open()
        preview = jpeg(640, 400)
        whole = negative(preview, 640, 400)
        end = whole.index(preview) + len(preview)
        for missing in (len(preview) // 2, 500, 50, 1):
            # The library has just held all of that preview in its memory.
            other = self.put("whole-%d.dng" % missing, whole + bytes(missing), "RAW")
            self.assertEqual(self.preview(other).status, 200)
            cut = self.put("cut-%d.dng" % missing, whole[: end - missing], "RAW")
            self.assertEqual(self.preview(cut).status, 404, missing)

    def test_what_is_asked_for_comes_before_what_nobody_waits_for_and_is_decoded_once(self):
        made, decoded = [], []
        begun, go = threading.Event(), threading.Event()
        keep, original = developing.keep, developing._original

        def kept(folder, sha256, width, data):
            made.append(width)
            keep(folder, sha256, width, data)

        def slow(source, width):
            begun.set()
            go.wait(DEADLINE)
            decoded.append(width)
            return original(source, width)

        with open(os.path.join(self.folder, "1.jpg"), "wb") as file:
            file.write(jpeg(3000, 2000))
        with mock.patch.multiple(developing, keep=kept, _original=slow):
            pool = previews.Previews(workers=1)
            self.addCleanup(pool.close)
            source = developing.Source(self.folder, entry(1))
            pool.announce(source)
            self.assertTrue(begun.wait(DEADLINE))
            asked = [pool.ask(source, width) for width in (256, 1024)]
            go.set()
            sizes = [opened(one.result(DEADLINE)).size for one in asked]
            wait_until(lambda: len(made) == 3, lambda: "three previews: %s" % made)
        self.assertEqual(sizes, [(256, 171), (1024, 683)])
        self.assertEqual(made, [1024, 256, 2048])
        self.assertEqual(decoded, [2048])

    def test_a_picture_that_comes_goes_before_the_rest_of_an_older_one(self):
        made = []
        go = threading.Event()
        keep = developing.keep

        def kept(folder, sha256, width, data):
            made.append((int(sha256, 16), width))
            keep(folder, sha256, width, data)
            go.wait(DEADLINE)

        for n in (1, 2):
            with open(os.path.join(self.folder, "%d.jpg" % n), "wb") as file:
                file.write(jpeg(3000, 2000, (n, n, n)))
        with mock.patch.object(developing, "keep", kept):
            pool = previews.Previews(workers=1)
            self.addCleanup(pool.close)
            older, newer = (developing.Source(self.folder, entry(n)) for n in (1, 2))
            asked = [pool.ask(older, width) for width in (256, 1024)]
            wait_until(lambda: made, lambda: "the first preview")
            pool.announce(newer)
            go.set()
            asked[1].result(DEADLINE)
            wait_until(lambda: len(made) == 3, lambda: "three previews: %s" % made)
        self.assertEqual([n for n, width in made], [1, 2, 1])

    def test_who_waits_for_the_newest_does_not_wait_for_the_others(self):
        self.serve_open()
        made = []
        go = threading.Event()
        original = developing._original

        def slow(source, width):
            go.wait(DEADLINE)
            made.append(source.entry.n)
            return original(source, width)

        with mock.patch.object(developing, "_original", slow):
            numbers = [self.put("%d.jpg" % n, jpeg(64, 64, (n, n, n))) for n in range(6)]
            with concurrent.futures.ThreadPoolExecutor(6) as pool:
                asked = [pool.submit(self.preview, n) for n in numbers]
                wait_until(
                    lambda: len(self.server._previews._waiting) >= 5,
                    lambda: "the previews are asked for: %s" % self.server._previews._waiting,
                )
                go.set()
                self.assertEqual({one.result().status for one in asked}, {200})
        # The one that was being made came first; the others by their age, the newest first.
        self.assertEqual(made[1:], sorted(made[1:], reverse=True))

    def test_the_newest_is_made_before_anybody_asks_and_told(self):
        self.serve_open()

        async def run(client):
            page = await self.live(client)
            await page.kind("state")
            n = (await self.beside(self.shoot))["n"]
            await page.kind("preview", n=n)
            self.assertEqual(len(os.listdir(developing.cache_of(self.folder))), 1)

        self.run_async(run)

    def test_too_many_wishes_are_given_up_oldest_first(self):
        with mock.patch.object(previews, "MOST_WAITING", 3):
            pool = previews.Previews(workers=0)
            self.addCleanup(pool.close)
            asked = [pool.ask(developing.Source(self.folder, entry(n)), 2048) for n in range(1, 6)]
            done = [one.done() for one in asked]
        self.assertEqual(done, [True, True, False, False, False])
        with self.assertRaises(developing.NoPreview) as caught:
            asked[0].result()
        self.assertFalse(caught.exception.is_for_good)

    def test_old_ones_are_removed_when_there_are_too_many(self):
        cache = os.path.join(self.base, "cache")
        os.mkdir(cache)
        for n in range(10):
            path = os.path.join(cache, "%d.jpg" % n)
            with open(path, "wb") as file:
                file.write(b"a" * 100)
            os.utime(path, (n + 1e9, n + 1e9))
        self.assertEqual(developing.prune(cache, most=6), 4)
        self.assertEqual(sorted(os.listdir(cache)), ["%d.jpg" % n for n in range(4, 10)])
        self.assertEqual(developing.prune(cache, most_bytes=250), 4)
        self.assertEqual(sorted(os.listdir(cache)), ["8.jpg", "9.jpg"])


def entry(n):
    return book.Entry(n, "%d.jpg" % n, 1, "%064x" % n, "JPEG", 0, "")


def png(width, height):
    """A picture of a kind that is not looked into."""

    def chunk(kind, data):
        body = kind + data
        return struct.pack(">I", len(data)) + body + struct.pack(">I", zlib.crc32(body))

    head = struct.pack(">IIBBBBB", width, height, 8, 0, 0, 0, 0)
    data = zlib.compress(b"\0" * (width + 1) * height)
    return b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", head) + chunk(b"IDAT", data) + chunk(b"IEND", b"")


def resized(data, width, height):
    """A JPEG whose head tells of another size."""
    for marker in (b"\xff\xc0", b"\xff\xc2"):
        at = data.find(marker)
        if at >= 0:
            return data[: at + 5] + struct.pack(">HH", height, width) + data[at + 9 :]
    raise AssertionError("no frame in the JPEG")


if __name__ == "__main__":
    unittest.main()
