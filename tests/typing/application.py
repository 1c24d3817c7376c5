"""A small application, for type checkers: all of it is known to them, and all of it is right."""

import asyncio
import os
import threading
from typing import Dict, List, Optional, Tuple, Union

import Lumatie
import lumatie_host as tether
from lumatie_host import aio, copies, protocol, sequences


class Desk:
    """Keeps what a session tells."""

    def __init__(self, folder: str) -> None:
        self.folder = folder
        self.files: List[str] = []
        self.texts: Dict[str, str] = {}
        self.problem: Optional[Tuple[tether.Reason, str]] = None

    def hear(self, event: Union[tether.Event, tether.Lagged]) -> None:
        if isinstance(event, tether.Lagged):
            for record in tether.Ledger(self.folder).events(since=event.first - 1):
                self.hear(record)
        elif isinstance(event, tether.Picture):
            width: Optional[int] = event.width
            self.files.append("%s %s %s" % (event.file, width, event.settings.get("shutter")))
        elif isinstance(event, tether.SettingChanged):
            self.texts[event.name] = event.text
        elif isinstance(event, (tether.Failed, tether.Alarm)):
            self.files.append(event.advice)
        elif isinstance(event, tether.Back):
            for name, (before, now) in event.differences.items():
                self.texts[name] = before if before else now

    def shoot(self) -> List[str]:
        try:
            with tether.open(virtual="canon", folder=self.folder, begin=print) as camera:
                unsubscribe = camera.subscribe(self.hear)
                choices: Tuple[tether.Choice, ...] = camera.settings["shutter"].choices
                confirmed: str = camera.set("shutter", key=choices[0].key)
                shot: tether.Shot = camera.shoot(timeout=30, pair=True)
                for frame in sequences.bracket(camera, values=[confirmed]):
                    self.files += [picture.file for picture in frame.shot.pictures]
                copier: Optional[copies.Copier] = camera.copier
                waiting = copier.lag[0] if copier else 0
                unsubscribe()
                return [os.path.join(camera.folder, one.file) for one in shot.pictures[waiting:]]
        except tether.Refused as error:
            return list(error.allowed)
        except (tether.NoAnswer, tether.SessionLost) as error:
            self.problem = (error.reason, error.advice)
        return [finding.text for finding in tether.verify(self.folder)]


async def watch(folder: str) -> int:
    camera_name: Optional[str] = await aio.find_async(["Canon EOS 80D"], timeout=5)
    async with tether.open_async(camera_name or "", folder=folder) as camera:
        confirmed: str = await camera.set("iso", "800")
        shot: tether.Shot = await camera.shoot()
        async for event in camera.events(since=camera.first):
            if isinstance(event, tether.Closed):
                break
        return len(confirmed) + shot.number


def bare(folder: str) -> bool:
    ready = threading.Event()
    camera = Lumatie.Lumatie()

    def receive(code: int, *values: object) -> None:
        message = protocol.read(code, *values)
        if isinstance(message, protocol.Allowed) and code == Lumatie.TETHER_ISO_LIST:
            key, _ = message.choices[0]
            camera.SetValue(Lumatie.TETHER_ISO, key)
            ready.set()

    return camera.Init("Virtual EOS", folder, receive) == 1 and camera.Uninit() == 1


if __name__ == "__main__":
    print(Desk("shoot").shoot(), asyncio.run(watch("shoot")), bare("shoot"))
