"""XMP sidecars: rating, label, title, keywords and copyright beside a picture.

The picture itself is never written to. Whatever others keep in a sidecar stays: fields of other
programs, namespaces with their prefixes, comments and processing instructions.
"""

import dataclasses
import io
import os
import re
import secrets
import shutil
import threading
import xml.etree.ElementTree as ET
from typing import Any, Callable, Dict, Iterator, List, Optional, Sequence, Tuple

from . import errors

LARGEST = 1_000_000  # bytes of a sidecar
DEEPEST = 100  # elements within each other
REJECTED = -1  # the rating of a picture that was rejected

X = "adobe:ns:meta/"
RDF = "http://www.w3.org/1999/02/22-rdf-syntax-ns#"
XMP = "http://ns.adobe.com/xap/1.0/"
DC = "http://purl.org/dc/elements/1.1/"
XML = "http://www.w3.org/XML/1998/namespace"

_PREFIXES = {X: "x", RDF: "rdf", XMP: "xmp", DC: "dc"}
_NO_XML = re.compile("[^\t\n\r\x20-\ud7ff\ue000-\ufffd\U00010000-\U0010ffff]")
_RATING = re.compile(r"(-?[0-9]{1,3})(?:\.0*)?")
# Not xml.sax.saxutils, which imports half of the library's network.
_IN_TEXT = str.maketrans({"&": "&amp;", "<": "&lt;", ">": "&gt;", "\r": "&#13;"})
_IN_ATTRIBUTE = {**_IN_TEXT, **str.maketrans({'"': "&quot;", "\n": "&#10;", "\t": "&#9;"})}
_TRIES = 3  # when another program writes the same sidecar

_EMPTY = (
    '<x:xmpmeta xmlns:x="%s" xmlns:rdf="%s" xmlns:xmp="%s" xmlns:dc="%s">\n'
    ' <rdf:RDF>\n  <rdf:Description rdf:about=""/>\n </rdf:RDF>\n</x:xmpmeta>\n'
) % (X, RDF, XMP, DC)

_WRITING = threading.Lock()  # so that two threads do not lose each other's fields


@dataclasses.dataclass(frozen=True)
class Sidecar:
    """What a sidecar says; None, or no keywords, for what it says nothing of."""

    path: Optional[str] = None  # of the sidecar; None when there is none
    rating: Optional[int] = None  # 0 to 5, or REJECTED
    label: Optional[str] = None
    title: Optional[str] = None
    keywords: Tuple[str, ...] = ()
    copyright: Optional[str] = None


def path_of(picture: str, naming: str = "stem") -> str:
    """Where the sidecar of a picture is, or will be.

    One that exists is used whichever naming is asked for; of two, the one that carries the
    picture's whole name, because it belongs to no other. Any thread.

    Args:
        picture: path of the picture; it need not exist.
        naming: of a new one. "stem" makes `IMG.xmp`, which RAW and JPEG of one shot share: what is
            written for one of them holds for both. "full" makes `IMG.CR3.xmp`, one for each.

    Raises:
        ValueError: another naming, or the picture is a sidecar itself.
    """
    stem, extension = os.path.splitext(picture)
    if extension.lower() == ".xmp":
        raise ValueError("%s is a sidecar itself" % picture)
    names = {"full": picture + ".xmp", "stem": stem + ".xmp"}
    if naming not in names:
        raise ValueError("no naming of sidecars: %r" % naming)
    for path in names.values():
        for candidate in (path, path[: -len(".xmp")] + ".XMP"):
            if os.path.lexists(candidate):
                return candidate
    return names[naming]


def read(picture: str) -> Sidecar:
    """What the sidecar of a picture says. Any thread.

    Raises:
        SidecarDamaged: there is one, and it cannot be read or is no XMP.
    """
    path = path_of(picture)
    if not os.path.lexists(path):
        return Sidecar()
    document = _parse(path, _bytes_of(path))
    rating = _RATING.fullmatch((document.simple(XMP, "Rating") or "").strip())
    value = int(rating.group(1)) if rating else None
    return Sidecar(
        path=path,
        rating=value if value is not None and REJECTED <= value <= 5 else None,
        label=document.simple(XMP, "Label"),
        title=document.default_text("title"),
        keywords=tuple(document.items("subject")),
        copyright=document.default_text("rights"),
    )


def write(
    picture: str,
    *,
    rating: Optional[int] = None,
    label: Optional[str] = None,
    title: Optional[str] = None,
    keywords: Optional[Sequence[str]] = None,
    copyright: Optional[str] = None,  # noqa: A002  as the field is called
    naming: str = "stem",
) -> str:
    """Writes fields into the sidecar of a picture; the sidecar's path is returned.

    Fields that are None stay as they are; an empty text, or no keywords, removes one. Characters
    that XML cannot hold (a barcode scanner's separators are such) are left out. The sidecar is
    written beside and renamed, so it is the old or the new one at any moment. Any thread.

    Args:
        picture: its path.
        rating: 0 to 5, or REJECTED (-1).
        label: the name of a colour, as the programs that show it call it.
        title: in the default language; those in other languages stay.
        keywords: all of them; they replace those before.
        copyright: as the title.
        naming: of a new sidecar, see `path_of`.

    Raises:
        ValueError: another rating or naming, or texts that are too long for a sidecar.
        SidecarDamaged: there is a sidecar that cannot be read or is no XMP; it stays as it is.
        WriteFailed: the disk does not take it.
    """
    if rating is not None and (type(rating) is not int or rating not in range(REJECTED, 6)):
        raise ValueError("a rating is 0 to 5, or -1 for a rejected picture: %r" % rating)
    if isinstance(keywords, str):
        raise ValueError("keywords are several texts")

    def change(document: "_Document") -> None:
        if rating is not None:
            document.set_simple(XMP, "Rating", str(rating))
        if label is not None:
            document.set_simple(XMP, "Label", _clean(label))
        if title is not None:
            document.set_default_text("title", _clean(title))
        if keywords is not None:
            document.set_items("subject", [_clean(word) for word in keywords])
        if copyright is not None:
            document.set_default_text("rights", _clean(copyright))

    with _WRITING:
        path = path_of(picture, naming)
        try:
            _rewrite(path, change)
        except OSError as error:
            words = "%s: %s" % (path, error.strerror or error)
            raise errors.WriteFailed(words) from error
    return path


def _rewrite(path: str, change: Callable[["_Document"], None]) -> None:
    """Reads, changes and replaces a sidecar, once more when another program was quicker."""
    place = os.path.realpath(path)  # a link stays one
    for attempt in range(_TRIES):
        before = _bytes_of(path) if os.path.lexists(path) else None
        document = _parse(path, _EMPTY.encode() if before is None else before)
        change(document)
        data = document.to_bytes()
        if len(data) > LARGEST:
            raise ValueError("texts of %d bytes are too long for a sidecar" % len(data))
        temporary = _write_beside(place, data)
        try:
            now = _bytes_of(path) if os.path.lexists(path) else None
            if now == before or attempt == _TRIES - 1:
                if before is not None:
                    shutil.copymode(place, temporary)
                os.replace(temporary, place)
                return
        finally:
            if os.path.lexists(temporary):
                os.unlink(temporary)


def _write_beside(path: str, data: bytes) -> str:
    """A new file with the data, on the disk already."""
    name = ".lumatie-sidecar-%d-%s" % (os.getpid(), secrets.token_hex(8))
    temporary = os.path.join(os.path.dirname(path), name)
    try:
        with open(temporary, "xb") as stream:
            stream.write(data)
            stream.flush()
            os.fsync(stream.fileno())
    except OSError:
        if os.path.lexists(temporary):
            os.unlink(temporary)
        raise
    return temporary


def _bytes_of(path: str) -> bytes:
    if not os.path.isfile(path):
        raise errors.SidecarDamaged(path, "it is no file")
    try:
        with open(path, "rb") as stream:
            data = stream.read(LARGEST + 1)
    except OSError as error:
        raise errors.SidecarDamaged(path, error.strerror or str(error)) from error
    if len(data) > LARGEST:
        raise errors.SidecarDamaged(path, "it is larger than a sidecar can be")
    return data


def _clean(text: str) -> str:
    return _NO_XML.sub("", text)


def _tag(namespace: str, name: str) -> str:
    return "{%s}%s" % (namespace, name)


_DESCRIPTION = _tag(RDF, "Description")
_ITEM = _tag(RDF, "li")
_LANGUAGE = _tag(XML, "lang")
_CONTAINERS = {_tag(RDF, name) for name in ("Alt", "Bag", "Seq")}


class _Document:
    """A parsed sidecar: its tree, and what stands around it."""

    def __init__(
        self, root: ET.Element, prefixes: Dict[str, str], before: List[str], after: List[str]
    ) -> None:
        self._root = root
        self._prefixes = prefixes  # namespace to prefix, as the file has them
        self._before = before  # comments and instructions in front of the root
        self._after = after
        rdf = root if root.tag == _tag(RDF, "RDF") else root.find(_tag(RDF, "RDF"))
        if rdf is None:
            raise ValueError("it is no XMP")
        self._rdf = rdf

    def simple(self, namespace: str, name: str) -> Optional[str]:
        """A property that is one text: an attribute, or an element."""
        tag = _tag(namespace, name)
        for description in self._descriptions():
            text = description.get(tag)
            if text is not None:
                return text
            element = description.find(tag)
            if element is not None:
                return _text_of(element)
        return None

    def set_simple(self, namespace: str, name: str, text: str) -> None:
        """Gives a property its text, in the form and place that it has in the file."""
        tag = _tag(namespace, name)
        for description in self._descriptions():
            if tag in description.attrib and text:
                description.set(tag, text)
                self._remove(tag, but=description)
                return
        if self._has_element(tag) and text:
            self._emptied(tag).text = text
            return
        self._remove(tag)
        if text:
            self._first().set(tag, text)

    def default_text(self, name: str) -> Optional[str]:
        """The text of an alternative in the default language, else the first one."""
        element = self._find(name)
        if element is None:
            return self.simple(DC, name)
        items = list(_items(element))
        for item in items:
            if item.get(_LANGUAGE, "").lower() == "x-default":
                return _text_of(item)
        return _text_of(items[0]) if items else _text_of(element) or None

    def set_default_text(self, name: str, text: str) -> None:
        """Sets the default language of an alternative; other languages stay."""
        tag = _tag(DC, name)
        element = self._find(name)
        others = [
            item
            for item in (_items(element) if element is not None else ())
            if item.get(_LANGUAGE, "x-default").lower() != "x-default"
        ]
        if not text and not others:
            self._remove(tag)
            return
        alternative = _append(self._emptied(tag), _tag(RDF, "Alt"))
        if text:
            item = _append(alternative, _ITEM)
            item.set(_LANGUAGE, "x-default")
            item.text = text
        for other in others:
            other.tail = None
            alternative.append(other)

    def items(self, name: str) -> Iterator[str]:
        """The texts of a bag, or of another container."""
        element = self._find(name)
        for item in _items(element) if element is not None else ():
            yield _text_of(item)

    def set_items(self, name: str, texts: Sequence[str]) -> None:
        tag = _tag(DC, name)
        if not texts:
            self._remove(tag)
            return
        bag = _append(self._emptied(tag), _tag(RDF, "Bag"))
        for text in texts:
            _append(bag, _ITEM).text = text

    def to_bytes(self) -> bytes:
        """The whole file."""
        names = _Names(self._prefixes)
        body = io.StringIO()
        _serialize(self._root, names, body, names.declarations)
        lines = ['<?xml version="1.0" encoding="UTF-8"?>', *self._before, body.getvalue()]
        return ("\n".join([*lines, *self._after]) + "\n").encode("utf-8")

    def _descriptions(self) -> List[ET.Element]:
        return self._rdf.findall(_DESCRIPTION)

    def _first(self) -> ET.Element:
        for description in self._descriptions():
            return description
        return _append(self._rdf, _DESCRIPTION, {_tag(RDF, "about"): ""})

    def _find(self, name: str) -> Optional[ET.Element]:
        for description in self._descriptions():
            element = description.find(_tag(DC, name))
            if element is not None:
                return element
        return None

    def _has_element(self, tag: str) -> bool:
        return any(description.find(tag) is not None for description in self._descriptions())

    def _emptied(self, tag: str) -> ET.Element:
        """The one element of a property, in its place, with nothing in it; made when missing."""
        for description in self._descriptions():
            element = description.find(tag)
            if element is not None:
                tail = element.tail
                element.clear()
                element.tail = tail
                self._remove(tag, but=element)
                return element
        self._remove(tag)
        return _append(self._first(), tag)

    def _remove(self, tag: str, but: Optional[ET.Element] = None) -> None:
        """Removes a property wherever it stands, but in, or as, the one element."""
        for description in self._descriptions():
            if description is not but:
                description.attrib.pop(tag, None)
            for element in description.findall(tag):
                if element is not but:
                    description.remove(element)


def _items(element: ET.Element) -> Iterator[ET.Element]:
    for container in element:
        if container.tag in _CONTAINERS:
            yield from container.findall(_ITEM)


def _text_of(element: ET.Element) -> str:
    """The text of an element, or of its rdf:value when it is qualified."""
    value = element.find(".//" + _tag(RDF, "value"))
    return (element if value is None else value).text or ""


def _append(
    parent: ET.Element, tag: str, attributes: Optional[Dict[str, str]] = None
) -> ET.Element:
    return ET.SubElement(parent, tag, attributes or {})


class _Names:
    """The prefixes of a file, and new ones where it has none."""

    def __init__(self, prefixes: Dict[str, str]) -> None:
        self._prefixes: Dict[str, str] = {}
        for namespace, prefix in prefixes.items():
            self._take(namespace, prefix)
        for namespace, prefix in _PREFIXES.items():
            if namespace not in self._prefixes:
                self._take(namespace, prefix)

    def _take(self, namespace: str, prefix: str) -> None:
        taken = set(self._prefixes.values())
        number = 1
        wanted = prefix
        while not wanted or wanted in taken:
            wanted = "%s%d" % (prefix or "ns", number)
            number += 1
        self._prefixes[namespace] = wanted

    def of(self, name: str) -> str:
        """A name as the file writes it."""
        if not name.startswith("{"):
            return name
        namespace, _, local = name[1:].partition("}")
        if namespace == XML:
            return "xml:" + local
        return "%s:%s" % (self._prefixes[namespace], local)

    @property
    def declarations(self) -> str:
        return "".join(
            ' xmlns:%s="%s"' % (prefix, namespace.translate(_IN_ATTRIBUTE))
            for namespace, prefix in self._prefixes.items()
        )


def _serialize(element: ET.Element, names: _Names, out: io.StringIO, declarations: str) -> None:
    tag: Any = element.tag
    if tag is ET.Comment or tag is ET.ProcessingInstruction:
        out.write(_aside(tag, element.text or ""))
    else:
        name = names.of(tag)
        out.write("<%s%s" % (name, declarations))
        for attribute, value in element.attrib.items():
            out.write(' %s="%s"' % (names.of(attribute), value.translate(_IN_ATTRIBUTE)))
        if element.text or len(element):
            out.write(">%s" % (element.text or "").translate(_IN_TEXT))
            for child in element:
                _serialize(child, names, out, "")
            out.write("</%s>" % name)
        else:
            out.write("/>")
    out.write((element.tail or "").translate(_IN_TEXT))


def _aside(kind: Any, text: str) -> str:
    return ("<!--%s-->" if kind is ET.Comment else "<?%s?>") % text


class _Builder(ET.TreeBuilder):
    """Builds the tree, and keeps what a tree of elements alone would lose."""

    def __init__(self) -> None:
        super().__init__()
        self.prefixes: Dict[str, str] = {}
        self.before: List[str] = []
        self.after: List[str] = []
        self._depth = 0
        self._began = False

    def doctype(self, *_: Any) -> None:
        raise ValueError("it has a document type, which may hide anything")

    def start_ns(self, prefix: str, uri: str) -> None:
        if uri:
            self.prefixes.setdefault(uri, prefix or "")

    def start(self, tag: Any, attrs: Any) -> ET.Element:
        self._depth += 1
        self._began = True
        if self._depth > DEEPEST:
            raise ValueError("its elements are nested too deeply")
        return super().start(tag, attrs)

    def end(self, tag: Any) -> ET.Element:
        self._depth -= 1
        return super().end(tag)

    def comment(self, text: Any) -> None:  # type: ignore[override]
        self._put_aside(ET.Comment, str(text))

    def pi(self, target: Any, text: Any = None) -> None:  # type: ignore[override]
        self._put_aside(ET.ProcessingInstruction, "%s %s" % (target, text) if text else str(target))

    def _put_aside(self, kind: Any, text: str) -> None:
        if self._depth:
            super().start(kind, {})
            super().data(text)
            super().end(kind)
        else:
            (self.after if self._began else self.before).append(_aside(kind, text))


def _parse(path: str, data: bytes) -> _Document:
    """Reads a sidecar; raises SidecarDamaged when it is none."""
    builder = _Builder()
    parser = ET.XMLParser(target=builder)
    try:
        parser.feed(data)
        root = parser.close()
        return _Document(root, builder.prefixes, builder.before, builder.after)
    except (ET.ParseError, ValueError, LookupError, RecursionError) as error:
        raise errors.SidecarDamaged(path, str(error) or "it is no XML") from error
