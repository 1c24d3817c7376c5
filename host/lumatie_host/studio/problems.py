"""What can go wrong between stations, broker and studio, in words."""

from ..errors import Reason, TetherError


class ClientMissing(TetherError):
    """The library that talks to brokers is not installed."""

    def __init__(self, system_text: str) -> None:
        super().__init__(
            "paho-mqtt cannot be loaded: %s" % system_text,
            Reason.LIBRARY_MISSING,
            "Install paho-mqtt 2.1: python -m pip install 'paho-mqtt>=2.1'.",
            system_text,
        )


class BrokerRefused(TetherError):
    """The broker is there, and does not let this program in."""

    def __init__(self, broker: str, why: str) -> None:
        super().__init__(
            "the broker at %s refuses this program: %s" % (broker, why),
            Reason.REFUSED,
            "Check the name and the password of --broker, and the broker's list of both.",
            broker,
            why,
        )


class NotAName(TetherError):
    """A studio or a station cannot be called that."""

    def __init__(self, what: str, name: str, why: str) -> None:
        super().__init__(
            "%r cannot be the name of a %s: %s" % (name, what, why),
            Reason.NAME_REJECTED,
            "Choose a short name of letters, digits, blanks, dots, dashes and underscores.",
            what,
            name,
            why,
        )


class NameTaken(TetherError):
    """Another station has the name."""

    def __init__(self, station: str, by: str) -> None:
        super().__init__(
            "there is a station %s already: %s" % (station, by),
            Reason.NAME_REJECTED,
            "Give this station another name, or end the other one.",
            station,
            by,
        )


class NotDone(TetherError):
    """A station answered that it did not do what it was asked for, or gave no answer."""

    def __init__(self, station: str, text: str, reason: Reason, advice: str) -> None:
        self.station = station
        super().__init__("station %s: %s" % (station, text), reason, advice)
        self._arguments = (station, text, reason, advice)
