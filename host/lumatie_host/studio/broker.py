"""A connection with the broker that comes back by itself.

Each attempt is a new client of the library's with a clean start. So nothing that was given to it
before an interruption is sent after it: what is to be said again is decided by who said it, and
a command never arrives because a cable was put back.
"""

import importlib
import logging
import random
import ssl
import threading
import time
from typing import Any, Callable, List, NamedTuple, Optional, Sequence, Tuple

from .address import Address
from .clock import now
from .problems import ClientMissing

KEEP_ALIVE = 10  # seconds; one and a half times that, and the broker tells a station's will
CONNECT_PATIENCE = 5.0  # seconds
PAUSES = (0.3, 10.0)  # seconds between two attempts: the first, and the longest
MOST_QUEUED = 1000  # messages that wait here for the broker; more are refused

_HOPELESS = (0x84, 0x85, 0x86, 0x87, 0x8A, 0x8C)  # version, client, password, right, ban, method

_log = logging.getLogger("lumatie_host")


class Message(NamedTuple):
    """What has come.

    `expiry` is what is left of its time in whole seconds, None: no limit. `after` is a moment of
    this computer's clock: the broker sent the message after it. None: no such moment is known.
    """

    topic: str
    payload: bytes
    is_retained: bool
    response: Optional[str]
    correlation: Optional[bytes]
    expiry: Optional[int]
    ledger: str  # the user property of this name; empty: none
    after: Optional[float] = None


class Listener:
    """What a connection tells; on threads of its own, so nothing here may wait for long."""

    def up(self) -> None:
        """The broker has let us in, and what was subscribed to comes."""

    def down(self, words: str, is_hopeless: bool) -> None:
        """It is not there, or not any more; tried again in any case."""

    def heard(self, message: Message) -> None:
        """A message has come."""

    def sent(self, number: int, is_taken: bool) -> None:
        """The broker has got a message, and has taken it or was not allowed to."""


class Connection:
    """A connection; `start` begins it. Any thread may call.

    Args:
        will: topic and payload of what the broker tells everybody, retained, when we are gone.
        topics: what is subscribed to.
        marked: the same, where even what is heard at once shows whether it was sent to be retained.
    """

    def __init__(
        self,
        address: Address,
        client: str,
        listener: Listener,
        topics: Sequence[str],
        marked: Sequence[str] = (),
        will: Optional[Tuple[str, bytes]] = None,
    ) -> None:
        self._address = address
        self._name = client
        self._listener = listener
        self._topics = [*topics, *marked]
        self._marked = set(marked)
        self._will = will
        self._mqtt = _library()
        self._closing = threading.Event()
        self._lock = threading.Lock()  # guards the client
        self._client: Any = None  # of the library; None: not connected
        self._thread = threading.Thread(target=self._run, name="lumatie-broker", daemon=True)

    def start(self) -> None:
        """Begins to connect, and returns at once."""
        self._thread.start()

    @property
    def is_up(self) -> bool:
        """Whether messages can be sent now."""
        return self._client is not None

    def publish(
        self,
        topic: str,
        payload: bytes,
        *,
        retain: bool = False,
        expiry: Optional[int] = None,
        response: Optional[str] = None,
        correlation: Optional[bytes] = None,
        ledger: str = "",
    ) -> Optional[int]:
        """Sends with QoS 1; the number that `sent` will tell, None: it cannot be sent now."""
        properties = self._mqtt.Properties(self._mqtt.PacketTypes.PUBLISH)
        if expiry is not None:
            properties.MessageExpiryInterval = expiry
        if response is not None:
            properties.ResponseTopic = response
        if correlation is not None:
            properties.CorrelationData = correlation
        if ledger:
            properties.UserProperty = [("ledger", ledger)]
        with self._lock:
            if self._client is None:
                return None
            try:
                done = self._client.publish(topic, payload, 1, retain, properties)
            except (OSError, ValueError) as error:
                _log.debug("a message to %s could not be sent: %s", topic, error)
                return None
            return int(done.mid) if done.rc == self._mqtt.MQTT_ERR_SUCCESS else None

    def close(self, last: Sequence[Tuple[str, bytes]] = ()) -> None:
        """Says some last things, retained, and leaves without a will. Takes a few seconds."""
        self._closing.set()
        with self._lock:
            client, self._client = self._client, None
        if client is not None:
            for topic, payload in last:
                try:
                    client.publish(topic, payload, 1, True).wait_for_publish(1.0)
                except (OSError, RuntimeError, ValueError) as error:
                    _log.debug("the last message to %s was not sent: %s", topic, error)
            client.disconnect()
        if self._thread.is_alive() and threading.current_thread() is not self._thread:
            self._thread.join(2 * CONNECT_PATIENCE)

    def _run(self) -> None:
        pause = PAUSES[0]
        while not self._closing.is_set():
            attempt = _Attempt(self)
            words, is_hopeless, was_up = attempt.run()
            if self._closing.is_set():
                return
            pause = PAUSES[0] if was_up else min(2 * pause, PAUSES[1])
            self._listener.down(words, is_hopeless)
            self._closing.wait(pause * random.uniform(0.5, 1.0))


class _Attempt:
    """One client of the library's, from its beginning to its end."""

    def __init__(self, owner: Connection) -> None:
        self._owner = owner
        self._over = threading.Event()
        self._words = ""
        self._is_hopeless = False
        self._was_up = False
        self._subscribed_at: Optional[float] = None

    def run(self) -> Tuple[str, bool, bool]:
        """Returns when it is over: why, whether there is no hope, whether it was connected."""
        owner = self._owner
        try:
            client = self._made()
            client.connect(owner._address.host, owner._address.port, keepalive=KEEP_ALIVE)
        except (OSError, ValueError) as error:
            words = getattr(error, "strerror", None) or str(error) or type(error).__name__
            return "it cannot be reached: %s" % words, False, False
        client.loop_start()
        loop = _thread_of("paho-mqtt-client-" + owner._name)
        begun = time.monotonic()
        while not self._over.wait(0.1):
            if owner._closing.is_set() and owner._client is None:
                break
            if loop is None or not loop.is_alive():
                # It ends at an answer that the library cannot read, without a word.
                self._end("the connection has broken off", False)
            if not self._was_up and time.monotonic() - begun > CONNECT_PATIENCE:
                self._end("it does not answer", False)
        with owner._lock:
            if owner._client is client:
                owner._client = None
        client.disconnect()
        client.loop_stop()
        return self._words, self._is_hopeless, self._was_up

    def _made(self) -> Any:
        owner, mqtt = self._owner, self._owner._mqtt
        client = mqtt.Client(
            mqtt.CallbackAPIVersion.VERSION2,
            client_id=owner._name,
            protocol=mqtt.MQTTv5,
            reconnect_on_failure=False,
        )
        client.connect_timeout = CONNECT_PATIENCE
        client.max_queued_messages_set(MOST_QUEUED)
        address = owner._address
        if address.user is not None:
            client.username_pw_set(address.user, address.password)
        if address.is_secure:
            client.tls_set_context(_secure(address.authorities))
        if owner._will is not None:
            client.will_set(owner._will[0], owner._will[1], qos=1, retain=True)
        client.on_connect = self._connected
        client.on_subscribe = self._subscribed
        client.on_disconnect = self._disconnected
        client.on_message = self._heard
        client.on_publish = self._sent
        return client

    def _connected(self, client: Any, _: Any, flags: Any, code: Any, properties: Any) -> None:
        if code.is_failure:
            self._end(str(code), code.value in _HOPELESS)
            return
        options = [
            (topic, self._owner._mqtt.SubscribeOptions(1, False, topic in self._owner._marked))
            for topic in self._owner._topics
        ]
        # What comes was sent behind that: no session of the broker's outlasts a connection.
        self._subscribed_at = now()
        client.subscribe(options)

    def _subscribed(self, client: Any, _: Any, number: int, codes: List[Any], __: Any) -> None:
        refused = [topic for topic, code in zip(self._owner._topics, codes) if code.is_failure]
        if refused:
            self._end("it does not allow to read %s" % refused[0], True)
            return
        self._was_up = True
        with self._owner._lock:
            if self._owner._closing.is_set():
                return
            self._owner._client = client
        _guarded(self._owner._listener.up)

    def _disconnected(self, client: Any, _: Any, flags: Any, code: Any, properties: Any) -> None:
        self._end(str(code), code.value in _HOPELESS and not self._was_up)

    def _heard(self, client: Any, _: Any, message: Any) -> None:
        properties = message.properties
        pairs = getattr(properties, "UserProperty", None) or []
        ledger = next((str(value) for name, value in pairs if name == "ledger"), "")
        try:
            topic = message.topic
        except UnicodeDecodeError:
            return
        heard = Message(
            topic,
            bytes(message.payload),
            bool(message.retain),
            getattr(properties, "ResponseTopic", None),
            getattr(properties, "CorrelationData", None),
            getattr(properties, "MessageExpiryInterval", None),
            ledger,
            self._subscribed_at,
        )
        _guarded(lambda: self._owner._listener.heard(heard))

    def _sent(self, client: Any, _: Any, number: int, code: Any, properties: Any) -> None:
        _guarded(lambda: self._owner._listener.sent(number, not code.is_failure))

    def _end(self, words: str, is_hopeless: bool) -> None:
        if not self._over.is_set():
            self._words = self._words or words
            self._is_hopeless = self._is_hopeless or is_hopeless
            self._over.set()


class _SecureSocket(ssl.SSLSocket):
    """Closed when the other end is not who it has to be: the library forgets it then."""

    def do_handshake(self, block: bool = False) -> None:
        try:
            super().do_handshake(block)
        except BaseException:
            self.close()
            raise


def _secure(authorities: Optional[str]) -> ssl.SSLContext:
    context = ssl.create_default_context(cafile=authorities)
    context.sslsocket_class = _SecureSocket
    return context


def _library() -> Any:
    """The library; raises ClientMissing."""
    try:
        return importlib.import_module("paho.mqtt.client")
    except ImportError as error:
        raise ClientMissing(str(error)) from error


def _thread_of(name: str) -> Optional[threading.Thread]:
    """The library's own thread."""
    return next((thread for thread in threading.enumerate() if thread.name == name), None)


def _guarded(call: Callable[[], None]) -> None:
    try:
        call()
    except Exception:
        _log.exception("a listener of the broker's failed")
