"""Pictures: shutter to event to file, several, pairs, released by hand, long, after a pulled cable.

Asked for only. What a person has to do is asked for, or done at a virtual camera.
"""

import os
import time
from typing import Dict, List, Optional, Tuple

from .. import formats
from ..settings import Setting, seconds_of
from .heard import Camera, Picture, Target
from .pace import milliseconds
from .steering import hands_at
from .teller import Evidence, No, Teller, Unseen

_SHUTTER = 5.0  # seconds until a request is carried out, of a Nikon camera with its next report
_PICTURE = 20.0  # seconds from then to the announcement, beside the exposure
_SECOND_FILE = 15.0
_FETCHED = 60.0  # seconds for what the card holds
_WHOLE = 10.0
_PERSON = 90.0
_LONG = 2.0  # the exposure that is looked for
_CONFIRM = 5.0
_GONE = 8.0  # seconds in which a pulled cable is seen where that can be seen

_NO_PERSON = "somebody has to be at the camera: start it on a terminal, or with --ask"


class Shooting:
    """Asks the points in one session, which is opened anew after the cable was pulled."""

    def __init__(self, tell: Teller, target: Target, library: str, may_ask: bool) -> None:
        self._tell = tell
        self._target = target
        self._library = library
        self._may_ask = may_ask
        self._since = 0.0  # what is announced from then on belongs to the present picture

    def run(self) -> None:
        """Asks all points, and leaves no session open."""
        self._camera = Camera(self._target)
        self._hands = hands_at(self._library, self._target.maker)
        ask = self._tell.ask
        try:
            if (
                ask("shoot.event", self._one)
                and ask("shoot.file", self._file)
                and ask("shoot.five", self._five)
            ):
                ask("shoot.body", self._body)
                ask("shoot.long", self._long)
                ask("shoot.cable", self._cable)
                ask("shoot.pair", self._pair)
        finally:
            self._camera.close()

    # Pictures.

    def _one(self) -> Evidence:
        self._open()
        self._wait_for_card()
        announced, self._pictures = self._shoot()
        return "%s from the shutter to the announcement" % milliseconds(announced)

    def _file(self) -> Evidence:
        begun = time.monotonic()
        told = self._all_whole(self._pictures)
        return "%s; after %s" % ("; ".join(told), milliseconds(time.monotonic() - begun))

    def _five(self) -> Evidence:
        begun = time.monotonic()
        names: List[str] = []
        for number in range(1, 6):
            try:
                _, pictures = self._shoot()
                self._all_whole(pictures)
                names += [picture.path for picture in pictures]
            except No as error:
                raise No("picture %d: %s" % (number, error)) from None
        if len(set(names)) != len(names):
            raise No("two pictures have one name")
        seconds = time.monotonic() - begun
        return "%d files in %s, %.1f pictures a second" % (
            *(len(names), milliseconds(seconds)),
            5 / seconds,
        )

    def _pair(self) -> Evidence:
        if not self._camera.is_open:
            raise Unseen("see shoot.cable")
        if not self._is_pair():
            self._need("Set the picture quality to RAW and JPEG on the camera.", "choose_pair")
            if self._camera.wait(self._is_pair, _CONFIRM) is None:
                raise Unseen("the quality is %s" % self._quality())
        _, pictures = self._shoot()
        told = self._all_whole(pictures)
        extensions = sorted({os.path.splitext(picture.path)[1].lower() for picture in pictures})
        if len(pictures) < 2:
            raise No("one file came, %s" % extensions[0])
        return "; ".join(told)

    def _body(self) -> Evidence:
        self._since = time.monotonic()
        self._need("Press the shutter button on the camera, once.", "press")
        announced = self._announced(time.monotonic(), _PICTURE)
        told = self._all_whole(self._new_pictures())
        return "after %s: %s" % (milliseconds(announced), "; ".join(told))

    def _long(self) -> Evidence:
        setting = self._camera.settings.get("shutter")
        key, seconds = _longer(setting)
        old = setting.key
        assert old is not None
        self._tell.changed({"name": "shutter", "key": old})
        self._set_shutter(key)
        try:
            announced, pictures = self._shoot(seconds)
            told = self._all_whole(pictures)
        finally:
            self._set_shutter(old)
            self._tell.changed(None)
        return "of %g s: announced after %s, %s" % (
            *(seconds, milliseconds(announced)),
            "; ".join(told),
        )

    def _cable(self) -> Evidence:
        camera = self._camera
        self._need("Pull the cable out of the camera.", "unplug")
        silent = self._silence()
        camera.stop()
        self._expect_nobody()
        self._need("Put the cable back in, and wait until the camera is ready.", "plug")
        begun = time.monotonic()
        while True:
            try:
                self._open()
                break
            except No as error:
                camera.stop()
                if time.monotonic() - begun > 40.0:
                    raise No("it does not open again: %s" % error) from None
                camera.wait(lambda: False, 1.0)
        opened = time.monotonic() - begun
        self._wait_for_card()
        announced, pictures = self._shoot()
        told = self._all_whole(pictures)
        return "%s; open again after %s, a picture %s later: %s" % (
            *(silent, milliseconds(opened), milliseconds(announced)),
            "; ".join(told),
        )

    # What these are made of.

    def _open(self) -> None:
        self._camera.start()
        if self._camera.wait(lambda: self._camera.settings.is_complete, 10.0) is None:
            raise No("the settings were not told within 10 s")

    def _wait_for_card(self) -> None:
        """Waits until what the card holds was fetched: no picture is taken meanwhile.

        That may be what the camera delivered in the session before.
        """
        camera, begun = self._camera, time.monotonic()
        if camera.wait(lambda: camera.has_fetched, _FETCHED) is None:
            if camera.pictures_since(begun):
                raise Unseen("after %g s the card's pictures are fetched still" % _FETCHED)
            raise No("no second report came within %g s" % _FETCHED)

    def _shoot(self, exposure: float = 0.0) -> Tuple[float, List[Picture]]:
        """Takes a picture; seconds from the shutter to its announcement, and its files."""
        future = self._camera.thread.shoot()
        if self._camera.wait(future.done, _SHUTTER) is None:
            future.cancel()
            raise No("Shoot was not carried out within %g s" % _SHUTTER)
        self._since = future.result(0)
        announced = self._announced(self._since, _PICTURE + exposure)
        return announced, self._new_pictures()

    def _announced(self, since: float, seconds: float) -> float:
        camera = self._camera
        if camera.wait(lambda: bool(camera.pictures_since(self._since)), seconds) is None:
            raise No("no picture was announced within %g s" % seconds)
        return time.monotonic() - since

    def _new_pictures(self) -> List[Picture]:
        """What was announced of the present picture: of a pair two."""
        camera = self._camera
        if self._is_pair():
            camera.wait(lambda: len(camera.pictures_since(self._since)) >= 2, _SECOND_FILE)
        return camera.pictures_since(self._since)

    def _all_whole(self, pictures: List[Picture]) -> List[str]:
        """What the files of a picture are; raises No when one is not there or not whole."""
        if not all(picture.path for picture in pictures):
            raise No("the module says that the picture could not be written")
        return [self._whole(picture.path) for picture in pictures]

    def _whole(self, path: str) -> str:
        """What a file is, in words; raises No when it is not there or not whole in time."""
        end = time.monotonic() + _WHOLE
        while True:
            try:
                size = os.path.getsize(path)
                with open(path, "rb") as file:
                    facts = formats.judge(file, size, os.path.splitext(path)[1])
            except FileNotFoundError:
                problem = "it is not there"
            except (formats.Malformed, OSError) as error:
                problem = str(error)
            else:
                return "%s %sx%s, %d bytes" % (facts.format, facts.width, facts.height, size)
            if time.monotonic() > end:
                raise No("%s: %s" % (os.path.basename(path), problem))
            self._camera.wait(lambda: False, 0.1)

    def _expect_nobody(self) -> None:
        """Raises Unseen when the camera opens, which it cannot without its cable."""
        try:
            self._camera.start()
        except No:
            self._camera.stop()
            return
        self._camera.stop()
        raise Unseen("the camera opens as before: was its cable pulled?")

    def _silence(self) -> str:
        """Waits for what shows that the camera is gone; what there was, in words."""
        camera = self._camera
        last, begun = camera.events, time.monotonic()
        while time.monotonic() - begun < _GONE:
            if camera.wait(lambda: camera.events > last, 2.5) is None:
                break
            last = camera.events
        return "nothing more was told from %s on" % milliseconds(time.monotonic() - begun)

    def _need(self, text: str, what: str) -> None:
        """Has something done at the camera; raises Unseen when nobody does it."""
        if self._hands is not None:
            if not getattr(self._hands, what)():
                raise Unseen("the virtual camera refuses: %s" % text)
        elif not self._may_ask:
            raise Unseen(_NO_PERSON)
        elif not self._tell.wait_for_person(text, _PERSON):
            raise Unseen("nobody did it: %s" % text)

    def _is_pair(self) -> bool:
        text = self._quality().lower()
        return "+" in text or ("raw" in text and ("jpeg" in text or "jpg" in text))

    def _quality(self) -> str:
        return self._camera.settings.get("quality").text

    def _set_shutter(self, key: int) -> None:
        camera = self._camera
        camera.set("shutter", key)
        if camera.wait(lambda: camera.is_set("shutter", key), _CONFIRM) is None:
            raise No("the shutter was not confirmed within %g s" % _CONFIRM)


def _longer(setting: Setting) -> Tuple[int, float]:
    """The key and the seconds of an exposure that counts as long."""
    found: Dict[float, int] = {}
    for choice in setting.choices:
        seconds: Optional[float] = seconds_of(choice.text)
        if seconds is not None and 1.0 <= seconds <= 8.0:
            found[seconds] = choice.key
    if not found or setting.key is None:
        raise Unseen("no exposure of 1 to 8 seconds can be set now: turn the mode dial to M")
    best = min(found, key=lambda seconds: abs(seconds - _LONG))
    return found[best], best
