"""What the tests of Nikon sessions stand on: the virtual driver module and a case that uses it."""

import ctypes

from support import NIKON_MODULE, Steering, TetherTestCase, wait_until

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


class VirtualNikon(Steering):
    """The steering interface of the virtual driver module (virtual/VirtualNikon.h).

    It holds the module loaded, so that its state outlives sessions. "Functions" are the names of
    commands: "Open", "CapGet", ...
    """

    def __init__(self):
        super().__init__(MODULE, "VirtualNikon")
        for name in ("Value", "PictureValue", "PictureBytes"):
            self._function(name).restype = ctypes.c_int64
        self._function("PictureBytes").argtypes = [ctypes.c_int, ctypes.c_void_p, ctypes.c_int64]
        self._function("AddItem").argtypes = [
            ctypes.c_int,
            ctypes.c_uint32,
            ctypes.c_int,
            ctypes.c_uint32,
            ctypes.c_char_p,
            ctypes.c_int64,
        ]

    def set_value(self, capability, value, camera=0):
        """Moves an enumeration to a position counted from 0, as on the body."""
        self._do("SetValue", camera, ctypes.c_uint32(capability), ctypes.c_uint32(value))

    def value(self, capability, camera=0):
        """The position of an enumeration, counted from 0."""
        return self._function("Value")(camera, ctypes.c_uint32(capability))

    def texts(self, capability, camera=0):
        """An enumeration's texts or numbers."""
        return self._text("Texts", camera, ctypes.c_uint32(capability)).splitlines()

    def set_texts(self, capability, texts, camera=0):
        """Replaces an enumeration's texts."""
        lines = "\n".join(texts).encode()
        self._do("SetTexts", camera, ctypes.c_uint32(capability), lines)

    def release_completions(self):
        """Lets the commands complete that were told never to; returns how many."""
        return self._function("ReleaseCompletions")()

    def wait_for_delivered(self, count=1, deadline=20.0):
        """Waits until at least `count` pictures were taken over whole."""
        self._wait("WaitForDelivered", count, deadline=deadline)

    def has_pictures(self, count, deadline):
        """Whether at least `count` pictures were made before the deadline."""
        return bool(self._function("WaitForPictures")(count, int(deadline * 1000)))

    def add_item(self, content, file_type=JPEG, data_types=IMAGE, row_bytes=0, camera=0):
        """Puts an item with this content on the camera; returns the picture's number."""
        size = len(content)
        number = self._function("AddItem")(camera, data_types, file_type, row_bytes, content, size)
        assert number >= 0, self._text("LastError")
        return number

    def remove_item(self, picture):
        """Erases a picture on its camera."""
        self._do("RemoveItem", picture)

    def listed(self, camera=0):
        """How many items the camera lists."""
        return self._function("ItemCount")(camera)

    def pictures(self):
        """The pictures made since the reset, see VirtualNikon.h for the fields."""
        return self.picture_fields(
            *"shot camera origin type size listed announced opened started delivered".split()
        )

    def open_objects(self):
        """The objects that the application has open."""
        return self._text("OpenObjects").splitlines()


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
