"""Very many numbers, in little memory."""

import gc
import random
import tracemalloc
import unittest

from lumatie_host.studio.numbers import Numbers


class NumbersTest(unittest.TestCase):
    def test_each_is_there_once_and_no_other(self):
        chance = random.Random(5)
        wanted = {chance.randint(1, 5000) for _ in range(2000)} | {1, 1023, 1024, 2**53}
        numbers = Numbers()
        for number in [*wanted, *wanted]:
            numbers.add(number)
        self.assertEqual(len(numbers), len(wanted))
        self.assertEqual({n for n in range(1, 6000) if n in numbers} | {2**53}, wanted)
        self.assertIn(2**53, numbers)
        self.assertNotIn(2**53 - 1, numbers)

    def test_one_of_three_in_a_row_takes_a_byte(self):
        tracemalloc.start()
        self.addCleanup(tracemalloc.stop)
        numbers = Numbers()
        for number in range(1, 300_000, 3):
            numbers.add(number)
        gc.collect()
        self.assertLess(tracemalloc.get_traced_memory()[0], 100_000)
        self.assertEqual(len(numbers), 100_000)


if __name__ == "__main__":
    unittest.main()
