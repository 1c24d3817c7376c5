"""The clock that ages and releases are told by."""

import unittest

from lumatie_host.studio import clock


class Clock(unittest.TestCase):
    def test_moments_of_half_a_millisecond_are_told_apart(self):
        steps = []
        before = clock.now()
        while len(steps) < 20:
            moment = clock.now()
            if moment != before:
                steps.append(moment - before)
            before = moment
        self.assertGreater(min(steps), 0.0)
        self.assertLess(min(steps), 0.0005)


if __name__ == "__main__":
    unittest.main()
