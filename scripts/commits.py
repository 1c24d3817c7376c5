"""Checks the messages of the commits since the rules of docs/coding.md began.

A subject is one line in the imperative, as far as a program can tell, of at most 90 letters without
a full stop; a body stands apart by an empty line. No message names a folder of somebody's machine
or a number of somebody's list, and no commit merges. Ends with 1 when one does not keep to it.
"""

import pathlib
import re
import subprocess
import sys
from typing import Iterator, List

ROOT = pathlib.Path(__file__).resolve().parents[1]
BEFORE_THE_RULES = "a9b1816fbe97421dbd95bba8fab6142065d89fce"
LONGEST_SUBJECT = 90

# What looks like a verb in another form; some imperatives do, too.
OTHER_FORMS = re.compile(r"^\w+(?:ed|ing)$")
IMPERATIVES = {
    "Embed",
    "Exceed",
    "Feed",
    "Need",
    "Proceed",
    "Seed",
    "Shed",
    "Speed",
    "Bring",
    "Ring",
}
FORBIDDEN = (
    (
        re.compile(r"(?<![\w.])(?:/(?:home|root|tmp|work|Users|mnt)\b|[A-Za-z]:\\)"),
        "a machine's folder",
    ),
    (re.compile(r"(?:\bissue|\bticket|\btask|\bPart)\s+#?\d|(?<!\w)#\d", re.I), "a list's number"),
    (re.compile(r"^(?:wip|fixup!|squash!)", re.I), "unfinished work"),
)


def git(*arguments: str) -> str:
    run = subprocess.run(
        ["git", *arguments], cwd=ROOT, stdout=subprocess.PIPE, check=True, universal_newlines=True
    )
    return run.stdout


def complaints(message: str, parents: int) -> Iterator[str]:
    """What a message does not keep to."""
    subject, *body = message.rstrip("\n").split("\n")
    first = subject.split(" ")[0]
    if parents > 1:
        yield "it merges"
    if len(subject) > LONGEST_SUBJECT:
        yield "the subject has {} letters".format(len(subject))
    if subject.endswith("."):
        yield "the subject ends with a full stop"
    if not first[:1].isupper() or (OTHER_FORMS.match(first) and first not in IMPERATIVES):
        yield "the subject does not begin with an imperative"
    if body and body[0]:
        yield "no empty line follows the subject"
    for pattern, what in FORBIDDEN:
        if pattern.search(message):
            yield "it names {}".format(what)


def commits() -> List[str]:
    """The commits under the rules; none where there is no history, as in an archive."""
    if not (ROOT / ".git").exists():
        print("no history here")
        return []
    known = subprocess.run(
        ["git", "cat-file", "-e", BEFORE_THE_RULES],
        cwd=ROOT,
        stderr=subprocess.DEVNULL,
        check=False,
    )
    if known.returncode != 0:
        sys.exit("the history does not go back to {}".format(BEFORE_THE_RULES))
    return git("rev-list", BEFORE_THE_RULES + "..HEAD").split()


def main() -> int:
    found = 0
    checked = commits()
    for commit in checked:
        parents = git("show", "--no-patch", "--format=%P", commit).split()
        message = git("show", "--no-patch", "--format=%B", commit)
        for complaint in complaints(message, len(parents)):
            found += 1
            print("{:.8} {}: {}".format(commit, message.split("\n")[0], complaint))
    print("{} commits, {} complaints".format(len(checked), found))
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
