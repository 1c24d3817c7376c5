"""What the page keeps of a shoot, and how little of it."""

import gc
import hashlib
import json
import tracemalloc
import unittest

from lumatie_host.page import book


class Book(unittest.TestCase):
    def setUp(self):
        self.book = book.Book()
        self.n = 0

    def take(self, kind, **fields):
        """A record as it is read from a file."""
        self.n += 1
        self.book.take(json.loads(json.dumps({"n": self.n, "kind": kind, **fields})))
        return self.n

    def picture(self, shot, format_="JPEG", session="0123456789abcdef"):
        about = {"shot": shot, "format": format_, "session": session, "size": 1000 * shot}
        file = "IMG_%05d.%s" % (shot, format_)
        return self.take("picture", file=file, sha256=digest_of(file), **about)

    def test_a_picture_and_its_rating_take_little_room_however_many_there_are(self):
        for shot in range(1, 3001):
            self.picture(shot)
            self.take("rated", file="IMG_%05d.JPEG" % shot, rating=3, label="Red")
        gc.collect()
        tracemalloc.start()
        self.addCleanup(tracemalloc.stop)
        for shot in range(3001, 8001):
            self.picture(shot)
            self.take("rated", file="IMG_%05d.JPEG" % shot, rating=3, label="Red")
        gc.collect()
        self.assertLess(tracemalloc.get_traced_memory()[0] / 5000, 600)
        self.assertEqual(len(self.book.ratings), book.MOST_RATINGS)
        self.assertIn("IMG_08000.JPEG", self.book.ratings)

    def test_what_is_told_of_a_picture_is_what_its_record_says(self):
        n = self.picture(7)
        file = "IMG_00007.JPEG"
        entry = book.Entry(n, file, 7000, digest_of(file), "JPEG", 7, "0123456789abcdef")
        self.assertEqual(self.book.entry(n), entry)
        self.assertEqual(self.book.of_file(file), entry)
        self.assertIsNone(self.book.entry(n + 1))

    def test_the_files_of_a_shot_know_each_other_long_afterwards(self):
        raw, jpeg = self.picture(1, "RAW"), self.picture(1)
        other = self.picture(1, session="b")
        for shot in range(2, 1000):
            self.picture(shot)
        for n in (raw, jpeg):
            found = self.book.siblings(self.book.entry(n))
            self.assertEqual([one.n for one in found], [raw, jpeg])
        self.assertEqual(self.book.siblings(self.book.entry(other)), [self.book.entry(other)])
        self.assertEqual((self.book.shots, self.book.pictures), (1000, 1001))

    def test_pictures_of_no_shot_are_each_one_of_their_own(self):
        first, second = self.picture(0), self.picture(0, "RAW")
        self.assertEqual([one.n for one in self.book.siblings(self.book.entry(first))], [first])
        self.assertEqual([one.n for one in self.book.siblings(self.book.entry(second))], [second])
        self.assertEqual(self.book.shots, 2)

    def test_what_a_shot_takes_is_counted_from_the_newest_with_all_their_files(self):
        self.picture(90)
        for shot in (10, 20):
            self.picture(shot, "RAW")
            self.picture(shot)
        self.assertEqual(self.book.mean_size(count=4), (2 * 10_000 + 2 * 20_000) // 2)


def digest_of(text):
    return hashlib.sha256(text.encode()).hexdigest()


if __name__ == "__main__":
    unittest.main()
