"""Shoots a few pictures with a tethered camera: what an application does with the module.

Started by `./run demo`, which builds the module and puts it on the path, or by `./run demo nikon`,
which names the virtual Nikon camera's driver module. Needs nothing but the standard library of
CPython 3.8 or newer.
"""

import argparse
import ast
import importlib.util
import os
import queue
import signal
import sys
import tempfile
import time


def name_camera_library():
    """On Windows, tells where the library is that a Canon camera is driven with, EDSDK.dll.

    The system looks for it beside the module first, then in the folders named to it, and nowhere
    else. An application names the folder that it keeps Canon's in; here it is the one of the
    virtual camera's, which lies beside the module's folder.
    """
    if os.name != "nt":
        return
    module = importlib.util.find_spec("_Lumatie")
    if module is not None:
        folder = os.path.join(os.path.dirname(module.origin), os.pardir, "virtual")
        if os.path.isdir(folder):
            os.add_dll_directory(os.path.abspath(folder))


name_camera_library()
import Lumatie  # noqa: E402  the library's folder comes before it

if os.name == "nt":
    import ctypes
    from ctypes import wintypes

    def pump_messages():
        """Delivers what waits for this thread: Canon's own library sends its events that way."""
        user32 = ctypes.WinDLL("user32")
        message = wintypes.MSG()
        while user32.PeekMessageW(ctypes.byref(message), None, 0, 0, 1):
            user32.TranslateMessage(ctypes.byref(message))
            user32.DispatchMessageW(ctypes.byref(message))
else:

    def pump_messages():
        """Nothing to do: there are no messages on this system."""


# How long each step may take, in seconds, before the demo gives up.
START_PATIENCE = 10
CHANGE_PATIENCE = 10
PICTURE_PATIENCE = 60

# A picture's path may have 255 bytes; with a longer one the module ends the process.
LONGEST_PATH = 255
LONGEST_NAME = "Canon_1700000000_2147483647.JPG"  # a Nikon camera's are as long

# The settings of a camera; those that can be chosen have the code of their list behind them.
NAMES = {
    Lumatie.TETHER_EXPOSUREMODE: "exposure mode",
    Lumatie.TETHER_SHUTTERSPEED: "shutter speed",
    Lumatie.TETHER_APERTURE: "aperture",
    Lumatie.TETHER_ISO: "ISO",
    Lumatie.TETHER_WB: "white balance",
    Lumatie.TETHER_COLORTEMP: "colour temperature",
    Lumatie.TETHER_IMAGEQUALITY: "image quality",
}
LISTS = {
    Lumatie.TETHER_SHUTTERSPEED: Lumatie.TETHER_SHUTTERSPEED_LIST,
    Lumatie.TETHER_APERTURE: Lumatie.TETHER_APERTURE_LIST,
    Lumatie.TETHER_ISO: Lumatie.TETHER_ISO_LIST,
    Lumatie.TETHER_WB: Lumatie.TETHER_WB_LIST,
    Lumatie.TETHER_COLORTEMP: Lumatie.TETHER_COLORTEMP_LIST,
}
SETTING_OF_LIST = {code: setting for setting, code in LISTS.items()}

# What a camera must have told before it is of use.
NEEDED = [setting for setting in LISTS if setting != Lumatie.TETHER_COLORTEMP]

# The entry of a Nikon camera's list that says whether the setting can be changed now.
EDITABLE = "NIKON_EDITABLE"


class Failure(Exception):
    """What went wrong, in words for the person in front of the screen."""


class Interrupted(Exception):
    """Ctrl-C was pressed."""


def show(what, value):
    # In one piece: a driver module's own lines come from another thread.
    print("  %-20s %s\n" % (what, value), end="", flush=True)


def summary(choices):
    """A list of choices, shortened to its ends."""
    texts = [str(choice) for choice in choices]
    if len(texts) < 5:
        return "choices: " + (", ".join(texts) or "none now")
    return "%d choices: %s, ..., %s" % (len(texts), ", ".join(texts[:3]), texts[-1])


def status_of(text):
    """The key word and the value of a TETHER_GENERAL text."""
    # A path stands in its text as it is: one with a quote in it makes no valid literal, or even a
    # valid one of something else. So it is cut out and never evaluated.
    head, tail = "{'%s':r'" % Lumatie.TETHER_GENERAL_NEWFILE, "'}"
    if text.startswith(head) and text.endswith(tail):
        return Lumatie.TETHER_GENERAL_NEWFILE, text[len(head) : -len(tail)]
    ((word, value),) = ast.literal_eval(text).items()
    return word, value


def check_folder(folder):
    """Returns the folder in the form that the module wants, or says what is wrong with it."""
    if not os.path.isdir(folder):
        raise Failure("there is no folder %s" % folder)
    folder = os.path.abspath(folder)  # this also takes off a separator at the end
    if not os.access(folder, os.W_OK | os.X_OK):
        raise Failure("the folder %s is not writable" % folder)
    if folder.endswith(os.sep):
        raise Failure("pictures cannot go into the root folder")
    try:
        length = len(os.path.join(folder, LONGEST_NAME).encode("utf-8"))
    except UnicodeEncodeError:
        raise Failure("the folder's name is not valid UTF-8: %r" % folder) from None
    if length > LONGEST_PATH:
        raise Failure(
            "the folder's path is too long by %d bytes: %s" % (length - LONGEST_PATH, folder)
        )
    return folder


def check_picture(path):
    """Describes the picture at a path, or says why there is none."""
    # The announcement alone does not tell that the file could be written.
    try:
        with open(path, "rb") as file:
            data = file.read()
        size = os.path.getsize(path)
    except OSError as error:
        raise Failure("%s was announced but is not there: %s" % (path, error.strerror)) from None
    if size != len(data):
        raise Failure("%s is still being written" % path)
    for start, kind in ((b"\xff\xd8\xff", "JPEG"), (b"II*\0", "TIFF"), (b"MM\0*", "TIFF")):
        if data.startswith(start):
            return "%s, %s bytes" % (kind, format(size, ","))
    raise Failure("%s is neither a JPEG nor a TIFF file" % path)


class Host:
    """One application with one camera. Everything but `receive` runs on the main thread.

    A Canon camera reports what has changed: keys of its own with their texts. A Nikon camera
    reports everything once a second: positions in its lists.
    """

    def __init__(self):
        self.tether = Lumatie.Lumatie()
        self.events = queue.SimpleQueue()
        self.is_interrupted = False
        self.is_nikon = False
        self.wants_picture = False
        self.reported = {}  # code -> what came with it last
        self.current = {}  # setting -> the value that SetValue takes
        self.texts = {}  # setting -> {key: what to show for it}
        self.choices = {}  # the same of what can be chosen now
        self.quality = ""
        self.pictures = []  # paths in the order of their announcement

    def receive(self, *event):
        """The callback, on a thread of the module's: a camera waits for it, so it only notes."""
        if self.wants_picture and event[0] == Lumatie.TETHER_EXPOSUREMODE:
            self.wants_picture = False
            self.tether.Shoot()
        self.events.put(event)

    def interrupt(self, *_):
        """The handler of Ctrl-C: the next wait ends the session in an orderly way."""
        self.is_interrupted = True

    def wait_for(self, condition, seconds, complaint):
        """Works off events until the condition holds."""
        deadline = time.monotonic() + seconds
        while not self.is_interrupted:
            if condition():
                return
            if time.monotonic() > deadline:
                raise Failure("%s within %g seconds" % (complaint, seconds))
            pump_messages()
            try:
                # In small portions: a wait without end would not notice Ctrl-C on every system,
                # nor Windows' messages.
                self.handle(*self.events.get(timeout=0.02))
            except queue.Empty:
                continue
        raise Interrupted

    def handle(self, code, *values):
        """Carries out one event."""
        if code == Lumatie.TETHER_GENERAL:
            self.handle_status(*status_of(values[0]))
        elif self.is_nikon and self.reported.get(code) == values:
            return
        elif code in SETTING_OF_LIST:
            self.handle_list(SETTING_OF_LIST[code], ast.literal_eval(values[0]))
        elif code in NAMES:
            # Some settings come as a key and a text, others as a text, number or position alone.
            self.current[code] = values[0]
            self.show_value(code, values[-1])
            if code == Lumatie.TETHER_IMAGEQUALITY:
                self.quality = values[0]
        self.reported[code] = values

    def handle_list(self, setting, choices):
        can_be_set = choices.pop(EDITABLE, 1)
        self.texts[setting] = choices
        self.choices[setting] = choices if can_be_set else {}
        if self.is_nikon:
            self.show_value(setting, self.current[setting])
        show(NAMES[setting], summary(choices.values()))

    def show_value(self, setting, value):
        if self.is_nikon and setting in LISTS:
            if setting not in self.texts:
                return  # the first list comes behind the value
            value = self.texts[setting].get(value, "unknown")
        show(NAMES[setting], value)

    def handle_status(self, word, value):
        if word == Lumatie.TETHER_GENERAL_NEWFILE:
            # After an attempt that failed, a Nikon camera's last picture is announced again.
            if value not in self.pictures:
                self.pictures.append(value)
        elif word == Lumatie.TETHER_GENERAL_WRITEFAIL:
            raise Failure("the module could not write a picture")
        elif word == Lumatie.TETHER_GENERAL_DEVICEBUSY:
            show("camera", "busy")

    def start(self, camera, folder):
        self.is_nikon = os.path.isfile(camera)  # the module chooses the maker by this, too
        if not self.tether.Init(camera, folder, self.receive):
            if self.is_nikon:
                raise Failure('"%s" is no driver module, or it found no camera' % camera)
            raise Failure('no camera "%s" was found' % camera)
        self.wait_for(
            self.has_settings,
            START_PATIENCE,
            'the camera "%s" did not report its settings' % camera,
        )

    def has_settings(self):
        """Whether the camera has told what is needed, a Nikon camera the whole report."""
        if self.is_nikon and Lumatie.TETHER_IMAGEQUALITY not in self.current:
            return False
        return all(key in self.current and key in self.choices for key in NEEDED)

    def set(self, setting, value):
        """Changes a setting and waits until the camera reports the change."""
        if self.current.get(setting) == value:
            show(NAMES[setting], "stays as it is")
            return
        self.tether.SetValue(setting, value)
        self.wait_for(
            lambda: self.current.get(setting) == value,
            CHANGE_PATIENCE,
            "the camera did not change its %s" % NAMES[setting],
        )

    def choose(self, setting, *wanted):
        """Sets what the list shows as one of `wanted`, or else the value in its middle."""
        choices = self.choices[setting]
        if not choices:
            show(NAMES[setting], "is the camera's own choice in this exposure mode")
            return
        keys = [key for key, text in choices.items() if text in wanted]
        self.set(setting, keys[0] if keys else list(choices)[len(choices) // 2])

    def choose_color_temperature(self, kelvin):
        """Sets the white balance by colour temperature, as near to `kelvin` as the camera can."""
        if self.is_nikon:
            return
        if Lumatie.TETHER_CANON_COLORTEMP not in self.choices[Lumatie.TETHER_WB]:
            show(NAMES[Lumatie.TETHER_COLORTEMP], "cannot be chosen in this exposure mode")
            return
        self.set(Lumatie.TETHER_WB, Lumatie.TETHER_CANON_COLORTEMP)
        self.wait_for(
            lambda: self.choices.get(Lumatie.TETHER_COLORTEMP),
            CHANGE_PATIENCE,
            "the camera did not list its colour temperatures",
        )
        # The keys of this list are positions; what is set is the number itself.
        numbers = self.choices[Lumatie.TETHER_COLORTEMP].values()
        nearest = min(numbers, key=lambda number: abs(number - kelvin))
        self.set(Lumatie.TETHER_COLORTEMP, nearest)

    def shoot(self, number):
        """Takes one picture and checks each file that comes of it."""
        files = 1 + self.quality.count("+")  # "RAW + Large Fine Jpeg" makes two
        before = len(self.pictures)
        if self.is_nikon:
            # A request that comes late in a cycle is dropped; `receive` makes it at the start.
            self.wants_picture = True
        else:
            self.tether.Shoot()
        self.wait_for(
            lambda: len(self.pictures) >= before + files,
            PICTURE_PATIENCE,
            "picture %d did not arrive" % number,
        )
        for path in self.pictures[before:]:
            show("picture %d" % number, "%s (%s)" % (os.path.basename(path), check_picture(path)))

    def run(self, camera, folder, shots):
        """One session from its start to its end."""
        try:
            print("\nThe camera reports:", flush=True)
            self.start(camera, folder)
            print("\nChanging settings:", flush=True)
            self.choose(Lumatie.TETHER_SHUTTERSPEED, "1/250")
            self.choose(Lumatie.TETHER_APERTURE, "8", "f/8")
            self.choose(Lumatie.TETHER_ISO, "800")
            self.choose(Lumatie.TETHER_WB, "Daylight", "Direct sunlight")
            self.choose_color_temperature(5600)
            print("\nShooting:", flush=True)
            for number in range(1, shots + 1):
                self.shoot(number)
        finally:
            # After a start that failed, too: it may have got half of the way.
            self.tether.Uninit()
            print("\nThe session has ended.", flush=True)
        if self.is_interrupted:
            raise Interrupted


def name(text):
    """An argument that the module can take: a text without bytes that are no UTF-8."""
    text.encode("utf-8")
    return text


def number(text):
    """An argument that is a number from 1 on."""
    if int(text) < 1:
        raise ValueError
    return int(text)


def parse_arguments():
    parser = argparse.ArgumentParser(description="Shoots a few pictures with a tethered camera.")
    parser.add_argument(
        "--camera",
        type=name,
        default="Virtual EOS",
        help="what a Canon camera calls itself, or the path of a Nikon camera's driver module "
        '(default: "%(default)s")',
    )
    parser.add_argument("--folder", help="where the pictures go (default: a new temporary folder)")
    parser.add_argument(
        "--shots", type=number, default=5, help="how many pictures (default: %(default)s)"
    )
    return parser.parse_args()


def main():
    options = parse_arguments()
    host = Host()
    signal.signal(signal.SIGINT, host.interrupt)
    try:
        if options.folder is None:
            options.folder = tempfile.mkdtemp(prefix="tether-demo-")
        folder = check_folder(options.folder)
        print("Camera:   %s\nPictures: %s" % (options.camera, folder), flush=True)
        host.run(options.camera, folder, options.shots)
    except Failure as failure:
        print("error: %s" % failure, file=sys.stderr)
        return 1
    except Interrupted:
        print("Interrupted.", file=sys.stderr)
        return 130
    print("%d files are in %s" % (len(host.pictures), folder))
    return 0


if __name__ == "__main__":
    sys.exit(main())
