"""Very many places, in little memory."""

import sys
import unittest

from lumatie_host.places import Places


class PlacesTest(unittest.TestCase):
    def test_each_of_many_texts_is_found(self):
        places = Places()
        for number in range(5000):
            places.add("text %d" % number, number)
        self.assertEqual(len(places), 5000)
        for number in range(5000):
            self.assertEqual(places.of("text %d" % number), [number])
        self.assertEqual(places.of("text 5000"), [])

    def test_a_text_may_have_several_places_in_their_order(self):
        places = Places()
        for offset in (7, 9, 8):
            places.add("a", offset)
            places.add("b %d" % offset, offset)
        self.assertEqual(places.of("a"), [7, 9, 8])

    def test_what_was_forgotten_is_not_found(self):
        places = Places()
        places.add("a", 1)
        places.clear()
        self.assertEqual((len(places), places.of("a")), (0, []))

    def test_a_place_takes_few_bytes(self):
        places = Places()
        for number in range(100_000):
            places.add("x" * 64 + str(number), number)
        self.assertLess(sum(map(sys.getsizeof, vars(places).values())), 35 * 100_000)


if __name__ == "__main__":
    unittest.main()
