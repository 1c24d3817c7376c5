"""The page of all public names is made from the docstrings, which tell what a reader needs."""

import ast
import builtins
import importlib.util
import pathlib
import re
import sys
import unittest
from typing import Any, Dict, Iterator, List, Optional, Set

import lumatie_host

ROOT = pathlib.Path(__file__).resolve().parents[2]

# What a number of this type, or of this name, has to be told in.
UNITS = {"float": "second", "size": "bytes", "width": "pixels", "height": "pixels"}


def load_api() -> Any:
    path = ROOT / "scripts" / "api.py"
    spec = importlib.util.spec_from_file_location("lumatie_api", str(path))
    assert spec is not None and spec.loader is not None
    module = importlib.util.module_from_spec(spec)
    sys.modules[spec.name] = module
    spec.loader.exec_module(module)
    return module


api = load_api()


def words_of(node: ast.AST, owner: Optional[ast.AST] = None) -> str:
    """All that the docstring tells, for a constructor the class's, too."""
    texts = [ast.get_docstring(node) or ""]
    if owner is not None and getattr(node, "name", "") == "__init__":
        texts.append(ast.get_docstring(owner) or "")
    return " ".join(" ".join(texts).split())


def arguments_of(node: ast.AST) -> List[ast.arg]:
    every = node.args  # type: ignore[attr-defined]
    found = [*every.posonlyargs, *every.args, *every.kwonlyargs, every.vararg, every.kwarg]
    return [one for one in found if one is not None and one.arg != "self"]


def model_of(node: ast.AST) -> str:
    """The name that a docstring refers to for the arguments; empty when it tells them itself."""
    found = re.search(r"See `([\w.]+)`|\bas `([\w.]+)` does", words_of(node))
    return (found.group(1) or found.group(2)) if found else ""


def is_value(node: ast.ClassDef) -> bool:
    """Whether its objects never change, so that threads do not matter."""
    shown = " ".join(map(ast.unparse, [*node.decorator_list, *node.bases]))
    return bool(re.search(r"frozen=True|NamedTuple|Enum", shown))


def raised_by(node: ast.AST) -> Set[str]:
    """The errors that the body itself makes and raises."""
    calls = [one.exc for one in ast.walk(node) if isinstance(one, ast.Raise)]
    names = [ast.unparse(one.func) for one in calls if isinstance(one, ast.Call)]
    return {name.rpartition(".")[2] for name in names if name[:1] != "_"}


def is_error(name: str) -> bool:
    found = getattr(lumatie_host.errors, name, None) or getattr(builtins, name, None)
    return isinstance(found, type) and issubclass(found, BaseException)


def complaints_of_function(node: ast.AST, owner: Optional[ast.AST] = None) -> Iterator[str]:
    """What the docstring of a function lacks of arguments, units and errors."""
    words = words_of(node, owner)
    items = [*api.docstring(node)[1], *(api.docstring(owner)[1] if owner else ())]
    listed = {name: item for item in items for name in item.label.split(", ")}
    names = [one.arg for one in arguments_of(node)]
    own = [item.label for item in api.docstring(node)[1] if item.kind == "Args"]
    for name in ", ".join(own).split(", ") if own else ():
        if name not in names:
            yield "tells of an argument %s that is not there" % name
    if not model_of(node):
        for one in arguments_of(node):
            told = listed[one.arg].text if one.arg in listed else words
            if one.arg not in listed and (own or not re.search(r"\b%s\b" % one.arg, words, re.I)):
                yield "does not tell of the argument %s" % one.arg
            kind = ast.unparse(one.annotation) if one.annotation else ""
            unit = UNITS.get("float" if "float" in kind else one.arg)
            if unit and unit not in one.arg + told and "Callable" not in kind:
                yield "does not tell the unit of %s" % one.arg
    result = getattr(node, "returns", None)
    if result is not None and ast.unparse(result) == "float" and "second" not in words:
        yield "does not tell the unit of its result"
    for name in sorted(raised_by(node)):
        if name not in words:
            yield "does not tell that it raises %s" % name


def complaints_of_class(source: Any, node: ast.ClassDef) -> Iterator[str]:
    """What the docstring of a class lacks of fields, units and attributes."""
    words = words_of(node)
    inherited = " ".join(words_of(base) for base in bases_of(source, node))
    for field in api.fields(node):
        kind = ast.unparse(field.annotation) if isinstance(field, ast.AnnAssign) else ""
        unit = UNITS.get("float" if "float" in kind else api.name_of(field))
        if unit and unit not in words + source.comment(field):
            yield "does not tell the unit of %s" % api.name_of(field)
    for one in node.body:
        if isinstance(one, api.FUNCTIONS) and one.name == "__init__":
            for attribute in sorted(public_attributes(one)):
                if not re.search(r"\b%s\b" % attribute, words + inherited):
                    yield "does not tell of the attribute %s" % attribute


def bases_of(source: Any, node: ast.ClassDef) -> Iterator[ast.AST]:
    """The classes of the same file that a class is made from."""
    classes = {one.name: one for one in source.tree.body if isinstance(one, ast.ClassDef)}
    for base in map(ast.unparse, node.bases):
        if base in classes:
            yield classes[base]
            yield from bases_of(source, classes[base])


def public_attributes(node: ast.AST) -> Set[str]:
    """What a constructor sets that is for others."""
    targets = [one.target for one in ast.walk(node) if isinstance(one, ast.AnnAssign)]
    for one in ast.walk(node):
        targets += one.targets if isinstance(one, ast.Assign) else []
    names = [ast.unparse(one) for one in targets if isinstance(one, ast.Attribute)]
    found = {name[len("self.") :] for name in names if re.fullmatch(r"self\.[a-z]\w*", name)}
    return found - {"args"}  # every exception's


def complaints(source: Any, node: ast.AST) -> List[str]:
    """What is missing of one name on the page and of its members, each as a text."""
    shown = source.shown(api.name_of(node))
    if not isinstance(node, (ast.ClassDef, *api.FUNCTIONS)):
        return []
    found = ["%s has no docstring" % shown] if not words_of(node) else []
    around = words_of(node) + words_of(source.tree)
    is_plain = isinstance(node, ast.ClassDef) and is_value(node)
    if not (is_plain or model_of(node) or re.search("thread|loop|Thread", around)):
        found.append("%s does not tell which thread" % shown)
    for item in api.docstring(node)[1]:
        found += unknown_errors(shown, item)
    if isinstance(node, api.FUNCTIONS):
        return found + ["%s %s" % (shown, one) for one in complaints_of_function(node)]
    found += ["%s %s" % (shown, one) for one in complaints_of_class(source, node)]
    for member in api.members(node):
        name = "%s.%s" % (shown, member.name)
        if not words_of(member, node):
            found.append("%s has no docstring" % name)
        for item in api.docstring(member)[1]:
            found += unknown_errors(name, item)
        found += ["%s %s" % (name, one) for one in complaints_of_function(member, node)]
    return found


def unknown_errors(shown: str, item: Any) -> List[str]:
    names = item.label.split(", ") if item.kind == "Raises" else []
    return ["%s: no error %s" % (shown, name) for name in names if not is_error(name)]


def on_page() -> Iterator[Any]:
    for _, *wanted in api.SECTIONS:
        yield from api.on_page(*wanted)


def with_defaults(node: ast.AST) -> Set[str]:
    """The arguments of a function, each with its type and its default."""
    one = node.args  # type: ignore[attr-defined]
    ordered = [*one.posonlyargs, *one.args]
    defaults = [None] * (len(ordered) - len(one.defaults)) + [*one.defaults, *one.kw_defaults]
    pairs = zip([*ordered, *one.kwonlyargs], defaults)
    return {
        "%s=%s" % (ast.unparse(argument), ast.unparse(default) if default else "")
        for argument, default in pairs
        if argument.arg != "self"
    }


def functions(node: ast.AST) -> List[Any]:
    """A function itself, or those of a class."""
    if isinstance(node, ast.ClassDef):
        return list(api.members(node))
    return [node] if isinstance(node, api.FUNCTIONS) else []


def all_arguments() -> Dict[str, Set[str]]:
    """The names on the page, and those of the members, with the arguments that they take."""
    known: Dict[str, Set[str]] = {}
    for _, node in on_page():
        name = api.name_of(node)
        prefix = name + "." if isinstance(node, ast.ClassDef) else ""
        known.update((prefix + one.name, with_defaults(one)) for one in functions(node))
        for item in api.docstring(node)[1]:
            known["%s.%s" % (name, item.label)] = set()
    return known


def strayed(node: ast.AST, known: Dict[str, Set[str]]) -> Iterator[str]:
    """Where functions refer to another one that is not there, or takes other arguments."""
    for one in functions(node):
        name = model_of(one)
        inside = "%s.%s" % (api.name_of(node), name)
        arguments = known.get(inside, known.get(name))
        if name and arguments is None:
            yield "%s refers to %s, which is not there" % (one.name, name)
        elif arguments is not None and not with_defaults(one) <= arguments:
            yield "%s takes other arguments than %s" % (one.name, name)


MADE_UP = '''
def told(after: float, name: str):
    """Waits `after` seconds for a name. Any thread.

    Raises:
        ValueError: it is none.
    """
    raise ValueError(name)

class Told:
    """A told thing, for one thread.

    Attributes:
        own: what it has.
    """
    size: int  # bytes

    def __init__(self, width: int):
        """Its width is in pixels."""
        self.own = width

class Refers:
    """For one thread."""

    def waits(self, after: float, name: str):
        """See `told`."""
'''

# What is taken from the made-up source, what comes in its place, and what is said of it then.
FAULTS = (
    (
        """    \"\"\"A told thing, for one thread.

    Attributes:
        own: what it has.
    \"\"\"
""",
        "",
        "has no docstring",
    ),
    (" Any thread.", "", "which thread"),
    (", for one thread", "", "which thread"),
    ("seconds", "", "the unit of after"),
    ("  # bytes", "", "the unit of size"),
    ("pixels", "it", "the unit of width"),
    ("Waits `after`", "Waits 2", "the argument after"),
    ("for a name", "for one", "the argument name"),
    ("ValueError:", "KeyError:", "raises ValueError"),
    ("ValueError:", "ValueError, Wrong:", "no error Wrong"),
    ("own: what", "owner: what", "the attribute own"),
    (
        "        ValueError: it is none.",
        "        ValueError: it.\n\n    Args:\n        after: seconds.",
        "the argument name",
    ),
    ("    Raises:", "    Args:\n        other: that.\n\n    Raises:", "an argument other"),
    ("See `told`", "See `gone`", "refers to gone"),
    ("waits(self, after: float,", "waits(self, after: int,", "other arguments than told"),
)


def complaints_of_text(text: str) -> List[str]:
    source = api.Source("made_up", text)
    nodes = [node for node in source.tree.body if api.name_of(node)]
    known = {one.name: with_defaults(one) for one in nodes if isinstance(one, api.FUNCTIONS)}
    found = [complaint for node in nodes for complaint in complaints(source, node)]
    return found + [one for node in nodes for one in strayed(node, known)]


@unittest.skipUnless(hasattr(ast, "unparse"), "a function that 3.9 has got")
class ThePage(unittest.TestCase):
    def test_it_is_what_the_sources_give(self):
        self.assertEqual(api.PAGE.read_text("utf-8"), api.page(), "./run docs makes it")

    def test_it_has_every_name_that_the_package_offers(self):
        shown = {source.shown(api.name_of(node)) for source, node in on_page()}
        offered = set(lumatie_host.__all__)
        in_words = {"__version__"} & set(re.findall("[.]([a-z_]+)`", api.INTRODUCTION))
        self.assertEqual(offered - shown - in_words, set())

    def test_each_docstring_tells_arguments_units_errors_and_threads(self):
        found = [one for source, node in on_page() for one in complaints(source, node)]
        self.assertEqual(found, [])

    def test_who_refers_to_another_name_takes_its_arguments_with_its_defaults(self):
        known = all_arguments()
        self.assertEqual([one for _, node in on_page() for one in strayed(node, known)], [])


SHOWN = '''
class Shown:
    """For one thread."""

    number: int  # from 1
    name: str = ""

    def __init__(self):
        """For others."""

    @property
    def last(self) -> "Shown": ...
    @last.setter
    def last(self, one: "Shown") -> None: ...
    async def wait(self, after: float = 1.5) -> None:
        """Waits.

        Args:
            after: seconds.

        Raises:
            Closed: the session
                is over.
        """
    @contextlib.contextmanager
    def held(self) -> Iterator[None]: ...
    def find(self, *names: str) -> int: ...
'''

PAGE_OF_IT = """### `class made_up.Shown`

For one thread.

- `number: int`: from 1
- `name: str = ''`

**`last: Shown`**

**`await wait(after: float=1.5)`**

Waits.

- `after`: seconds.
- raises `SessionClosed`: the session is over.

**`with held()`**

**`find(*names: str) -> int`**"""


@unittest.skipUnless(hasattr(ast, "unparse"), "a function that 3.9 has got")
class TheWriting(unittest.TestCase):
    def test_a_name_is_shown_as_it_is_used(self):
        source = api.Source("made_up", SHOWN)
        (node,) = source.tree.body
        texts = [text for text in api.blocks(source, node) if text]
        self.assertEqual("\n\n".join(texts), PAGE_OF_IT)


@unittest.skipUnless(hasattr(ast, "unparse"), "a function that 3.9 has got")
class TheChecks(unittest.TestCase):
    def test_nothing_is_said_of_docstrings_that_tell_all(self):
        self.assertEqual(complaints_of_text(MADE_UP), [])

    def test_each_fault_is_noticed(self):
        for gone, instead, expected in FAULTS:
            with self.subTest(expected, gone=gone, instead=instead):
                self.assertEqual(MADE_UP.count(gone), 1)
                found = complaints_of_text(MADE_UP.replace(gone, instead))
                self.assertIn(expected, " ".join(found))


if __name__ == "__main__":
    unittest.main()
