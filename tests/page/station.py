"""Runs the command lumatie, and steers its virtual camera meanwhile: station.py MAKER ARGUMENT...

Standard input has a JSON list a line: a name and arguments. Names are those of the methods of
`virtual_cameras.VirtualCanon`, or VirtualNikon, and of the functions below. The answer goes to file
3: {"is": value} or {"error": text}.
"""

import json
import os
import pathlib
import runpy
import sys
import threading
import time

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(1, str(REPOSITORY / "tests" / "python"))

import virtual_cameras  # noqa: E402
from PIL import Image, ImageDraw  # noqa: E402


def chart(path, width, height, background, boxes, number=0):
    """Writes a JPEG of one colour with boxes in it, [left, top, right, bottom, colour] each.

    The number goes into a comment: charts of the same look have other bytes then.
    """
    image = Image.new("RGB", (width, height), background)
    draw = ImageDraw.Draw(image)
    for left, top, right, bottom, colour in boxes:
        draw.rectangle((left, top, right - 1, bottom - 1), fill=colour)
    image.save(path, quality=95, subsampling=0, comment=b"chart %d" % number)


def processor_seconds():
    """What this process has used of the processors so far."""
    return time.process_time()


def decode(path):
    """Decodes a JPEG once to the size of a preview; the seconds that takes."""
    begin = time.perf_counter()
    with Image.open(path) as image:
        image.draft("RGB", (2048, 2048))
        image.load()
    return time.perf_counter() - begin


OWN = {"chart": chart, "decode": decode, "processor_seconds": processor_seconds}


def steer(camera):
    answers = os.fdopen(3, "w", encoding="utf-8")
    for line in sys.stdin:
        name, *arguments = json.loads(line)
        function = OWN.get(name) or getattr(camera, name)
        try:
            answer = {"is": function(*arguments)}
        except Exception as error:
            answer = {"error": "%s: %s" % (type(error).__name__, error)}
        answers.write(json.dumps(answer) + "\n")
        answers.flush()


def main():
    maker = sys.argv.pop(1)
    kind = {"canon": virtual_cameras.VirtualCanon, "nikon": virtual_cameras.VirtualNikon}[maker]
    threading.Thread(target=steer, args=(kind(),), daemon=True).start()
    sys.argv[0] = "lumatie"
    runpy.run_module("lumatie_host.cli", run_name="__main__", alter_sys=True)


main()
