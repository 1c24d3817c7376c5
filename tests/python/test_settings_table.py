"""The tables in docs/virtual-cameras.md name the settings that the virtual cameras have."""

import re
import unittest
from typing import Dict

import virtual_cameras

PAGE = virtual_cameras.REPOSITORY / "docs" / "virtual-cameras.md"
# A row with a factory value: names of settings, values, the meaning.
ROW = re.compile(r"^\| (`[a-z]+\.[a-z_]+`(?:, `[a-z_.]+`)*) \| ([^|]*)\|.+\|$", re.MULTILINE)


def documented(maker: str) -> Dict[str, str]:
    """Setting to factory value: those of both makers and the maker's own."""
    common, canon, nikon = re.split(r"^## (?:Canon|Nikon)$", PAGE.read_text(), flags=re.MULTILINE)
    table = {}
    for names, values in ROW.findall(common) + ROW.findall({"canon": canon, "nikon": nikon}[maker]):
        keys = re.findall(r"`([^`]+)`", names)
        texts = [text.strip() for text in values.split(",")]
        if len(texts) == 1:
            texts *= len(keys)
        elif len(keys) == 1:
            texts = [texts[maker == "nikon"]]
        table.update(zip(keys, texts))
    return table


def present(camera: virtual_cameras.VirtualCamera) -> Dict[str, str]:
    """What a camera that was reset says of itself, before what belongs to a single body."""
    text = camera.settings().partition("[camera")[0]
    lines = (line.partition("=") for line in text.splitlines())
    return {key.strip(): value.strip() for key, _, value in lines if key}


class TheTables(unittest.TestCase):
    def check(self, maker, camera):
        camera.reset()
        table, settings = documented(maker), present(camera)
        self.assertEqual(sorted(table), sorted(settings))
        for key, value in settings.items():
            with self.subTest(key):
                if value and value != table[key]:
                    self.assertEqual(float(int(table[key], 0)), float(value))

    def test_have_each_setting_of_canon_and_its_factory_value(self):
        self.check("canon", virtual_cameras.VirtualCanon())

    def test_have_each_setting_of_nikon_and_its_factory_value(self):
        self.check("nikon", virtual_cameras.VirtualNikon())


if __name__ == "__main__":
    unittest.main()
