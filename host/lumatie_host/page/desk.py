"""Owns the session of a page: opens it, tries again, and says how it stands when there is none."""

import dataclasses
import logging
import os
import threading
from typing import Callable, Optional

from .. import session as sessions
from ..errors import Closed, FolderRejected, Reason, TetherError
from ..ledger import Ledger
from ..opening import VIRTUAL_CANON
from ..subscribers import Mailbox

AGAIN_EVERY = 3.0  # seconds between two attempts to open
LOOK_EVERY = 0.5  # seconds between two looks whether the session has ended by itself
OPEN_PATIENCE = 15.0  # seconds
CLOSE_PATIENCE = 10.0

# Nothing that is plugged in mends these: a person has to, and says so.
HOPELESS = (Reason.LIBRARY_MISSING, Reason.LIBRARY_UNFIT, Reason.NAME_REJECTED)

_log = logging.getLogger("lumatie_host")


@dataclasses.dataclass
class Wanted:
    """What is to be opened; as the arguments of `lumatie_host.open`."""

    folder: str
    camera: str = ""
    name: str = "{original}"
    job: str = ""
    station: str = ""
    tag: str = ""
    copy: Optional[str] = None
    module: Optional[str] = None
    canon_library: Optional[str] = None
    virtual: Optional[str] = None
    timeout: float = OPEN_PATIENCE

    @property
    def label(self) -> str:
        """What the camera is called before it says so itself."""
        if self.camera:
            return self.camera
        if self.module is not None:
            return os.path.splitext(os.path.basename(self.module))[0]
        return VIRTUAL_CANON if self.virtual == "canon" else "the camera"

    @property
    def maker(self) -> str:
        """ "canon" or "nikon"."""
        return "nikon" if self.module is not None or self.virtual == "nikon" else "canon"


class Desk:
    """Has a camera open, or is about to. Any thread may call.

    Args:
        wanted: what is opened.
        on_news: called when the session has recorded something, or was opened; on any thread.
    """

    def __init__(self, wanted: Wanted, on_news: Callable[[], None]) -> None:
        self.wanted = wanted
        self._on_news = on_news
        self._wake = threading.Event()
        self._is_closing = False
        self._session: Optional[sessions.Session] = None
        self._opening: Optional[sessions.Session] = None
        self._error: Optional[TetherError] = None
        self._ledger: Optional[Ledger] = None
        self._mailbox: Optional[Mailbox] = None
        self._thread = threading.Thread(target=self._run, name="lumatie-desk", daemon=True)

    @property
    def session(self) -> Optional[sessions.Session]:
        """The session, None while there is none."""
        return self._session

    @property
    def ledger(self) -> Optional[Ledger]:
        """The folder's ledger, which there may be without a camera; None without a folder."""
        return self._ledger

    @property
    def error(self) -> Optional[TetherError]:
        """Why there is no session; None while there is one, or nothing was tried."""
        return self._error

    @property
    def connection(self) -> str:
        """A session's state, or "opening", or "waiting" after that failed."""
        session = self._session
        if session is not None:
            return session.state
        if self._is_closing:
            return "closed"
        return "opening" if self._error is None else "waiting"

    @property
    def needs_folder(self) -> bool:
        """Whether the folder for the pictures is in the way, and not that for their copies."""
        error = self._error
        return (
            isinstance(error, FolderRejected)
            and error.reason is Reason.FOLDER_REJECTED
            and os.path.abspath(error.folder) == os.path.abspath(self.wanted.folder)
        )

    def start(self) -> None:
        """Begins to open; returns at once."""
        self._thread.start()

    def camera(self) -> sessions.Session:
        """The session; raises why there is none."""
        session = self._session
        if session is not None:
            return session
        raise self._error or Closed()

    def open_again(self, folder: Optional[str] = None) -> bool:
        """Has it tried again at once; False when a folder was named that nobody asked for."""
        if folder is not None:
            if self._session is not None or not self.needs_folder:
                return False
            self.wanted = dataclasses.replace(self.wanted, folder=folder)
            self._error = self._ledger = None
        self._wake.set()
        return True

    def drain(self) -> None:
        """Forgets what the session has told, so that `on_news` is called at the next of it."""
        mailbox = self._mailbox
        if mailbox is not None:
            mailbox.clear()

    def close(self) -> None:
        """Closes the session, for good."""
        self._is_closing = True
        self._wake.set()
        session = self._session or self._opening
        if session is not None:
            session.close()
        if self._thread.is_alive():
            self._thread.join(CLOSE_PATIENCE)
        self._on_news()

    def _run(self) -> None:
        while not self._is_closing:
            self._wake.clear()
            self._open()
            self._on_news()
            if self._session is not None:
                self._await_end(self._session)
            elif self._error is not None and self._error.reason in HOPELESS:
                self._wake.wait()
            else:
                self._wake.wait(AGAIN_EVERY)

    def _open(self) -> None:
        wanted = self.wanted
        try:
            if self._ledger is None or self._ledger.folder != os.path.abspath(wanted.folder):
                self._ledger = None
                self._ledger = Ledger(wanted.folder)
                self._on_news()
            session = sessions.open(**vars(wanted), begin=self._begin)
        except TetherError as error:
            if self._error is None or str(error) != str(self._error):
                _log.warning("the camera is not open: %s", error)
            self._error = error
            return
        except Exception as error:
            _log.exception("the camera could not be opened")
            self._error = TetherError(str(error), Reason.CLOSED, "Start the program again.")
            return
        finally:
            self._opening = None
        if self._is_closing:
            session.close()
            return
        self._error = None
        self._session = session

    def _begin(self, session: sessions.Session) -> None:
        """Before the camera is looked for."""
        self._mailbox = session.mailbox(self._on_news)
        self._opening = session
        if self._is_closing:
            session.close()

    def _await_end(self, session: sessions.Session) -> None:
        """Returns when the session is over, which it may be by itself."""
        while session.state != "closed" and not self._is_closing:
            self._wake.wait(LOOK_EVERY)
            self._wake.clear()
        self._error = Closed()
        session.close()
        self._mailbox = None
        self._session = None
