"""Writes docs/api.md, the page of all public names, from the docstrings and the stubs."""

import ast
import functools
import pathlib
import re
import textwrap
from typing import Dict, Iterator, List, NamedTuple, Tuple, Union

ROOT = pathlib.Path(__file__).resolve().parents[1]
PACKAGE = ROOT / "host" / "lumatie_host"
STUBS = ROOT / "System" / "PyAdapater" / "Lumatie"
PAGE = ROOT / "docs" / "api.md"

# Headings, and what stands below them: names of a file, or all public ones of it.
SECTIONS = (
    ("Opening a camera", "session open", "finding find", "libraries virtual Virtual"),
    ("A session", "session Session", "shots Shot", "subscribers EventIterator"),
    ("Settings", "settings NAMES Setting Choice"),
    (
        "Events",
        "events Event Opened SettingChanged ShotAsked Picture Failed Copied Rated",
        "events Lost Back Alarm Closed Lagged",
    ),
    ("Errors", "errors"),
    ("The ledger", "ledger Ledger verify Finding"),
    ("asyncio", "aio"),
    ("Sequences", "sequences interval bracket Frame"),
    (
        "Names, copies, sidecars",
        "names Template",
        "copies Copier",
        "sidecar read write path_of Sidecar",
    ),
    ("What the module tells, read", "protocol"),
    (
        "The module",
        "Lumatie Lumatie",
        "_Lumatie new_Lumatie delete_Lumatie Lumatie_Init Lumatie_UpdateExportFolder",
        "_Lumatie Lumatie_SetValue Lumatie_Shoot Lumatie_Uninit",
    ),
)

INTRODUCTION = """# All public names

Made from the docstrings by `./run docs`; what they are together is told in [host.md](host.md) and
[module.md](module.md). A name without a dot is the package's own: `import lumatie_host as tether`,
`tether.open`. For one with a dot its file is imported, too: `from lumatie_host import sequences`.
The last section is the extension module; its constants are in [module.md](module.md#events).
`tether.__version__` is the version of all of it, as a text.
"""

WHOLE_WORDS = {"break_long_words": False, "break_on_hyphens": False}
IS_ALIKE = re.compile(r"See `\w+\.\w+`\.")
FUNCTIONS = (ast.FunctionDef, ast.AsyncFunctionDef)
Function = Union[ast.FunctionDef, ast.AsyncFunctionDef]


class Item(NamedTuple):
    """An entry of a docstring's list: what it tells of an argument, an attribute or an error."""

    kind: str  # "Args", "Attributes" or "Raises"
    label: str
    text: str


class Source:
    """One file of the package, or a stub of the module's."""

    def __init__(self, name: str, text: str) -> None:
        self.name = name
        self.text = text
        self.tree = ast.parse(text)

    def shown(self, name: str) -> str:
        """What a program calls a name of the file."""
        return exported().get((self.name, name), "%s.%s" % (self.name, name))

    def comment(self, node: ast.stmt) -> str:
        """What stands behind a statement's first line."""
        return self.text.splitlines()[node.lineno - 1].partition("  # ")[2]


def read(name: str) -> Source:
    """A file of the package, or a stub."""
    stub = STUBS / (name + ".pyi")
    path = stub if stub.is_file() else PACKAGE / (name + ".py")
    return Source(name, path.read_text("utf-8"))


@functools.lru_cache(maxsize=None)
def exported() -> Dict[Tuple[str, str], str]:
    """File and name of all that the package offers itself, to the name that it has there."""
    tree = ast.parse((PACKAGE / "__init__.py").read_text("utf-8"))
    return {
        (node.module or "", alias.name): alias.asname or alias.name
        for node in ast.walk(tree)
        if isinstance(node, ast.ImportFrom) and node.level
        for alias in node.names
    }


def name_of(node: ast.AST) -> str:
    """The public name that a statement defines; empty when it defines none."""
    target = node.targets[0] if isinstance(node, ast.Assign) else getattr(node, "target", None)
    name = getattr(node, "name", "") or getattr(target, "id", "")
    return "" if name.startswith("_") or name == "LOG" else name


def on_page(*wanted: str) -> Iterator[Tuple[Source, ast.stmt]]:
    """What the entries of a section name, in their order."""
    for entry in wanted:
        file, *names = entry.split()
        source = read(file)
        nodes = {name_of(node): node for node in source.tree.body if name_of(node)}
        for name in names or nodes:
            yield source, nodes[name]


def members(node: ast.ClassDef) -> Iterator[Function]:
    """The public methods and properties of a class, and its constructor if it is for others."""
    for one in node.body:
        if isinstance(one, FUNCTIONS) and not is_decorated(one, one.name + ".setter"):
            is_ours = re.match("(For|Use) ", ast.get_docstring(one) or "")
            if name_of(one) or (one.name == "__init__" and not is_ours):
                yield one


def is_decorated(node: Function, name: str) -> bool:
    return any(ast.unparse(one) == name for one in node.decorator_list)


def docstring(node: ast.AST) -> Tuple[str, List[Item]]:
    """The words of a docstring, and the entries of its lists."""
    doc = ast.get_docstring(node) if isinstance(node, (ast.ClassDef, *FUNCTIONS)) else None
    words, *lists = re.split(r"^(Args|Attributes|Raises):\n", doc or "", flags=re.MULTILINE)
    items = []
    for kind, body in zip(lists[::2], lists[1::2]):
        for entry in re.split(r"\n(?! )", textwrap.dedent(body).strip()):
            label, _, text = entry.partition(": ")
            items.append(Item(kind, label, " ".join(text.split())))
    return words.strip(), items


def signature(node: Function, name: str = "") -> str:
    """How a function is called, without `self`, and its result; a property is not called."""
    name = name or node.name
    result = ast.unparse(node.returns).strip("'") if node.returns else "None"
    if is_decorated(node, "property"):
        return "%s: %s" % (name, result)
    arguments = re.sub(r"^self(, )?(?!:)", "", ast.unparse(node.args))
    called = "%s(%s)" % (name, arguments)
    if is_decorated(node, "contextlib.contextmanager"):
        return "with " + called
    called = "await " * isinstance(node, ast.AsyncFunctionDef) + called
    return called if result == "None" else "%s -> %s" % (called, result)


def listed(words: str) -> str:
    """An entry of a list, over as many lines as it takes."""
    return textwrap.fill("- " + words, 100, subsequent_indent="  ", **WHOLE_WORDS)


def code(words: str) -> str:
    """A signature, over as many lines as it takes."""
    return textwrap.fill("**`%s`**" % words, 100, **WHOLE_WORDS)


def entries(source: Source, node: ast.AST) -> Iterator[str]:
    """The lists of a docstring, and the fields of a class."""
    names = {name: shown for (file, name), shown in exported().items() if file == "errors"}
    for kind, label, text in docstring(node)[1]:
        labels = [names.get(one, one) if kind == "Raises" else one for one in label.split(", ")]
        shown = ", ".join("`%s`" % one for one in labels)
        yield listed("%s%s: %s" % ("raises " if kind == "Raises" else "", shown, text))
    plain: List[str] = []  # those without a comment share a line
    for field in fields(node):
        comment = source.comment(field)
        if not comment:
            plain.append("`%s`" % value(field))
            continue
        yield from [listed(", ".join(plain))] if plain else []
        yield listed("`%s`: %s" % (value(field), comment))
        plain = []
    yield from [listed(", ".join(plain))] if plain else []


def fields(node: ast.AST) -> List[ast.stmt]:
    """The fields of a class, or the members of an enumeration."""
    kinds = (ast.Assign, ast.AnnAssign)
    body = node.body if isinstance(node, ast.ClassDef) else []
    return [one for one in body if isinstance(one, kinds) and name_of(one)]


def value(node: ast.stmt) -> str:
    """A constant or a field as it is written, nearly."""
    words = ast.unparse(node).replace("dataclasses.field(default_factory=dict)", "{}")
    return re.sub(r": ClassVar\[\w+\]", "", words)


def described(source: Source, node: ast.AST, title: str) -> Iterator[str]:
    """A title, the docstring's words, and its lists, with empty lines between them."""
    yield title
    yield docstring(node)[0]
    yield "\n".join(entries(source, node))


def blocks(source: Source, node: ast.stmt) -> Iterator[str]:
    """What the page says of one name."""
    shown = source.shown(name_of(node))
    if isinstance(node, FUNCTIONS):
        yield "### `%s`" % shown
        yield from described(source, node, code(signature(node)))
    elif isinstance(node, ast.ClassDef):
        bases = ", ".join(map(ast.unparse, node.bases))
        yield "### `class %s%s`" % (shown, bases and "(%s)" % bases)
        made = [one for one in members(node) if one.name == "__init__"]
        title = code(signature(made[0], shown.rpartition(".")[2])) if made else ""
        yield from described(source, node, title)
        alike = [one for one in members(node) if IS_ALIKE.fullmatch(docstring(one)[0])]
        for one in members(node):
            if one not in alike:
                yield from described(source, one, "" if one in made else code(signature(one)))
        if alike:
            model = docstring(alike[0])[0].split("`")[1].partition(".")[0]
            yield listed("as in `%s`: %s" % (model, ", ".join(map(short, alike))))
    else:
        comment = source.comment(node)
        yield listed("`%s`%s" % (value(node), ": " + comment if comment else ""))


def short(node: Function) -> str:
    """A member that is like another one: its name, and how it is called."""
    call = "" if is_decorated(node, "property") else "(...)"
    return "`%s%s%s`" % ("await " * isinstance(node, ast.AsyncFunctionDef), node.name, call)


def page() -> str:
    """The whole page."""
    texts = [INTRODUCTION]
    for title, *wanted in SECTIONS:
        texts.append("## " + title)
        texts += (text for source, node in on_page(*wanted) for text in blocks(source, node))
    whole = "\n\n".join(text.strip("\n") for text in texts if text) + "\n"
    # Constants that follow each other are one list.
    return re.sub(r"(^- .*(?:\n  .*)*)\n\n(?=- )", r"\1\n", whole, flags=re.MULTILINE)


if __name__ == "__main__":
    PAGE.write_bytes(page().encode())
