"""Ends of Nikon sessions that meet each other, and the exit."""

import unittest

from end_support import BLOCK_AND_DROP, BLOCK_AND_END, END_EACH_OTHER, EndTests
from exit_support import NIKON, ExitTestCase, StuckTestCase
from support import CAMERA_NAME
from test_nikon_exit import LEFT_OPEN


class Ends(EndTests, ExitTestCase):
    maker = NIKON
    repeats = 6
    opens = " Open(module#0, 0x1) = 0 "
    slow = """
def slow_pictures():
    configure(b"picture.size = 300000\\ntransfer.rate = 1\\ntransfer.chunk = 10000")

def begin_download():
    steer("PressShutter", 0)
    wait_for_call(b"CapStart")

"""


# A session of each maker.
BOTH_MAKERS = "infos = info, {!r}\n".format(CAMERA_NAME)


class EndsInsideCallables(ExitTestCase):
    """Callables that end sessions of others."""

    maker = NIKON
    repeats = 6

    def test_sessions_of_both_makers_whose_callables_end_both_do_not_wait_for_each_other(self):
        ends = self.assert_ends(BOTH_MAKERS + END_EACH_OTHER)
        self.assert_closed(ends)
        for end in ends:
            self.assertEqual(end.log.count(" EdsCloseSession("), 1, end.log)
            self.assertEqual(end.log.count(" EdsTerminateSDK("), 1, end.log)


class StuckEnds(StuckTestCase):
    maker = NIKON
    hosts = {
        "drop": (BLOCK_AND_DROP, 0),
        "end": (BLOCK_AND_END, 0),
    }

    def test_a_callable_that_blocks_while_the_object_is_dropped_is_given_up(self):
        self.assert_given_up("drop", stderr=LEFT_OPEN + "module#0 source#1\n")

    def test_a_callable_that_blocks_while_its_session_is_ended_is_given_up(self):
        self.assert_given_up("end", stderr=LEFT_OPEN + "module#0 source#1\n")


if __name__ == "__main__":
    unittest.main()
