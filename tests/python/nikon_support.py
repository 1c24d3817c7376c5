"""What the tests of Nikon sessions stand on: the virtual driver module and a case that uses it."""

from support import NIKON_MODULE, TetherTestCase, VirtualNikon, wait_until

MODULE = str(NIKON_MODULE)

# Levels of the driver module's objects.
SOURCE = 2
ITEM = 3

# Capabilities.
EXPOSURE_MODE = 0x8111
SHUTTER_SPEED = 0x8112
APERTURE = 0x8113
SENSITIVITY = 0x8117
WHITE_BALANCE = 0x8118
LIVENESS = 0x81D7

# Positions of the mode dial.
DIAL_APERTURE = 1
DIAL_MANUAL = 3

# File types of pictures.
JPEG = 1
TIFF = 2
NEF = 4
NDF = 257
ROWS = -1

# Data types of items.
IMAGE = 1
MOVIE = 4
THUMBNAIL = 8


class NikonTestCase(TetherTestCase):
    """A fresh virtual Nikon camera for each test, beside the Canon one.

    The test fails when the driver module saw misuse, or when objects of it are left open.
    """

    def setUp(self):
        super().setUp()
        self.nikon = VirtualNikon()
        self.assertEqual(self.nikon.open_objects(), [], "an earlier test left objects open")
        self.nikon.reset()
        self.addCleanup(self._check_module)
        self.addCleanup(self._let_go)

    def start(self, host=None, folder=None, name=MODULE, wait=False):
        """Starts a session that ends with the test; returns the tether object and its host.

        With `wait`, only once the first cycle has reported everything.
        """
        tether, host = super().start(host, folder, name, wait=False)
        self.addCleanup(self._let_go)
        if wait:
            host.wait_for_event(13)
        return tether, host

    def shoot(self, tether):
        """Has a picture taken.

        A request that falls between a cycle's capture and the cycle's end is lost, so it is made
        again when no picture comes.
        """
        count = len(self.nikon.pictures()) + 1
        for _ in range(5):
            self.assertEqual(tether.Shoot(), 1)
            if self.nikon.has_pictures(count, deadline=3.0):
                return
        self.nikon.wait_for_pictures(count)

    def _let_go(self):
        self.nikon.clear_faults()
        self.nikon.release_hangs()
        self.nikon.release_completions()

    def _check_module(self):
        wait_until(lambda: not self.nikon.open_objects(), "all objects of the module closed")
        self.assertEqual(self.nikon.misuse(), [], "the module's interface was misused")

    def contents(self):
        """The contents of the files in the export folder, by name."""
        found = {}
        for name in self.files():
            with open("{}/{}".format(self.folder, name), "rb") as file:
                found[name] = file.read()
        return found
