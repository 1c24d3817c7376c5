"""What type checkers have to refuse: each line with a mark, and no other one."""

import Lumatie
import lumatie_host as tether
from lumatie_host import protocol, sequences


def of_sessions(camera: tether.Session) -> None:
    tether.open("Virtual EOS")  # expect: error
    tether.open(folder="shoot", timeout="15")  # expect: error
    camera.set("shutter", 250)  # expect: error
    camera.shoot(paired=True)  # expect: error
    camera.state = "open"  # expect: error
    width: int = camera.shoot().pictures[0].width  # expect: error
    camera.settings["iso"].text = "800"  # expect: error
    camera.settings["iso"].choices.append("800")  # expect: error
    camera.subscribe(lambda event, more: None)  # expect: error
    camera.rate("a.jpg", "5")  # expect: error
    sequences.interval(camera, "3", 1.0)  # expect: error
    print(width)


def of_events(event: tether.Event, lagged: tether.Lagged, picture: tether.Picture) -> None:
    print(event.file)  # expect: error
    print(lagged.n)  # expect: error
    picture.size = 0  # expect: error
    if isinstance(event, tether.Back):
        print(event.after.lower())  # expect: error


def of_errors(error: tether.Refused) -> None:
    print(error.reason.upper())  # expect: error
    print(error.allowed + ["800"])  # expect: error
    raise tether.NoAnswer("30 seconds")  # expect: error


def of_the_ledger(folder: str) -> None:
    tether.Ledger()  # expect: error
    for event in tether.Ledger(folder).events(since="17"):  # expect: error
        print(event.n)
    print(tether.verify(folder).text)  # expect: error


async def of_coroutines(camera: tether.AsyncSession) -> None:
    camera.set("iso", "800").upper()  # expect: error
    for _ in camera.events():  # expect: error
        pass
    with tether.open_async(folder="shoot"):  # expect: error
        pass
    number: str = (await camera.shoot()).number  # expect: error
    print(number)


def of_the_module(camera: Lumatie.Lumatie) -> None:
    camera.Init("Virtual EOS", b"shoot", None)  # expect: error
    camera.SetValue("iso", 3)  # expect: error
    camera.Shot()  # expect: error
    print(Lumatie.TETHER_SHUTTER)  # expect: error
    print(protocol.read_list("{}").entries.editable)  # expect: error
