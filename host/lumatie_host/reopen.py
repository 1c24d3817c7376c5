"""Decides when a camera is lost, and when to try again: a state machine without threads or waits.

What is seen is told to a `Watch`; its `poll` says what to do now. It belongs to one thread, and the
clock is given, so that hours can be tested in no time.
"""

import enum
import logging
import os
import random
from typing import Callable, Dict, FrozenSet, List, NamedTuple, Optional, Tuple

OPENING = "opening"
OPEN = "open"
SILENT = "silent"  # it may be lost
LOST = "lost"
REOPENING = "reopening"
CLOSED = "closed"

FIRST_PAUSE, LONGEST_PAUSE = 0.3, 10.0  # seconds between two attempts
SOON, SOON_PAUSE = 60.0, 3.0  # seconds after a loss, and between two attempts until then
JITTER = 0.25  # of the pause, so that several stations do not try at the same moment

SILENCE = 5.0  # seconds without a Nikon camera's report, which comes every second
DOUBT = 2.5  # seconds of it after which the state says so
BULB = 60.0  # seconds that an exposure may take whose time is not known
TRANSFER = 15.0  # seconds of silence that a picture explains besides, while none has come yet
LEARNT = 1.5  # times the longest silence that a picture has ended is no loss either
MISSES = 2  # deadlines in a row that a Canon camera misses

VENDORS = {"canon": "04a9", "nikon": "04b0"}
USB_DEVICES = "/sys/bus/usb/devices"
_STILL_IMAGE = "06"  # the class of cameras; the vendors make printers, too

# What Windows calls the interfaces of cameras: portable devices, and still images.
_CAMERA_INTERFACES = (
    "{6ac27878-a6fa-4155-ba85-f98f491d4f33}",
    "{6bdd1fc6-810f-11d0-bec7-08002be2092f}",
)

_log = logging.getLogger("lumatie_host")


class Do(enum.Enum):
    """What `poll` has decided."""

    LOSE = "lose"  # the camera is lost; `evidence` and `since` of the watch say why
    START = "start"  # try to start it; `opened` or `failed` has to follow


class Watch:
    """One camera, from its first start on.

    Args:
        maker: "canon" or "nikon".
        clock: seconds of a clock that never goes back.
        chance: a number from 0 to 1, another one each time.
    """

    def __init__(
        self,
        maker: str,
        clock: Callable[[], float],
        chance: Callable[[], float] = random.random,
    ) -> None:
        self._is_nikon = maker == "nikon"
        self._clock = clock
        self._chance = chance
        self._state = OPENING
        self._last_sign = clock()
        self._exposure = 0.0
        self._fetch_until = 0.0
        self._silence = SILENCE
        self._knows_transfers = False
        self._quality = ""
        self._missed = 0
        self._lost_at = 0.0
        self._next_try = 0.0
        self._attempts = 0
        self._departed = ""
        self._is_hopeless = False
        self.evidence: str = ""

    @property
    def state(self) -> str:
        """One of the states above; may be read on any thread."""
        return self._state

    @property
    def since(self) -> float:
        """Seconds since the last sign of life."""
        return max(0.0, self._clock() - self._last_sign)

    @property
    def away(self) -> float:
        """Seconds since the loss; 0 while the camera is there."""
        return self._clock() - self._lost_at if self._state in (LOST, REOPENING) else 0.0

    def sign(self, is_picture: bool = False) -> None:
        """The camera lives: an event came, maybe that of a picture.

        The next picture's transfer may take as long as this one's, and nothing else tells of it.
        """
        if is_picture:
            self._fetch_until = 0.0
            self._learn_transfer()
        self._last_sign = self._clock()
        self._missed = 0
        if self._state == SILENT:
            self._state = OPEN

    def fetched(self) -> None:
        """What looked like a loss was a picture's transfer: its file is there by now."""
        if self._state in (LOST, REOPENING):
            self._learn_transfer()

    def missed(self) -> None:
        """A deadline passed, and no event came since the request."""
        self._missed += 1
        if self._state == OPEN and not self._is_nikon:
            self._state = SILENT

    def expose(self, seconds: Optional[float]) -> None:
        """The camera is set to this exposure time, so it may be silent for that long at any moment.

        None: it is not known. Noise reduction makes a camera take as long again.
        """
        self._exposure = 2 * (BULB if seconds is None else seconds)

    def fetch(self) -> None:
        """The shutter was released, and the picture's transfer makes a Nikon camera silent."""
        transfer = self._silence if self._knows_transfers else TRANSFER
        self._fetch_until = self._clock() + self._exposure + transfer

    def expect(self, quality: str) -> None:
        """The image quality of the pictures to come: of another one a transfer may take longer."""
        if quality != self._quality:
            self._quality = quality
            self._knows_transfers = False

    def departed(self, what: str) -> None:
        """The system says that the camera left."""
        self._departed = what

    def arrived(self) -> None:
        """The system says that a camera, or something that may be one, came."""
        if self._departed and self._state in (OPEN, SILENT):
            return  # the session with the one that left is over, and `poll` has not said so yet
        self._departed = ""
        if self._state in (LOST, REOPENING) and not self._is_hopeless:
            self._attempts = 0
            self._next_try = self._clock()

    def opened(self) -> None:
        """The camera answers, and its settings are complete."""
        if self._state == CLOSED:
            return
        self._state = OPEN
        self._attempts = 0
        self._departed = ""
        self.sign()

    def failed(self, why: str) -> None:
        """An attempt to start it came to nothing."""
        if self._state != REOPENING:
            return
        level = logging.WARNING if self._attempts == 1 else logging.DEBUG
        _log.log(level, "the camera is not back yet: %s", why)
        self._state = LOST
        self._next_try = self._clock() + self._pause()

    def give_up(self, why: str) -> None:
        """No further attempt can help."""
        if self._state == CLOSED:
            return
        _log.error("the camera cannot be opened again: %s", why)
        self._state = LOST
        self._is_hopeless = True

    def close(self) -> None:
        """The session ends."""
        self._state = CLOSED

    def poll(self) -> Optional[Do]:
        """What to do now; carries the state on accordingly."""
        if self._state in (OPEN, SILENT):
            evidence = self._evidence()
            if evidence:
                self.evidence = evidence
                self._state = LOST
                self._lost_at = self._clock()
                self._missed = 0
                self._attempts = 0
                self._next_try = self._clock() + self._pause()
                return Do.LOSE
            if self._is_nikon and self._left(DOUBT) <= 0:
                self._state = SILENT
        elif self._state == LOST and not self._is_hopeless and self._clock() >= self._next_try:
            self._state = REOPENING
            self._attempts += 1
            return Do.START
        return None

    def wait(self) -> Optional[float]:
        """Seconds after which `poll` may have more to say; None: not before something is told."""
        if self._state == LOST:
            return None if self._is_hopeless else max(0.0, self._next_try - self._clock())
        if self._state in (OPEN, SILENT):
            if self._departed or self._missed >= MISSES:
                return 0.0
            if self._is_nikon:
                return max(0.0, self._left(self._silence if self._state == SILENT else DOUBT))
        return None

    def _evidence(self) -> str:
        if self._departed:
            return self._departed
        if not self._is_nikon:
            return (
                "%d requests in a row were not answered" % self._missed
                if self._missed >= MISSES
                else ""
            )
        if self._left(self._silence) > 0:
            return ""
        return "no report came for %.0f seconds" % self.since

    def _left(self, limit: float) -> float:
        """Seconds until a Nikon camera's silence is as long as the limit, and unexplained."""
        now = self._clock()
        return max(self._last_sign + self._exposure + limit, self._fetch_until) - now

    def _learn_transfer(self) -> None:
        self._knows_transfers = True
        self._silence = max(self._silence, LEARNT * (self.since - self._exposure))

    def _pause(self) -> float:
        # Whoever has pulled a cable by mistake puts it back soon, and nothing may tell of that.
        longest = LONGEST_PAUSE if self.away > SOON else SOON_PAUSE
        pause = min(longest, FIRST_PAUSE * 2.0 ** min(self._attempts, 20))
        pause *= 1 + JITTER * (2 * self._chance() - 1)
        return min(longest, max(FIRST_PAUSE, pause))


class Change(NamedTuple):
    """What became different between two looks at the devices; `all_left` are those of the first."""

    came: bool
    all_left: bool


class UsbCameras:
    """A maker's cameras on this computer's USB, as Linux tells. Belongs to one thread.

    On other systems, and where they cannot be read, there is never a change.

    Args:
        maker: "canon" or "nikon".
        path: where the system lists the devices.
    """

    def __init__(self, maker: str, path: str = USB_DEVICES) -> None:
        self._vendor = VENDORS[maker]
        self._path = path
        self._kinds: Dict[Tuple[str, str], bool] = {}  # of the devices that are there: is a camera
        self._is_readable = os.path.isdir(path)
        self._present = self._look()

    @property
    def is_readable(self) -> bool:
        """Whether the devices can be looked at here."""
        return self._is_readable

    def change(self) -> Optional[Change]:
        """What has changed since the last call; None: nothing."""
        before, self._present = self._present, self._look()
        if self._present == before:
            return None
        return Change(bool(self._present - before), bool(before) and not before & self._present)

    def _look(self) -> FrozenSet[Tuple[str, str]]:
        """The cameras: name and number of the device, which is another one after each plugging."""
        try:
            names = os.listdir(self._path)
        except OSError:
            return frozenset()
        kinds: Dict[Tuple[str, str], bool] = {}
        for name in names:
            if ":" in name:
                continue
            device = (name, self._read(name, "devnum"))
            is_camera = self._kinds.get(device, False) or self._is_camera(name, names)
            kinds[device] = is_camera
        self._kinds = kinds
        return frozenset(device for device, is_camera in kinds.items() if is_camera)

    def _is_camera(self, name: str, names: List[str]) -> bool:
        if self._read(name, "idVendor") != self._vendor:
            return False
        # Interfaces are listed beside their devices: "1-2:1.0".
        return any(
            self._read(other, "bInterfaceClass") == _STILL_IMAGE
            for other in names
            if other.startswith(name + ":")
        )

    def _read(self, *parts: str) -> str:
        try:
            with open(os.path.join(self._path, *parts), encoding="ascii", errors="replace") as file:
                return file.read(100).strip().lower()
        except OSError:
            return ""


def is_camera_of(maker: str, device: str) -> bool:
    r"""Whether Windows means a maker's camera by `\\?\usb#vid_04a9&pid_3294#...#{...}`."""
    name = device.lower()
    return "vid_" + VENDORS[maker] in name and name.endswith(_CAMERA_INTERFACES)
