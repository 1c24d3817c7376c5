"""Nikon sessions as a host sees them: the start, the reports, settings, pictures, the end."""

import ast
import itertools
import os
import shutil
import threading
import time
import unittest

from nikon_support import (
    APERTURE,
    DIAL_APERTURE,
    IMAGE,
    MODULE,
    MOVIE,
    NDF,
    NEF,
    ROWS,
    SENSITIVITY,
    SHUTTER_SPEED,
    THUMBNAIL,
    TIFF,
    WHITE_BALANCE,
    NikonTestCase,
)
from support import (
    CAMERA_NAME,
    CANON_LIBRARY,
    Host,
    Lumatie,
    decode_output,
    folder_names,
    picture_path,
    run_host,
    start_host,
    wait_until,
)
from this_process import ON_WINDOWS, native_threads
from timing import timed, within

# One cycle's events: code and format.
CYCLE = [
    (Lumatie.TETHER_EXPOSUREMODE, str),
    (Lumatie.TETHER_SHUTTERSPEED, int),
    (Lumatie.TETHER_SHUTTERSPEED_LIST, str),
    (Lumatie.TETHER_APERTURE, int),
    (Lumatie.TETHER_APERTURE_LIST, str),
    (Lumatie.TETHER_ISO, int),
    (Lumatie.TETHER_ISO_LIST, str),
    (Lumatie.TETHER_WB, int),
    (Lumatie.TETHER_WB_LIST, str),
    (Lumatie.TETHER_IMAGEQUALITY, str),
]
LISTS = {
    Lumatie.TETHER_SHUTTERSPEED_LIST: SHUTTER_SPEED,
    Lumatie.TETHER_APERTURE_LIST: APERTURE,
    Lumatie.TETHER_ISO_LIST: SENSITIVITY,
    Lumatie.TETHER_WB_LIST: WHITE_BALANCE,
}


def list_text(texts, editable):
    """The list event's text for these values."""
    entries = ["{}:'{}',".format(i, text) for i, text in enumerate(texts, 1)]
    return "{" + "".join(entries) + "'NIKON_EDITABLE':{},".format(int(editable)) + "}"


def cycles(events):
    """The events of the reports, cut into cycles, the last one maybe unfinished."""
    found = []
    for event in events:
        if event.code == Lumatie.TETHER_EXPOSUREMODE:
            found.append([])
        if event.code != Lumatie.TETHER_GENERAL:
            found[-1].append(event)
    return found


class Start(NikonTestCase):
    """How a session starts, and how it does not."""

    def assert_init_fails(self, path):
        tether = Lumatie.Lumatie()
        host = Host()
        self.assertEqual(tether.Init(path, self.folder, host), 0)
        self.assertEqual(tether.Uninit(), 1)
        self.assertEqual(tether.Uninit(), 0)
        self.assertEqual(host.events, [])

    def test_the_path_of_a_driver_module_starts_a_session(self):
        tether, host = self.start(wait=True)
        self.assertEqual(len(host.events), len(CYCLE))
        self.assertEqual(tether.Uninit(), 1)
        self.assertEqual(tether.Uninit(), 0)

    def test_a_module_in_the_working_directory_needs_no_folder_in_its_path(self):
        # A copy: the loader knows the names of those that are loaded.
        shutil.copy(MODULE, os.path.join(self.base, "Copy.md3"))
        self.addCleanup(os.chdir, os.getcwd())
        os.chdir(self.base)
        self.start(name="Copy.md3", wait=True)

    def test_a_file_that_is_no_library_returns_0(self):
        path = os.path.join(self.base, "module.md3")
        with open(path, "w", encoding="ascii") as file:
            file.write("no library")
        self.assert_init_fails(path)

    def test_a_library_without_the_entry_point_returns_0(self):
        self.assert_init_fails(str(CANON_LIBRARY))

    def test_a_module_object_that_cannot_be_opened_returns_0(self):
        self.nikon.fault("Open code=-1")
        self.assert_init_fails(MODULE)

    def test_descriptors_that_cannot_be_fetched_return_0_and_the_module_is_closed(self):
        self.nikon.fault("GetCapCount code=-1")
        self.assert_init_fails(MODULE)

    def test_procedures_that_cannot_be_installed_return_0_and_the_module_is_closed(self):
        self.nikon.fault("CapSet code=-1 level=module capability=3")
        self.assert_init_fails(MODULE)

    def test_a_module_mode_that_is_refused_returns_0_and_the_module_is_closed(self):
        self.nikon.fault("CapSet code=-1 capability=0x8101")
        self.assert_init_fails(MODULE)

    def test_without_a_camera_it_returns_0_and_the_module_is_closed(self):
        self.nikon.unplug()
        self.assert_init_fails(MODULE)

    def test_a_source_that_cannot_be_opened_returns_0_and_the_module_is_closed(self):
        self.nikon.fault("Open code=-1 skip=1")
        self.assert_init_fails(MODULE)

    def test_a_module_without_the_mode_is_used_as_it_is(self):
        self.nikon.configure("corrupt.module.0x8101.absent = 1")
        self.start(wait=True)

    def test_a_source_setting_that_is_refused_does_not_matter(self):
        self.nikon.fault("CapSet code=-1 capability=0x8305 calls=0")
        self.start(wait=True)

    def test_a_camera_under_another_id_is_closed_with_the_tree(self):
        self.nikon.configure("camera.id = 7")
        tether, _ = self.start(wait=True)
        tether.Uninit()
        self.assertEqual(self.nikon.open_objects(), [])

    def test_a_module_that_is_busy_with_its_descriptors_is_asked_again(self):
        self.nikon.fault("GetCapCount code=-124 calls=5")
        self.nikon.fault("GetCapInfo code=-124 calls=5")
        self.start(wait=True)


class Reports(NikonTestCase):
    """What comes every second."""

    def test_each_cycle_sends_every_event_in_the_same_order_and_form(self):
        _, host = self.start()
        host.wait_for_event(13, count=3)
        for cycle in cycles(host.events)[:3]:
            self.assertEqual([(event.code, type(event.values[0])) for event in cycle[:10]], CYCLE)
            self.assertEqual({len(event.values) for event in cycle}, {1})

    def test_values_are_positions_and_lists_tell_whether_they_may_be_set(self):
        self.nikon.set_value(SHUTTER_SPEED, 19)
        _, host = self.start(wait=True)
        self.assertEqual(host.of(Lumatie.TETHER_SHUTTERSPEED)[0].values, (20,))
        self.assertEqual(host.of(Lumatie.TETHER_EXPOSUREMODE)[0].text, "Manual")
        for code, capability in LISTS.items():
            text = list_text(self.nikon.texts(capability), True)
            self.assertEqual(host.of(code)[0].text, text)
            self.assertEqual(ast.literal_eval(text)["NIKON_EDITABLE"], 1)

    def test_on_the_aperture_dial_the_shutter_speed_may_not_be_set(self):
        self.nikon.turn_dial(DIAL_APERTURE)
        _, host = self.start(wait=True)
        self.assertEqual(host.of(Lumatie.TETHER_EXPOSUREMODE)[0].text, "Aperture")
        self.assertTrue(
            host.of(Lumatie.TETHER_SHUTTERSPEED_LIST)[0].text.endswith("'NIKON_EDITABLE':0,}")
        )
        self.assertTrue(
            host.of(Lumatie.TETHER_APERTURE_LIST)[0].text.endswith("'NIKON_EDITABLE':1,}")
        )

    def test_what_is_turned_on_the_body_is_in_the_next_report(self):
        _, host = self.start(wait=True)
        self.nikon.turn_dial(DIAL_APERTURE)
        self.nikon.set_value(APERTURE, 2)
        host.wait_for_call(Lumatie.TETHER_EXPOSUREMODE, "Aperture")
        host.wait_for_call(Lumatie.TETHER_APERTURE, 3)

    def test_an_empty_list_holds_nothing_but_the_flag(self):
        self.nikon.set_texts(WHITE_BALANCE, [])
        _, host = self.start(wait=True)
        self.assertEqual(host.of(Lumatie.TETHER_WB)[0].values, (0,))
        self.assertEqual(host.of(Lumatie.TETHER_WB_LIST)[0].text, "{'NIKON_EDITABLE':1,}")

    def test_a_setting_that_cannot_be_read_is_reported_as_unknown(self):
        self.nikon.fault("CapGet code=-1 capability=0x8113 calls=0")
        _, host = self.start(wait=True)
        self.assertEqual(host.of(Lumatie.TETHER_APERTURE)[0].values, (0,))
        self.assertEqual(host.of(Lumatie.TETHER_APERTURE_LIST)[0].text, "{'NIKON_EDITABLE':1,}")

    def test_another_letter_case_of_a_description_still_matches_another_wording_does_not(self):
        self.nikon.configure(
            "corrupt.source.0x8112.description = sHUTTER sPEED\n"
            "corrupt.source.0x8113.description = Blende"
        )
        _, host = self.start(wait=True)
        self.assertGreater(host.of(Lumatie.TETHER_SHUTTERSPEED)[0].values[0], 0)
        self.assertEqual(host.of(Lumatie.TETHER_APERTURE)[0].values, (0,))

    def test_texts_belong_to_the_setting_that_the_description_names(self):
        self.nikon.configure("corrupt.source.0x8112.description = Aperture")
        _, host = self.start(wait=True)
        self.assertEqual(host.of(3)[0].values, (0,))
        self.assertEqual(host.of(4)[0].values, ("{'NIKON_EDITABLE':1,}",))
        self.assertEqual(list(host.of(6)[0].parsed().values())[:-1], self.nikon.texts(APERTURE))

    @timed
    def test_a_camera_that_is_not_alive_reports_nothing_and_ends_at_once(self):
        self.nikon.fault("CapGet code=-1 capability=0x81D7 calls=0")
        tether, host = self.start()
        self.nikon.wait_for_calls("CapGet")
        with within(5):
            self.assertEqual(tether.Uninit(), 1)
        self.assertEqual(host.events, [])

    def test_a_pulled_cable_ends_the_reports(self):
        tether, host = self.start(wait=True)
        threads = native_threads()
        self.nikon.unplug()
        wait_until(lambda: native_threads() < threads, "the monitor has ended")
        count = len(host.events)
        self.assertEqual(tether.Shoot(), 1)
        self.assertEqual(tether.SetValue(Lumatie.TETHER_ISO, 1), 1)
        self.assertEqual(tether.Uninit(), 1)
        self.assertEqual(len(host.events), count)

    def test_the_codes_of_lists_that_nikon_has_not_never_come(self):
        _, host = self.start()
        host.wait_for_event(13, count=2)
        never = {2, Lumatie.TETHER_COLORTEMP, Lumatie.TETHER_COLORTEMP_LIST, 14}
        self.assertEqual(never & set(host.codes()), set())


class Settings(NikonTestCase):
    """SetValue takes positions."""

    TYPES = {
        Lumatie.TETHER_SHUTTERSPEED: SHUTTER_SPEED,
        Lumatie.TETHER_APERTURE: APERTURE,
        Lumatie.TETHER_ISO: SENSITIVITY,
        Lumatie.TETHER_WB: WHITE_BALANCE,
    }

    def test_a_position_of_each_setting_is_set_and_reported(self):
        tether, host = self.start(wait=True)
        for code, capability in self.TYPES.items():
            self.assertEqual(tether.SetValue(code, 4), 1)
            self.assertEqual(self.nikon.value(capability), 3)
            host.wait_for_call(code, 4)

    def test_only_the_low_16_bits_count(self):
        tether, _ = self.start(wait=True)
        tether.SetValue(Lumatie.TETHER_ISO, 0x10000 + 3)
        self.assertEqual(self.nikon.value(SENSITIVITY), 2)

    def test_position_0_and_one_beyond_the_list_change_nothing(self):
        tether, _ = self.start(wait=True)
        before = self.nikon.value(SENSITIVITY)
        for position in (0, 0x10000, 0xFFFF, -1, 30000):
            self.assertEqual(tether.SetValue(Lumatie.TETHER_ISO, position), 1)
        self.assertEqual(self.nikon.value(SENSITIVITY), before)
        self.assertNotIn("CapSet(source#1, 0x8117", self.nikon.story())

    def test_other_types_do_nothing(self):
        tether, _ = self.start(wait=True)
        before = [self.nikon.value(capability) for capability in self.TYPES.values()]
        for code in (Lumatie.TETHER_COLORTEMP, 0, 1, 2, 4, 13, 14, 99, -1):
            self.assertEqual(tether.SetValue(code, 2), 1)
        after = [self.nikon.value(capability) for capability in self.TYPES.values()]
        self.assertEqual(after, before)

    def test_what_may_not_be_set_stays(self):
        self.nikon.turn_dial(DIAL_APERTURE)
        tether, _ = self.start(wait=True)
        before = self.nikon.value(SHUTTER_SPEED)
        self.assertEqual(tether.SetValue(Lumatie.TETHER_SHUTTERSPEED, 1), 1)
        self.assertEqual(self.nikon.value(SHUTTER_SPEED), before)

    def test_a_refused_value_returns_1_and_the_next_report_shows_the_old_one(self):
        tether, host = self.start(wait=True)
        before = self.nikon.value(SENSITIVITY) + 1
        self.nikon.fault("CapSet code=-5 capability=0x8117 calls=0")
        self.assertEqual(tether.SetValue(Lumatie.TETHER_ISO, 2), 1)
        host.clear()
        host.wait_for_event(13)
        self.assertEqual({e.values for e in host.of(Lumatie.TETHER_ISO)}, {(before,)})

    def test_lists_stay_whole_while_settings_are_changed_all_the_time(self):
        tether, host = self.start(wait=True)
        stop = threading.Event()

        def slide():
            for position in itertools.cycle(range(1, 9)):
                if stop.is_set():
                    return
                tether.SetValue(Lumatie.TETHER_ISO, position)

        threads = [threading.Thread(target=slide, daemon=True) for _ in range(2)]
        for thread in threads:
            thread.start()
        host.clear()
        host.wait_for_event(13, count=3)
        stop.set()
        for thread in threads:
            thread.join(20)
        expected = list_text(self.nikon.texts(SENSITIVITY), True)
        self.assertEqual({e.text for e in host.of(Lumatie.TETHER_ISO_LIST)}, {expected})


class Pictures(NikonTestCase):
    """Pictures on their way into the folder."""

    def assert_written(self, host, content, extension):
        path = host.wait_for_picture()
        with open(path, "rb") as file:
            self.assertEqual(file.read(), content)
        folder, name = os.path.split(path)
        self.assertEqual(folder, self.folder)
        self.assertRegex(name, r"^Nikon_\d+_\d+\{}$".format(extension))

    def test_a_picture_is_written_as_it_is_on_the_camera_and_announced(self):
        tether, host = self.start(wait=True)
        self.shoot(tether)
        self.nikon.wait_for_delivered(1)
        self.assert_written(host, self.nikon.picture_bytes(0), ".jpg")
        self.assertEqual(len(host.of(Lumatie.TETHER_GENERAL)), 1)
        self.assertEqual(self.nikon.listed(), 0)

    def test_a_picture_of_the_bodys_button_is_written(self):
        _, host = self.start(wait=True)
        self.nikon.press_shutter()
        self.nikon.wait_for_delivered(1)
        self.assert_written(host, self.nikon.picture_bytes(0), ".jpg")

    def test_a_pair_of_files_of_ones_own_arrives_unchanged(self):
        own = os.path.join(self.base, "own files")
        os.mkdir(own)
        pair = {".nef": os.urandom(600000), ".jpg": os.urandom(300000)}
        for extension, content in pair.items():
            with open(os.path.join(own, "holiday" + extension.upper()), "wb") as file:
                file.write(content)
        self.nikon.configure("value.0x8110 = 6\npicture.folder = " + own)
        tether, host = self.start(wait=True)
        self.shoot(tether)
        host.wait_for_picture(2)
        written = {os.path.splitext(name)[1]: name for name in self.files()}
        self.assertEqual(sorted(written), [".jpg", ".nef"])
        for extension, name in written.items():
            with open(os.path.join(self.folder, name), "rb") as file:
                self.assertTrue(file.read() == pair[extension], name)
        names = [picture["name"] for picture in self.nikon.pictures()]
        self.assertEqual(names, ["holiday.NEF", "holiday.JPG"])

    def test_two_requests_within_a_cycle_make_one_capture(self):
        asked = []

        def ask_twice(event):
            # A request that comes with a report's start is never lost.
            if event.code == Lumatie.TETHER_EXPOSUREMODE and not asked:
                asked.extend(tether.Shoot() for _ in range(2))

        host, tether = Host(ask_twice), Lumatie.Lumatie()
        self.end_with_test(tether)
        self.assertEqual(tether.Init(MODULE, self.folder, host), 1)
        host.wait_for_picture()
        host.clear()
        host.wait_for_event(13, count=2)
        self.assertEqual(asked, [1, 1])
        self.assertEqual(len(self.nikon.pictures()), 1)

    def test_a_request_inside_the_callback_that_announces_a_picture_is_dropped(self):
        asked = []

        def ask_again(event):
            if event.code == Lumatie.TETHER_GENERAL:
                asked.append(tether.Shoot())

        tether, host = self.start(Host(ask_again), wait=True)
        self.shoot(tether)
        host.wait_for_picture()
        host.clear()
        host.wait_for_event(13, count=2)
        self.assertEqual(asked, [1])
        self.assertEqual(len(self.nikon.pictures()), 1)

    def test_each_file_type_has_its_extension(self):
        types = {1: ".jpg", TIFF: ".tif", NEF: ".nef", NDF: ".ndf", 3: ".dat", 0: ".dat"}
        contents = {}
        for file_type, extension in types.items():
            content = os.urandom(3000)
            contents[content] = extension
            self.nikon.add_item(content, file_type)
        _, host = self.start()
        host.wait_for_picture(len(types))
        written = {content: os.path.splitext(name)[1] for name, content in self.contents().items()}
        self.assertEqual(written, contents)

    def test_rows_of_an_image_are_written_as_raw(self):
        self.nikon.configure("transfer.chunk = 1000")
        content = os.urandom(300 * 40)
        self.nikon.add_item(content, ROWS, row_bytes=300)
        _, host = self.start()
        self.assert_written(host, content, ".raw")

    def test_parts_that_sum_up_to_the_total_make_one_file_and_one_event(self):
        self.nikon.configure("transfer.chunk = 1000")
        content = os.urandom(10000)
        self.nikon.add_item(content)
        _, host = self.start()
        self.assert_written(host, content, ".jpg")
        host.clear()
        host.wait_for_event(13, count=1)
        self.assertEqual(len(self.files()), 1)
        self.assertEqual(host.of(Lumatie.TETHER_GENERAL), [])

    def test_an_item_that_is_a_movie_or_a_thumbnail_is_passed_over(self):
        self.nikon.add_item(b"movie" * 100, data_types=MOVIE)
        self.nikon.add_item(b"thumb" * 100, data_types=THUMBNAIL)
        content = os.urandom(3000)
        self.nikon.add_item(content, data_types=IMAGE)
        _, host = self.start()
        self.assert_written(host, content, ".jpg")
        self.assertEqual(self.nikon.listed(), 2)
        self.assertEqual(len(self.files()), 1)

    def test_a_hundred_pictures_of_one_second_have_names_of_their_own(self):
        contents = {os.urandom(100) for _ in range(100)}
        for content in contents:
            self.nikon.add_item(content)
        _, host = self.start()
        host.wait_for_picture(100)
        self.assertEqual(set(self.contents().values()), contents)
        self.assertEqual(len(self.files()), 100)

    def test_a_picture_that_stays_listed_is_written_once(self):
        self.nikon.configure("items.remove = 0")
        _, host = self.start(wait=True)
        self.nikon.press_shutter()
        host.wait_for_picture()
        host.clear()
        host.wait_for_event(13, count=3)
        self.assertEqual(len(self.files()), 1)

    def test_each_session_fetches_what_the_card_still_holds(self):
        self.nikon.configure("items.remove = 0")
        for number in range(5):
            self.nikon.add_item(b"picture %d" % number)
        for files in (5, 10, 15):
            tether, host = self.start()
            host.wait_for_picture(5)
            tether.Uninit()
            self.assertEqual(len(self.files()), files)

    def test_no_event_comes_while_a_picture_is_fetched(self):
        _, host = self.start(wait=True)
        self.nikon.configure("picture.size = 2000000\ntransfer.rate = 1")
        self.nikon.configure("transfer.chunk = 10000\ntransfer.per_call = 1")
        self.nikon.press_shutter()
        wait_until(
            lambda: any(picture["started"] for picture in self.nikon.pictures()),
            "its transfer has begun",
        )
        host.clear()
        begun = time.monotonic()
        host.wait_for_picture()
        self.assertEqual(host.codes()[0], Lumatie.TETHER_GENERAL)
        # Without the transfer a report would have come within a second.
        self.assertGreater(time.monotonic() - begun, 1.5)

    def test_a_folder_that_does_not_exist_makes_no_event_and_loses_no_picture(self):
        tether, host = self.start(folder=os.path.join(self.base, "missing"), wait=True)
        self.nikon.press_shutter()
        host.clear()
        host.wait_for_event(13, count=2)
        self.assertEqual(host.of(Lumatie.TETHER_GENERAL), [])
        self.assertEqual(self.nikon.listed(), 1)
        tether.UpdateExportFolder(self.folder)
        host.wait_for_picture()
        self.assertEqual(list(self.contents().values()), [self.nikon.picture_bytes(0)])

    def test_an_empty_folder_text_is_a_write_failure_and_nothing_is_written_anywhere(self):
        tether, host = self.start(wait=True)
        tether.UpdateExportFolder("")
        self.nikon.press_shutter()
        host.wait_for_failure()
        self.assertEqual(self.files(), [])
        self.assertEqual([name for name in os.listdir(os.sep) if name.startswith("Nikon_")], [])

    def test_a_camera_that_lets_go_of_what_was_taken_over_keeps_its_picture_without_a_folder(self):
        self.nikon.configure("items.remove = 1")
        tether, host = self.start(wait=True)
        tether.UpdateExportFolder("")
        self.nikon.press_shutter()
        host.wait_for_failure(2)  # it is tried again
        self.assertEqual(self.nikon.listed(), 1)
        tether.UpdateExportFolder(self.folder)
        host.wait_for_picture()
        self.assertEqual(list(self.contents().values()), [self.nikon.picture_bytes(0)])

    def test_folders_with_quotes_blanks_and_other_alphabets(self):
        for name in folder_names("with blank", "it's", 'a "quote"', "übung", "写真"):
            with self.subTest(folder=name):
                folder = os.path.join(self.base, name)
                os.mkdir(folder)
                tether, host = self.start(folder=folder)
                picture = len(self.nikon.pictures())
                self.nikon.press_shutter()
                path = host.wait_for_picture()
                self.assertEqual(os.path.dirname(path), folder)
                with open(path, "rb") as file:
                    self.assertEqual(file.read(), self.nikon.picture_bytes(picture))
                tether.Uninit()

    FULL_DISK = """
import resource, signal, sys
from nikon_support import MODULE, VirtualNikon
from support import Host, Lumatie

nikon, host, tether = VirtualNikon(), Host(), Lumatie.Lumatie()
nikon.configure("picture.size = 100000\\nitems.remove = " + sys.argv[2])
signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
resource.setrlimit(resource.RLIMIT_FSIZE, (50000, resource.RLIM_INFINITY))
nikon.press_shutter()
assert tether.Init(MODULE, sys.argv[1], host) == 1
host.wait_for_failure()
resource.setrlimit(resource.RLIMIT_FSIZE, (resource.RLIM_INFINITY, resource.RLIM_INFINITY))
"""

    def run_with_a_full_disk(self, remove, rest):
        run = run_host(self.FULL_DISK + rest, arguments=(self.folder, remove))
        self.assertEqual((run.status, run.stderr), (0, ""))

    @unittest.skipIf(ON_WINDOWS, "Windows has no limit of a file's size to run into")
    def test_a_picture_that_stays_listed_is_written_once_the_disk_has_room(self):
        self.run_with_a_full_disk(0, "host.wait_for_picture()\ntether.Uninit()")
        self.assertEqual([len(content) for content in self.contents().values()], [100000])

    @unittest.skipIf(ON_WINDOWS, "Windows has no limit of a file's size to run into")
    def test_a_picture_that_the_camera_lets_go_of_is_lost_with_its_write(self):
        self.run_with_a_full_disk(
            1,
            """
assert nikon.listed() == 0
cycles = len(host.of(13))
host.wait_for_event(13, cycles + 2)
tether.Uninit()
assert len(host.of(Lumatie.TETHER_GENERAL)) == 1, host.calls()
""",
        )
        self.assertEqual(self.files(), [])

    @unittest.skipIf(ON_WINDOWS, "Windows has no limit of a file's size to run into")
    def test_rows_of_an_image_that_a_full_disk_cuts_off_are_announced_as_a_picture(self):
        run = run_host(
            """
import resource, signal, sys
from nikon_support import MODULE, VirtualNikon
from support import Host, Lumatie

nikon, host, tether = VirtualNikon(), Host(), Lumatie.Lumatie()
nikon.configure("picture.raw_size = 100000\\npicture.file_type = -1\\nitems.remove = 1")
signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
resource.setrlimit(resource.RLIMIT_FSIZE, (50000, resource.RLIM_INFINITY))
nikon.press_shutter()
assert tether.Init(MODULE, sys.argv[1], host) == 1
host.wait_for_picture()
tether.Uninit()
assert nikon.listed() == 0
""",
            arguments=(self.folder,),
        )
        self.assertEqual((run.status, run.stderr), (0, ""))
        self.assertEqual([len(content) for content in self.contents().values()], [50000])

    @unittest.skipIf(ON_WINDOWS, "Windows has no limit of a file's size to run into")
    def test_a_full_disk_is_a_write_failure_and_nothing_is_left(self):
        script = """
import resource, sys
from nikon_support import MODULE, VirtualNikon
from support import Host, Lumatie

nikon, host, tether = VirtualNikon(), Host(), Lumatie.Lumatie()
nikon.configure("picture.size = 100000")
import signal
signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
resource.setrlimit(resource.RLIMIT_FSIZE, (50000, 50000))
nikon.press_shutter()
assert tether.Init(MODULE, sys.argv[1], host) == 1
host.wait_for_failure()
tether.Uninit()
"""
        run = run_host(script, arguments=(self.folder,))
        self.assertEqual((run.status, run.stderr), (0, ""))
        self.assertEqual(self.files(), [])

    def test_a_path_that_is_too_long_ends_the_process_and_nothing_is_written(self):
        folder = os.path.join(self.base, "x" * (240 - len(self.base)))
        os.mkdir(folder)
        run = run_host(
            """
            import sys
            from nikon_support import MODULE, VirtualNikon
            from support import Host, Lumatie
            nikon, host, tether = VirtualNikon(), Host(), Lumatie.Lumatie()
            nikon.press_shutter()
            assert tether.Init(MODULE, sys.argv[1], host) == 1
            host.wait_for_picture()
            """,
            arguments=[folder],
        )
        self.assertEqual(run.status, 3, run.stderr)
        said = "Lumatie: the path of a picture is longer than 259 bytes; the process ends.\n"
        self.assertEqual((run.stderr, self.files(folder)), (said, []))

    def test_a_new_file_text_holds_the_path_as_it_is(self):
        _, host = self.start(wait=True)
        self.nikon.press_shutter()
        path = host.wait_for_picture()
        text = host.of(Lumatie.TETHER_GENERAL)[0].text
        self.assertEqual(text, "{'GENERAL_NEWFILE':r'" + path + "'}")
        self.assertEqual(picture_path(text), path)

    def test_shooting_without_a_camera_is_dropped(self):
        tether, _ = self.start(wait=True)
        self.nikon.unplug()
        self.assertEqual(tether.Shoot(), 1)
        tether.Uninit()
        self.assertEqual(self.nikon.pictures(), [])


class Console(NikonTestCase):
    """What the session says on standard output."""

    SCRIPT = """
import sys
from nikon_support import MODULE, VirtualNikon
from support import Host, Lumatie

nikon, host, tether = VirtualNikon(), Host(), Lumatie.Lumatie()
nikon.configure(sys.argv[2])
for _ in range(int(sys.argv[3])):
    nikon.press_shutter()
    nikon.wait_until_idle()
started = tether.Init(MODULE, sys.argv[1], host)
if started:
    host.wait_for_event(13)
    if int(sys.argv[3]):
        host.wait_for_picture(int(sys.argv[3]))
tether.Uninit()
"""

    def said(self, settings="", pictures=0):
        run = run_host(self.SCRIPT, arguments=(self.folder, settings, pictures))
        self.assertEqual((run.status, run.stderr), (0, ""))
        # Whether the monitor looks for a further item before the end is a matter of chance.
        end = "There is no item.\n\n"
        return run.stdout[: -len(end)] if run.stdout.endswith(end) else run.stdout

    def test_a_session_without_a_picture(self):
        self.assertEqual(
            self.said("events.on_set = 0"),
            "Source object is opened.\n\n[Save Media]\nCurrent Value: 0\n",
        )

    def test_a_session_and_a_picture(self):
        self.assertEqual(
            self.said("events.on_set = 0", 1),
            "Source object is opened.\n\n[Save Media]\nCurrent Value: 0\n"
            "Item object is opened.\n\n1. Image\nImage object is opened.\n\n"
            "\n0       20        40        60        80        100"
            "\n---------+---------+---------+---------+---------+\n" + "]" * 50 + "\n",
        )

    UNREAD = """
import os
import sys
import threading
import time
from nikon_support import MODULE, VirtualNikon
from support import Host, Lumatie

# Somebody has written more than the pipe takes, and waits for a reader.
threading.Thread(target=os.write, args=(1, b"x" * 2**22), daemon=True).start()
nikon, host, tether = VirtualNikon(), Host(), Lumatie.Lumatie()
took = []

def timed(operation, *arguments):
    start = time.monotonic()
    assert operation(*arguments) == 1
    took.append(time.monotonic() - start)

timed(tether.Init, MODULE, sys.argv[1], host)
host.wait_for_event(13)
nikon.press_shutter()
host.wait_for_picture()
host.clear()
timed(tether.SetValue, Lumatie.TETHER_SHUTTERSPEED, 1)
host.wait_for_call(Lumatie.TETHER_SHUTTERSPEED, 1)
timed(tether.Shoot)
timed(tether.Uninit)
print("done", max(took) < 5, file=sys.stderr)
"""

    def test_nothing_waits_for_a_standard_output_that_nobody_reads(self):
        host = start_host(self.UNREAD, arguments=(self.folder,))
        self.addCleanup(host.communicate)
        self.addCleanup(host.kill)
        self.assertEqual(host.wait(60), 0)
        self.assertEqual(decode_output(host.stderr.read()), "done True\n")

    def test_failed_starts_say_why(self):
        texts = {
            "fault = Open code=-1": "Module object can't be opened.\n\n",
            "fault = GetCapCount code=-1": "Failed in enumeration of capabilities.\n",
            "fault = CapSet code=-1 capability=3": "Failed in setting a call back function.\n",
            "fault = CapSet code=-1 capability=0x8101": (
                "Failed in setting kNkMAIDCapability_ModuleMode.\n"
            ),
            "fault = Open code=-1 skip=1": (
                "Failed in Opening an object.\nSource object can't be opened.\n\n"
            ),
        }
        for settings, text in texts.items():
            with self.subTest(settings=settings):
                self.assertEqual(self.said(settings), text)

    def test_a_source_setting_that_cannot_be_changed(self):
        said = self.said("corrupt.source.0x8305.operations = 2")
        self.assertTrue(
            said.startswith(
                "Source object is opened.\n\n[Save Media]\nCurrent Value: 0\n"
                "This value cannot be changed. Enter '0' to exit.\n>"
            ),
            said,
        )


class End(NikonTestCase):
    """How a session ends."""

    @timed
    def test_uninit_returns_within_a_second_and_nothing_comes_after_it(self):
        tether, host = self.start(wait=True)
        with within(1):
            self.assertEqual(tether.Uninit(), 1)
        count = len(host.events)
        time.sleep(1.2)
        self.assertEqual(len(host.events), count)
        self.assertEqual(self.nikon.open_objects(), [])

    def test_uninit_during_a_download_waits_for_its_end(self):
        self.nikon.configure("picture.size = 2000000\ntransfer.rate = 4")
        tether, _ = self.start(wait=True)
        self.nikon.press_shutter()
        wait_until(
            lambda: [p for p in self.nikon.pictures() if p["started"]], "the transfer has begun"
        )
        self.assertEqual(tether.Uninit(), 1)
        self.assertEqual(list(self.contents().values()), [self.nikon.picture_bytes(0)])

    @timed
    def test_uninit_comes_back_from_a_command_that_never_completes(self):
        tether, _ = self.start(wait=True)
        self.nikon.fault("CapGet never")
        wait_until(self.nikon.pending, "a command that does not complete")
        with within(10):
            self.assertEqual(tether.Uninit(), 1)
        self.nikon.release_completions()

    def test_uninit_comes_back_from_a_command_that_hangs(self):
        # In a process of its own: the module stays loaded until the thread comes back.
        script = """
import sys, time
from nikon_support import MODULE, VirtualNikon
from support import Host, Lumatie, wait_until

nikon, host, tether = VirtualNikon(), Host(), Lumatie.Lumatie()
assert tether.Init(MODULE, sys.argv[1], host) == 1
host.wait_for_event(13)
nikon.fault("CapGet hang")
nikon.wait_for_hang("CapGet")
begun = time.monotonic()
assert tether.Uninit() == 1
taken = time.monotonic() - begun
assert taken < 10, taken
count = len(host.events)
nikon.release_hangs()
wait_until(lambda: nikon.open_objects() == [], "the session is collected")
assert len(host.events) == count
assert tether.Uninit() == 0
assert tether.Init(MODULE, sys.argv[1], host) == 1
host.wait_for_event(13)
assert tether.Uninit() == 1
"""
        run = run_host(script, arguments=(self.folder,))
        self.assertEqual((run.status, run.stderr), (0, ""))

    def test_a_hundred_sessions_leave_nothing_behind(self):
        script = """
import sys
from nikon_support import MODULE
from support import Host, Lumatie
from this_process import ON_WINDOWS, has_library, native_threads, open_handles

def session(tether=Lumatie.Lumatie()):
    host = Host()
    assert tether.Init(MODULE, sys.argv[1], host) == 1
    assert has_library(MODULE)
    assert tether.Uninit() == 1
    assert not has_library(MODULE)

for _ in range(20):
    session()
# On Windows each loading of a virtual camera's library costs a few handles.
before = native_threads(), ON_WINDOWS or open_handles()
for _ in range(100):
    session()
after = native_threads(), ON_WINDOWS or open_handles()
assert after == before, (before, after)
"""
        run = run_host(script, arguments=(self.folder,))
        self.assertEqual((run.status, run.stderr), (0, ""))

    def test_a_hundred_sessions_with_a_module_that_stays_loaded_leave_nothing_behind(self):
        script = """
import sys
from nikon_support import MODULE, VirtualNikon
from support import Lumatie
from this_process import open_handles, resident_bytes

nikon, tether = VirtualNikon(), Lumatie.Lumatie()
nikon.configure("log.lines = 100")

def sessions(count):
    for _ in range(count):
        assert tether.Init(MODULE, sys.argv[1], None) == 1
        assert tether.Uninit() == 1

sessions(20)
handles, memory = open_handles(), resident_bytes()
sessions(100)
# What the system makes once, at some time, is none of theirs.
assert open_handles() <= handles + 5, (handles, open_handles())
assert resident_bytes() - memory < 500 * 1024, (memory, resident_bytes())
"""
        run = run_host(script, arguments=(self.folder,))
        self.assertEqual((run.status, run.stderr), (0, ""))

    def test_a_second_start_leaves_the_first_session_alone_until_uninit_ends_both(self):
        # The module allows its Module object to be opened once only.
        first, second = Host(), Host()
        tether, _ = self.start(first, wait=True)
        self.assertEqual(tether.Init(MODULE, self.folder, second), 0)
        second.wait_for_event(13)
        self.assertEqual(tether.Uninit(), 1)
        self.assertEqual(self.nikon.open_objects(), [])
        self.assertEqual(self.nikon.misuse(), ["Open: the module is open already"])
        self.nikon.clear_misuse()

    def test_uninit_inside_the_callable_returns_1_and_nothing_comes_after_it(self):
        results, done = [], threading.Event()

        def on_event(event):
            if event.code == Lumatie.TETHER_APERTURE:
                results.append(tether.Uninit())
                done.set()

        host = Host(on_event)
        tether = Lumatie.Lumatie()
        self.end_with_test(tether)
        self.assertEqual(tether.Init(MODULE, self.folder, host), 1)
        self.assertTrue(done.wait(20))
        wait_until(lambda: not self.nikon.open_objects(), "the session has ended")
        self.assertEqual(results, [1])
        self.assertEqual(host.codes()[-1], Lumatie.TETHER_APERTURE)
        self.assertEqual(tether.Uninit(), 0)

    def test_an_object_that_is_dropped_ends_its_session(self):
        tether, host = self.start(wait=True)
        del tether
        wait_until(lambda: not self.nikon.open_objects(), "the session has ended")
        count = len(host.events)
        self.assertEqual(len(host.events), count)

    def test_an_object_that_is_dropped_inside_the_callable_ends_its_session(self):
        holder, done = [], threading.Event()

        def on_event(event):
            if event.code == Lumatie.TETHER_ISO and holder:
                holder.clear()
                done.set()

        host = Host(on_event)
        holder.append(Lumatie.Lumatie())
        self.assertEqual(holder[0].Init(MODULE, self.folder, host), 1)
        self.assertTrue(done.wait(20))
        wait_until(lambda: not self.nikon.open_objects(), "the session has ended")

    def test_a_callable_that_raises_gets_the_next_event(self):
        script = """
import sys
from nikon_support import MODULE
from support import Host, Lumatie

def fail(event):
    raise RuntimeError("host at fault")

host, tether = Host(fail), Lumatie.Lumatie()
assert tether.Init(MODULE, sys.argv[1], host) == 1
host.wait_for_event(13)
tether.Uninit()
"""
        run = run_host(script, arguments=(self.folder,))
        self.assertEqual(run.status, 0, run.stderr)
        self.assertGreaterEqual(run.stderr.count("RuntimeError: host at fault"), 10)


class BothMakers(NikonTestCase):
    """Canon and Nikon in one process."""

    def test_one_after_the_other_with_one_object(self):
        tether = Lumatie.Lumatie()
        self.end_with_test(tether)
        for _ in range(3):
            canon, nikon = Host(), Host()
            self.assertEqual(tether.Init(CAMERA_NAME, self.folder, canon), 1)
            canon.wait_for_event(Lumatie.TETHER_SHUTTERSPEED_LIST)
            tether.Shoot()
            self.assertRegex(canon.wait_for_picture(), r"[/\\]Canon_\d+_\d+\.JPG$")
            self.assertEqual(tether.Uninit(), 1)
            self.assertEqual(tether.Init(MODULE, self.folder, nikon), 1)
            self.shoot(tether)
            self.assertRegex(nikon.wait_for_picture(), r"[/\\]Nikon_\d+_\d+\.jpg$")
            self.assertEqual(tether.Uninit(), 1)

    def test_both_at_once_with_two_objects(self):
        canon, nikon = Host(), Host()
        first, second = Lumatie.Lumatie(), Lumatie.Lumatie()
        self.end_with_test(first)
        self.end_with_test(second)
        self.assertEqual(first.Init(CAMERA_NAME, self.folder, canon), 1)
        self.assertEqual(second.Init(MODULE, self.folder, nikon), 1)
        self.camera.wait_for_calls("EdsSetCapacity")
        first.Shoot()
        self.shoot(second)
        self.assertRegex(canon.wait_for_picture(), r"[/\\]Canon_")
        self.assertRegex(nikon.wait_for_picture(), r"[/\\]Nikon_")
        threads = native_threads()
        self.assertEqual(second.Uninit(), 1)
        wait_until(lambda: native_threads() < threads, "the monitor has ended")
        first.Shoot()
        canon.wait_for_picture(2)
        self.assertEqual(len(self.files()), 3)

    def test_a_start_with_canon_ends_the_reports_of_nikon(self):
        tether, _ = self.start(wait=True)
        self.nikon.fault("CapGet hang")
        self.nikon.wait_for_hang("CapGet")
        self.assertEqual(tether.Init(CAMERA_NAME, self.folder, Host()), 1)
        self.camera.wait_for_calls("EdsSetCapacity")
        self.camera.settle()
        threads = native_threads()
        self.nikon.clear_faults()
        self.nikon.release_hangs()
        wait_until(lambda: native_threads() < threads, "the monitor has ended")
        self.assertNotEqual(self.nikon.open_objects(), [])

    def test_a_second_start_with_the_other_maker_is_ended_by_the_same_uninit(self):
        tether, _ = self.start(wait=True)
        self.assertEqual(tether.Init(CAMERA_NAME, self.folder, Host()), 1)
        self.assertEqual(tether.Uninit(), 1)
        self.assertEqual(self.nikon.open_objects(), [])
        self.assertEqual(self.camera.references(), 0)
