"""The source distributions, compiled by pip in an environment of its own: it takes a network."""

import hashlib
import pathlib
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))

from wheels_support import (  # noqa: E402
    COMPILING,
    WHEELS,
    InstallTestCase,
    contents,
    interpreters,
    run,
    wheels,
)


class SourcesTest(InstallTestCase):
    def compiled(self, programs, sources):
        """The wheel that pip makes of a source distribution."""
        (archive,) = WHEELS.glob(sources)
        made = self.folder / "made"
        # Not what an earlier run compiled.
        anew = ("--no-deps", "--no-cache-dir", "--wheel-dir", made)
        run(programs / "pip", "wheel", *anew, archive, timeout=COMPILING)
        return next(path for path in made.iterdir() if path.name.startswith(sources[:-8]))

    def assert_same_files(self, wheel, published):
        """All files of a published wheel are in another one, but what tells of the wheels."""
        files = contents(wheel)
        for name, data in contents(published).items():
            if "dist-info" not in name:
                with self.subTest(name):
                    self.assertEqual(digest(files.get(name, b"")), digest(data))

    def test_they_make_the_same_module_and_the_same_cameras_and_these_shoot(self):
        tag, python = list(interpreters().items())[0]
        programs = self.bare(python)
        made = []
        for sources, pattern in (
            ("lumatie-*.tar.gz", "lumatie-*-%s-manylinux_*.whl" % tag),
            ("lumatie_virtual-*.tar.gz", "lumatie_virtual-*-manylinux_*.whl"),
        ):
            made.append(self.compiled(programs, sources))
            (published,) = wheels(pattern)
            self.assert_same_files(made[-1], published)
        run(programs / "pip", "install", "--no-deps", "--no-index", *made)
        for maker in ("canon", "nikon"):
            self.assert_shoots([programs / "lumatie"], "--virtual", maker)


def digest(data):
    return hashlib.sha256(data).hexdigest()


if __name__ == "__main__":
    unittest.main()
