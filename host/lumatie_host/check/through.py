"""A session through the module: what is told of settings, and what becomes of a changed one."""

from typing import Dict, List, NamedTuple

from ..settings import UNKNOWN, Choice, Setting
from .heard import Camera, Target
from .known import CODES
from .pace import milliseconds
from .teller import Evidence, No, Teller, Unseen

_SILENCE = 3.0  # seconds without news after which nothing more is expected of a Canon camera
_REPORTS = 3  # of a Nikon camera that are waited for
_CHANGEABLE = ("iso", "white_balance", "aperture", "shutter")
_CONFIRM = 5.0
_REFUSAL = 1.5  # seconds in which a value that was taken would be told; a report comes each second

_NEEDED = ("mode", "shutter", "aperture", "iso", "white_balance", "quality")
_LISTED = ("shutter", "aperture", "iso", "white_balance")


class _Change(NamedTuple):
    name: str
    old: Choice
    new: Choice


class Through:
    """Asks the points; opens and closes one session."""

    def __init__(self, tell: Teller, target: Target) -> None:
        self._tell = tell
        self._target = target

    def run(self) -> None:
        """Asks all points, and leaves no session open."""
        self._camera = Camera(self._target)
        ask = self._tell.ask
        try:
            if ask("session.answers", self._answer):
                ask("session.readable", self._look_at_events)
                ask("session.settings", self._look_at_settings)
                ask("session.lists", self._look_at_lists)
                if ask("setting.confirmed", self._confirm) and ask(
                    "setting.restored", self._restore
                ):
                    ask("setting.refused", self._refuse)
                ask("session.ends", self._end)
        finally:
            self._camera.close()

    def put_back(self, name: str, key: int) -> None:
        """Sets a setting to what it was, for a process that could not any more."""
        self._camera = Camera(self._target)
        try:
            self._camera.start()
            self._camera.wait(lambda: self._camera.settings.is_complete, _CONFIRM)
            self._set(name, key)
        finally:
            self._camera.close()

    def _answer(self) -> Evidence:
        started = self._camera.start()
        heard = self._camera.wait(lambda: self._camera.events > 0, 8.0)
        if heard is None:
            raise No("Init took %s, and no event came within 8 s" % milliseconds(started))
        return "Init took %s, the first event came %s later" % (
            milliseconds(started),
            milliseconds(heard),
        )

    def _look_at_settings(self) -> Evidence:
        camera = self._camera
        told = {setting.name: setting.text for setting in camera.settings.all()}
        told.update(camera.settings.texts())
        missing = [name for name in _NEEDED if not told.get(name) or told[name] == UNKNOWN]
        if missing:
            raise No("not told: %s" % ", ".join(missing), settings=told)
        return ", ".join("%s %s" % item for item in told.items()), {"settings": told}

    def _wait_for_all(self) -> float:
        """Waits until everything was told, or nothing more is expected."""
        camera, waited = self._camera, 0.0

        def is_done() -> bool:
            is_all = camera.settings.is_complete and camera.settings.get("mode").text
            return bool(is_all) or camera.reports >= _REPORTS

        while waited < 10.0:
            before = camera.events
            found = camera.wait(lambda: is_done() or camera.events > before, _SILENCE)
            waited += _SILENCE if found is None else found
            if found is None or is_done():
                break
        return waited

    def _look_at_lists(self) -> Evidence:
        lists: Dict[str, List[str]] = {}
        missing = []
        for name in _LISTED:
            if self._camera.has_list(name):
                lists[name] = list(self._camera.settings.get(name).allowed)
            else:
                missing.append(name)
        if missing:
            raise No("not told: %s" % ", ".join(missing), lists=lists)
        return ", ".join("%s %d" % (name, len(texts)) for name, texts in lists.items()), {
            "lists": lists
        }

    def _look_at_events(self) -> Evidence:
        waited = self._wait_for_all()
        odd = sorted(set(self._camera.unreadable))
        if odd:
            raise No("; ".join(odd[:5]))
        return "%d events in %s" % (self._camera.events, milliseconds(waited))

    # A setting.

    def _confirm(self) -> Evidence:
        change = self._change = self._changeable()
        self._tell.changed({"name": change.name, "key": change.old.key})
        seconds = self._set(change.name, change.new.key)
        return "%s from %s to %s after %s" % (
            *(change.name, change.old.text, change.new.text),
            milliseconds(seconds),
        )

    def _restore(self) -> Evidence:
        change = self._change
        seconds = self._set(change.name, change.old.key)
        self._tell.changed(None)
        return "%s to %s after %s" % (change.name, change.old.text, milliseconds(seconds))

    def _refuse(self) -> Evidence:
        change, camera = self._change, self._camera
        key = self._impossible(change.name)
        camera.set(change.name, key)
        taken = camera.wait(lambda: not camera.is_set(change.name, change.old.key), _REFUSAL)
        if taken is not None:
            now = camera.settings.get(change.name).text
            self._tell.changed({"name": change.name, "key": change.old.key})
            self._set(change.name, change.old.key)
            self._tell.changed(None)
            raise No("%s went to %s when it was asked for key %d" % (change.name, now, key))
        try:
            self._tell.changed({"name": change.name, "key": change.old.key})
            self._set(change.name, change.new.key)
            self._set(change.name, change.old.key)
            self._tell.changed(None)
        except No as error:
            raise No("after key %d was asked for: %s" % (key, error)) from None
        return "key %d for %s is not taken, and the session goes on" % (key, change.name)

    def _set(self, name: str, key: int) -> float:
        """Sets a setting and waits until the camera says so; after how many seconds."""
        self._camera.set(name, key)
        seconds = self._camera.wait(lambda: self._camera.is_set(name, key), _CONFIRM)
        if seconds is None:
            raise No("%s was not confirmed within %g s" % (name, _CONFIRM))
        return seconds

    def _changeable(self) -> _Change:
        for name in _CHANGEABLE:
            setting: Setting = self._camera.settings.get(name)
            keys = [choice.key for choice in setting.choices]
            if setting.settable and len(keys) > 1 and setting.key in keys:
                place = keys.index(setting.key)
                other = setting.choices[place - 1 if place else 1]
                return _Change(name, setting.choices[place], other)
        raise Unseen("nothing can be changed now: turn the mode dial to M")

    def _impossible(self, name: str) -> int:
        """A key that the camera does not offer, but that a host could come to ask for."""
        offered = [choice.key for choice in self._camera.settings.get(name).choices]
        if self._target.is_nikon:
            return len(offered) + 1
        prop = {"iso": 0x402, "white_balance": 0x106, "aperture": 0x405, "shutter": 0x406}[name]
        return min((code for code in CODES[prop] if code not in offered), default=0x7F)

    def _end(self) -> Evidence:
        return "Uninit took %s" % milliseconds(self._camera.stop())
