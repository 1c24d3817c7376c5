"""Shoots a few pictures with a tethered camera: what an application does with the host package.

Started by `./run demo` with the virtual Canon camera, by `./run demo nikon` with the Nikon one.
"""

import argparse
import contextlib
import math
import os
import signal
import sys
import tempfile

import lumatie_host as tether
from lumatie_host.settings import seconds_of

START_PATIENCE = CHANGE_PATIENCE = 10  # seconds, before the demo gives up
PICTURE_PATIENCE = 60


def show(what, value):  # in one piece: a driver module's own lines come from another thread
    print("  %-20s %s\n" % (what.replace("_", " "), value), end="", flush=True)


def summary(texts):
    """A list of choices, shortened to its ends."""
    if len(texts) < 5:
        return "choices: " + ", ".join(texts)
    return "%d choices: %s, ..., %s" % (len(texts), ", ".join(texts[:3]), texts[-1])


def one_of(*wanted):
    """Picks the text that is wanted, or else the one in the middle."""
    return lambda texts: next((text for text in texts if text in wanted), texts[len(texts) // 2])


def nearest_speed(seconds):
    """Picks the shutter speed that is nearest to `seconds` in stops, None if there is none."""

    def pick(texts):
        times = {text: seconds_of(text) for text in texts if seconds_of(text)}
        return min(times, key=lambda text: abs(math.log(times[text] / seconds)), default=None)

    return pick


@contextlib.contextmanager
def real_time():
    """Has virtual cameras take as long as real ones, unless their settings say otherwise."""
    with tempfile.TemporaryDirectory(prefix="tether-demo-") as folder:
        for variable in ("LUMATIE_VIRTUAL_CANON", "LUMATIE_VIRTUAL_NIKON"):
            settings = b"shutter.scale = 1\n"
            with contextlib.suppress(KeyError, OSError), open(os.environ[variable], "rb") as file:
                settings += file.read()
            os.environ[variable] = os.path.join(folder, variable)
            with open(os.environ[variable], "wb") as file:
                file.write(settings)
        yield


def choose(camera, name, pick):
    """Changes a setting to what `pick` takes of those texts that the camera allows."""
    setting = camera.settings[name]
    text = pick(setting.allowed) if setting.allowed else None
    if text is None:
        show(name, "is the camera's own choice in this exposure mode")
    elif text == setting.text:
        show(name, "stays as it is")
    else:
        show(name, camera.set(name, text, timeout=CHANGE_PATIENCE))


def run(camera, shots, exposure):
    """One session; returns how many files came of it."""
    print("\nThe camera reports:", flush=True)
    for name, setting in camera.settings.items():
        show(name, setting.text)
        if setting.allowed:
            show(name, summary(setting.allowed))
    print("\nChanging settings:", flush=True)
    choose(camera, "shutter", nearest_speed(exposure) if exposure else one_of("1/250"))
    choose(camera, "aperture", one_of("8", "f/8"))
    choose(camera, "iso", one_of("800"))
    choose(camera, "white_balance", one_of("Color temperature", "Direct sunlight"))
    if camera.settings["white_balance"].text == "Color temperature":
        show("color_temperature", camera.set("color_temperature", "5600", timeout=CHANGE_PATIENCE))
    print("\nShooting:", flush=True)
    files = 0
    for number in range(1, shots + 1):
        for picture in camera.shoot(timeout=PICTURE_PATIENCE, pair=True).pictures:
            show("picture %d" % number, "{0.file} ({0.format}, {0.size:,} bytes)".format(picture))
            files += 1
    return files


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.partition("\n")[0])
    about = "what a Canon camera calls itself, or a Nikon camera's driver module"
    parser.add_argument("--camera", default="Virtual EOS", help=about)
    parser.add_argument("--folder", help="where the pictures go (default: a new temporary one)")
    parser.add_argument("--shots", type=int, default=5, help="how many (5)")
    about = "the shutter speed, as near to this as it goes; virtual cameras take that time, too"
    parser.add_argument("--exposure", type=float, metavar="SECONDS", help=about)
    options = parser.parse_args()
    if options.folder is None:
        options.folder = tempfile.mkdtemp(prefix="tether-demo-")
    if options.shots < 1 or not (options.exposure is None or 0 < options.exposure < math.inf):
        parser.error("--shots and --exposure are more than 0")
    if not (options.folder and options.camera and (options.folder + options.camera).isprintable()):
        parser.error("--folder and --camera are texts that can be read")
    return options


def main():
    options = parse_arguments()
    ending = []

    def interrupt(*_):
        ending.append("interrupted")
        if len(ending) == 1:  # the end itself is not interrupted
            raise KeyboardInterrupt

    signal.signal(signal.SIGINT, interrupt)
    try:
        with contextlib.ExitStack() as stack:
            stack.callback(print, "\nThe session has ended.", flush=True)
            print("Camera:   %s\nPictures: %s" % (options.camera, options.folder), flush=True)
            if options.exposure is not None:
                stack.enter_context(real_time())
            which = "module" if os.path.isfile(options.camera) else "camera"
            how = {which: options.camera, "folder": options.folder, "timeout": START_PATIENCE}
            camera = stack.enter_context(tether.open(**how))
            files = run(camera, options.shots, options.exposure)
            ending.append("done")
        if "interrupted" in ending:
            raise KeyboardInterrupt
    except tether.TetherError as error:
        print("error: %s\n%s" % (error, error.advice), file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        print("Interrupted.", file=sys.stderr)
        return 130
    print("%d files are in %s" % (files, options.folder))
    return 0


if __name__ == "__main__":
    sys.exit(main())
