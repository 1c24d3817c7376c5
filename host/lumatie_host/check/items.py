"""A picture, asked directly: what is told of it, and whether that is what comes.

Takes one picture past the module, fetches it, and leaves no session open.
"""

import ctypes
import os
import time
from typing import Any, Dict, List, Optional

from . import eds, maid, pace
from .canon import Canon
from .nikon import Nikon, Object
from .records import is_ended, text_of
from .teller import Evidence, No, Teller

_PICTURE = 20.0  # seconds from the shutter to the announcement, with the exposure
_LARGEST = 1 << 30  # bytes; no picture is larger
_SHUTTER, _COMPLETELY, _OFF = 4, 3, 0
_CREATE, _READ_WRITE = 1, 2


class CanonItem(Canon):
    """A picture of a Canon camera; `folder` is one with nothing in it that it may write to."""

    def __init__(self, tell: Teller, path: str, camera: str, folder: str) -> None:
        super().__init__(tell, path, camera)
        self._folder = folder
        self._items: List[int] = []
        self._is_done = False

    def run(self) -> None:
        """Asks the point."""
        self._ask_ready("records.item", self._take)

    def _take(self) -> Evidence:
        try:
            self._expect("EdsSendCommand", self._camera, _SHUTTER, _COMPLETELY)
            self._call("EdsSendCommand", self._camera, _SHUTTER, _OFF)
            if pace.wait(lambda: bool(self._items), _PICTURE) is None:
                raise No("no picture was announced within %g s" % _PICTURE)
            told = self._look(self._items[0])
            pace.wait(lambda: False, 1.0)  # for the second file of a pair
            return told
        finally:
            self._is_done = True
            for item in self._items:
                self._call("EdsRelease", item)

    def _look(self, item: int) -> Evidence:
        result, data = self._fill("EdsGetDirectoryItemInfo", eds.ITEM_INFO, item)
        if result != eds.OK:
            raise No("EdsGetDirectoryItemInfo answers %#x" % result)
        size = int.from_bytes(data[:8], "little")
        is_folder = int.from_bytes(data[8:12], "little")
        name = data[20 : 20 + eds.MAX_NAME]
        extension = os.path.splitext(text_of(name))[1][1:]
        self._check_overruns()
        if not is_ended(name) or not extension.isalnum():
            raise No("it is called %r" % text_of(name))
        if not 0 < size < _LARGEST or is_folder:
            raise No("it claims %d bytes%s" % (size, " and to be a folder" if is_folder else ""))
        fetched = self._fetch(item, size)
        if fetched != size:
            raise No("it claims %d bytes, and %d bytes came" % (size, fetched))
        return ".%s of %d bytes, which came" % (extension, size)

    def _fetch(self, item: int, size: int) -> int:
        """Brings it here and away again; how many bytes came."""
        path = os.path.join(self._folder, "item")
        try:
            self._download(item, size, path)
            return os.path.getsize(path)
        finally:
            if os.path.exists(path):
                os.remove(path)

    def _download(self, item: int, size: int, path: str) -> None:
        stream = self._reference("EdsCreateFileStream", os.fsencode(path), _CREATE, _READ_WRITE)
        try:
            self._expect("EdsDownload", item, size, stream)
            self._expect("EdsDownloadComplete", item)
        finally:
            self._call("EdsRelease", stream)

    def _on_object(self, event: int, reference: Any, context: Any) -> int:
        if event != eds.NEW_ITEM or self._is_done:
            return super()._on_object(event, reference, context)
        self._items.append(reference)
        return 0


class NikonItem(Nikon):
    """A picture of a Nikon camera."""

    def __init__(self, tell: Teller, path: str) -> None:
        super().__init__(tell, path)
        self._parts: List[Dict[str, int]] = []
        self._data_procedure = maid.DataProcedure(self._on_data)

    def run(self) -> None:
        """Asks the point."""
        self._ask_ready("records.item", self._take)

    def _take(self) -> Evidence:
        source = self._source
        assert source is not None
        known = self._children(source)
        self._driver.issue(source.memory, maid.START, maid.CAPTURE, seconds=_PICTURE)
        item_id = self._new_item(source, known)
        item = self._opened(source, item_id, "item")
        data: Optional[Object] = None
        try:
            self._fetch_capabilities(item)
            kinds = self._number(item, maid.CAP_DATA_TYPES)
            if not kinds & maid.IMAGE:
                raise No("it has no image, but the data types %#x" % kinds)
            data = self._opened(item, maid.IMAGE, "image")
            self._fetch_capabilities(data)
            self._acquire(data)
        finally:
            problems = [text for node in (data, item) for text in self._closed(node)]
        if problems:
            raise No("; ".join(problems))
        self._check_overruns()
        return self._told()

    def _new_item(self, source: Object, known: List[int]) -> int:
        """The id of the picture that was taken; raises No when none is listed that is new."""
        end = time.monotonic() + _PICTURE
        while time.monotonic() < end:
            ids = self._children(source)
            new = [item_id for item_id in ids if item_id not in known]
            if new:
                return new[0]
            self._driver.plain(source.memory, maid.ASYNC)
            pace.wait(lambda: False, 0.1)
        raise No("no picture was listed within %g s" % _PICTURE)

    def _acquire(self, data: Object) -> None:
        if not data.can(maid.DATA_PROC, maid.CAN_SET):
            raise No("its image takes no procedure for data")
        address = ctypes.cast(self._data_procedure, ctypes.c_void_p).value
        record = maid.Callback(address, 1)
        kept = self._driver.keep(record)
        result = self._driver.issue(data.memory, maid.SET, maid.DATA_PROC, maid.CALLBACK, kept)
        if result != 0:
            raise No("the procedure for data is answered with %d" % result)
        try:
            result = self._driver.issue(data.memory, maid.START, maid.ACQUIRE, seconds=_PICTURE)
        finally:
            self._driver.issue(data.memory, maid.SET, maid.DATA_PROC)
        if result not in (0, 1):
            raise No("the transfer is answered with %d" % result)

    def _told(self) -> Evidence:
        parts = self._parts
        if not parts:
            raise No("no part of it came")
        total, came = parts[0]["total"], sum(part["length"] for part in parts)
        kinds = sorted({part["kind"] for part in parts})
        unit = "bytes" if kinds[0] & maid.IS_FILE else "rows"
        if any(part["total"] != total for part in parts) or came != total:
            raise No("it claims %d %s, and %d %s came in %d parts"
                     % (total, unit, came, unit, len(parts)))  # fmt: skip
        if kinds[0] & maid.IS_FILE and parts[0]["type"] not in maid.FILE_TYPES:
            raise No("its file type is %d" % parts[0]["type"])
        if len(kinds) > 1 or not kinds[0] & maid.IMAGE:
            raise No("its parts are of the kinds %s" % ", ".join(map(hex, kinds)))
        return "type %d, %d %s in %d parts" % (parts[0]["type"], total, unit, len(parts))

    def _on_data(self, reference: Any, info: Any, data: Any) -> int:
        words = (ctypes.c_uint32 * 9).from_address(info)
        if words[0] & maid.IS_FILE:
            part = {"kind": words[0], "type": words[1], "total": words[2], "length": words[4]}
        else:
            part = {"kind": words[0], "type": 0, "total": words[2], "length": words[7]}
        self._parts.append(part)
        return 0
