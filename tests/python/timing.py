"""Bounds of time, on machines that have other things to do as well."""

import contextlib
import functools
import time

TRIES = 3


class TooSlow(AssertionError):
    """Something took longer than it may."""


@contextlib.contextmanager
def within(seconds):
    """Raises TooSlow when what is inside takes that long."""
    begun = time.monotonic()
    yield
    check_took(time.monotonic() - begun, seconds)


def check_took(took, seconds):
    """Raises TooSlow when something took that many seconds."""
    if took >= seconds:
        raise TooSlow("it took %.2f s, and may take less than %g" % (took, seconds))


def timed(test):
    """Decorates a test that uses `within`: it fails when it is too slow in each of three tries.

    Each try has a set-up of its own. What is wrong in another way fails at once.
    """

    @functools.wraps(test)
    def tried(self):
        for _ in range(TRIES - 1):
            try:
                return test(self)
            except TooSlow:
                self.tearDown()
                self.doCleanups()
                self.setUp()
        return test(self)

    return tried
