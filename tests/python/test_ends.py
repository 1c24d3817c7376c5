"""Ends of Canon sessions that meet each other, and the exit."""

import unittest

from end_support import BLOCK_AND_DROP, BLOCK_AND_END, END_EACH_OTHER, EndTests
from exit_support import ExitTestCase, StuckTestCase


class Ends(EndTests, ExitTestCase):
    repeats = 8
    opens = " EdsSetPropertyEventHandler("
    slow = """
def slow_pictures():
    configure(b"picture.size = 300000\\ntransfer.rate = 1")

def begin_download():
    tether.Shoot()
    wait_for_call(b"EdsSetProgressCallback")

"""


# Two cameras with a session each.
TWO_CAMERAS = """
configure(b"[camera 1]\\ncamera.name = Second")
infos = info, "Second"
"""


class EndsInsideCallables(ExitTestCase):
    """Callables that end sessions of others."""

    repeats = 8

    def test_two_sessions_whose_callables_end_both_do_not_wait_for_each_other(self):
        for end in self.assert_ends(TWO_CAMERAS + END_EACH_OTHER):
            self.assertEqual(end.log.count(" EdsCloseSession("), 2, end.log)
            self.assertEqual(end.log.count(" EdsTerminateSDK("), 1, end.log)


class StuckEnds(StuckTestCase):
    hosts = {
        "drop": (BLOCK_AND_DROP, 0),
        "end": (BLOCK_AND_END, 0),
    }

    def test_a_callable_that_blocks_while_the_object_is_dropped_is_given_up(self):
        self.assert_given_up("drop")

    def test_a_callable_that_blocks_while_its_session_is_ended_is_given_up(self):
        self.assert_given_up("end")


if __name__ == "__main__":
    unittest.main()
