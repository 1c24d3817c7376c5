"""Pictures as a host sees them: where they are written, under which names, and what goes wrong.

Faults of the folder are made with missing folders and with files in their place; a folder that may
not be written is not among them, because these tests may run with rights that nothing stops.
"""

import ast
import contextlib
import glob
import io
import os
import re
import shutil
import threading
import time
import unittest
import weakref

from support import (
    DEADLINE,
    IMAGE_QUALITY,
    NEW_FILE_END,
    NEW_FILE_START,
    NEW_PICTURE,
    RAW,
    RAW_AND_JPEG,
    WRITE_FAILURE,
    Host,
    Lumatie,
    TetherTestCase,
    folder_names,
    make_link,
    name_in_library,
    run_host,
    wait_until,
)
from this_process import ON_WINDOWS


class PicturesTestCase(TetherTestCase):
    def setUp(self):
        super().setUp()
        self.elsewhere = set(os.listdir(self.base)) | {"export"}
        self.addCleanup(self._check_that_nothing_lies_elsewhere)
        self.tether, self.host = self.start()
        self.host.clear()

    def _check_that_nothing_lies_elsewhere(self):
        self.assertEqual(glob.glob(os.sep + "Canon_*") + glob.glob("Canon_*"), [])
        self.assertLessEqual(set(os.listdir(self.base)), self.elsewhere)

    def subfolder(self, name, make=True):
        """A folder beside the export folder that the test means to use."""
        self.elsewhere.add(name)
        path = os.path.join(self.base, name)
        if make:
            os.mkdir(path)
        return path

    def shoot(self, count=1):
        """Takes a picture and returns the path that the host was told."""
        self.assertEqual(self.tether.Shoot(), 1)
        return self.host.wait_for_picture(count)

    def content(self, path):
        with open(path, "rb") as file:
            return file.read()

    def assert_same_bytes(self, path, index):
        """Not assertEqual: the difference of two pictures would fill the screen."""
        self.assertTrue(self.content(path) == self.camera.picture_bytes(index), path)

    def quality(self, code):
        self.camera.set_property(IMAGE_QUALITY, code)
        self.host.wait_for_event(Lumatie.TETHER_IMAGEQUALITY)


class PictureTest(PicturesTestCase):
    def test_a_picture_is_written_and_announced_with_its_full_path(self):
        self.tether.Shoot()
        event = self.host.wait_for_text("GENERAL")
        path = os.path.join(self.folder, self.files()[0])
        self.assertEqual(event.values, (NEW_FILE_START + path + NEW_FILE_END,))
        self.assertEqual(event.parsed(), {"GENERAL_NEWFILE": path})
        self.assert_same_bytes(path, 0)

    def test_a_picture_is_written_when_it_is_announced(self):
        sizes = []

        def look(event):
            if event.code == Lumatie.TETHER_GENERAL:
                sizes.append(os.path.getsize(event.parsed()["GENERAL_NEWFILE"]))

        self.tether.Uninit()
        self.tether, self.host = self.start(Host(look))
        self.shoot()
        self.camera.settle()
        self.assertEqual(sizes, [self.camera.pictures()[0]["size"]])

    def test_the_name_is_the_vendor_the_second_and_a_number(self):
        before = int(time.time())
        name = os.path.basename(self.shoot())
        match = re.match(r"^Canon_(\d+)_(\d+)\.JPG$", name)
        self.assertTrue(match, name)
        self.assertTrue(before <= int(match.group(1)) <= time.time(), name)
        self.assertLess(int(match.group(2)), 2**31)

    def test_the_camera_is_told_that_the_picture_has_arrived(self):
        self.shoot()
        picture = self.camera.pictures()[0]
        self.assertEqual([picture["downloaded"], picture["complete"]], [1, 1])
        self.camera.settle()
        self.assertEqual(self.camera.references("item") + self.camera.references("stream"), 0)

    def test_a_picture_is_fetched_with_these_calls_in_this_order(self):
        self.camera.clear_log()
        path = self.shoot()
        self.camera.settle()
        calls = [line for line in self.camera.log() if " E event " not in line]
        lines = [re.sub(r"^[^E]* | = 0x0 [\d.]+ ms$|#\d+", "", line) for line in calls]
        begin = lines.index("EdsGetDirectoryItemInfo(item)")
        self.assertEqual(
            lines[begin : begin + 7],
            [
                "EdsGetDirectoryItemInfo(item)",
                'EdsCreateFileStream("{}", 1, 2)'.format(path),
                "EdsSetProgressCallback(stream, 2)",
                "EdsDownload(item, {}, stream)".format(os.path.getsize(path)),
                "EdsDownloadComplete(item)",
                "EdsRelease(item)",
                "EdsRelease(stream)",
            ],
        )

    def test_a_raw_picture_arrives(self):
        self.quality(RAW)
        path = self.shoot()
        self.assertTrue(path.endswith(".CR2"), path)
        self.assert_same_bytes(path, 0)

    def test_raw_and_jpeg_arrive_as_two_files_of_one_shot(self):
        self.quality(RAW_AND_JPEG)
        paths = [self.shoot(), self.host.wait_for_picture(2)]
        self.assertEqual([os.path.splitext(path)[1] for path in paths], [".CR2", ".JPG"])
        self.assertEqual([picture["shot"] for picture in self.camera.pictures()], [1, 1])
        for index, path in enumerate(paths):
            self.assert_same_bytes(path, index)

    def test_a_picture_of_1_kilobyte_arrives_byte_for_byte(self):
        self.camera.configure("picture.width = 16\npicture.height = 16\npicture.size = 1000")
        path = self.shoot()
        self.assertLess(os.path.getsize(path), 2000)
        self.assert_same_bytes(path, 0)

    def test_a_picture_of_60_megabytes_arrives_byte_for_byte(self):
        self.camera.configure("picture.size = 60000000")
        path = self.shoot()
        self.assertEqual(os.path.getsize(path), 60000000)
        self.assert_same_bytes(path, 0)

    def test_a_raw_picture_of_60_megabytes_arrives_byte_for_byte(self):
        self.quality(RAW)
        self.camera.configure("picture.raw_size = 60000000")
        path = self.shoot()
        self.assertEqual(os.path.getsize(path), 60000000)
        self.assert_same_bytes(path, 0)

    def test_a_picture_taken_on_the_body_arrives_too(self):
        self.camera.press_shutter()
        path = self.host.wait_for_picture()
        self.assertEqual(self.camera.pictures()[0]["origin"], 1)
        self.assert_same_bytes(path, 0)

    def test_pictures_arrive_in_the_order_in_which_they_were_taken(self):
        for count in range(1, 6):
            self.assert_same_bytes(self.shoot(count), count - 1)

    def test_a_burst_within_a_second_overwrites_nothing(self):
        self.camera.configure("shutter.busy = 0\npicture.size = 1000\npicture.width = 16")
        for _ in range(40):
            self.camera.press_shutter()
        paths = [self.host.wait_for_picture(count) for count in range(1, 41)]
        self.assertEqual(len(set(paths)), 40)
        self.assertEqual(sorted(map(os.path.basename, paths)), self.files())
        for index, path in enumerate(paths):
            self.assert_same_bytes(path, index)

    def test_a_picture_that_is_announced_twice_is_written_twice(self):
        self.camera.event_rule("0x208 double")
        first, second = self.shoot(), self.host.wait_for_picture(2)
        self.assertNotEqual(first, second)
        self.assert_same_bytes(first, 0)
        self.assert_same_bytes(second, 0)

    def test_a_picture_without_a_callable_is_written_all_the_same(self):
        self.tether.Uninit()
        self.tether.Init("Virtual EOS", self.folder, None)
        self.camera.settle()
        self.tether.Shoot()
        self.camera.wait_for_calls("EdsDownloadComplete")
        self.camera.settle()
        self.assert_same_bytes(os.path.join(self.folder, self.files()[0]), 0)

    def test_pictures_arrive_in_the_second_session_of_an_object(self):
        self.shoot()
        self.tether.Uninit()
        self.assertEqual(self.tether.Init("Virtual EOS", self.folder, self.host), 1)
        self.assert_same_bytes(self.shoot(2), 1)


class OwnFilesTest(PicturesTestCase):
    def test_a_pair_of_files_of_ones_own_arrives_unchanged_and_begins_anew(self):
        own = self.subfolder("own files")
        pair = {}
        for extension in (".CR2", ".jpg"):
            pair[extension] = os.urandom(300000)
            with open(os.path.join(own, "holiday" + extension), "wb") as file:
                file.write(pair[extension])
        self.quality(RAW_AND_JPEG)
        self.camera.configure("picture.folder = " + own)
        for count in (1, 3):
            for path in self.shoot(count), self.host.wait_for_picture(count + 1):
                self.assertTrue(self.content(path) == pair[os.path.splitext(path)[1]], path)
        names = [picture["name"] for picture in self.camera.pictures()]
        self.assertEqual(names, 2 * ["holiday.CR2", "holiday.jpg"])
        self.assertEqual(
            [os.path.splitext(name)[1] for name in self.files()].count(".CR2"), 2, self.files()
        )


class FolderTest(PicturesTestCase):
    def test_an_updated_folder_takes_the_next_picture(self):
        first = self.shoot()
        other = self.subfolder("other")
        self.assertEqual(self.tether.UpdateExportFolder(other), 1)
        second = self.shoot(2)
        self.assertEqual((os.path.dirname(first), os.path.dirname(second)), (self.folder, other))
        self.assert_same_bytes(second, 1)

    def test_a_folder_that_changes_during_a_download_is_for_the_next_picture(self):
        self.camera.fault("EdsDownload hang")
        self.tether.Shoot()
        self.camera.wait_for_hang("EdsDownload")
        other = self.subfolder("other")
        self.tether.UpdateExportFolder(other)
        self.camera.release_hangs()
        self.assertEqual(os.path.dirname(self.host.wait_for_picture()), self.folder)
        self.assert_same_bytes(os.path.join(self.folder, self.files()[0]), 0)
        self.assertEqual(os.path.dirname(self.shoot(2)), other)

    def test_a_folder_may_have_any_name(self):
        names = folder_names(
            "two words",
            " blanks ",
            "ü",
            "写真",
            "back\\slash",
            "%s%n%d",
            "{0}",
            '"',
            "\t",
            "🎞",
        )
        for count, name in enumerate(names, 1):
            with self.subTest(name):
                folder = self.subfolder(name)
                self.tether.UpdateExportFolder(folder)
                path = self.shoot(count)
                self.assertEqual(os.path.dirname(path), folder)
                self.assert_same_bytes(path, count - 1)
                event = self.host.wait_for_text("NEWFILE", count)
                self.assertEqual(event.parsed(), {"GENERAL_NEWFILE": path})

    def test_a_folder_with_a_quote_makes_a_text_that_is_no_literal(self):
        folder = self.subfolder("photographer's")
        self.tether.UpdateExportFolder(folder)
        path = self.shoot()
        self.assert_same_bytes(path, 0)
        text = self.host.wait_for_text("NEWFILE").text
        self.assertEqual(text, NEW_FILE_START + path + NEW_FILE_END)
        with self.assertRaises(SyntaxError):
            ast.literal_eval(text)

    @unittest.skipIf(ON_WINDOWS, "on Windows no folder's name holds a newline")
    def test_a_folder_with_a_newline_is_sent_unchanged(self):
        folder = self.subfolder("two\nlines")
        self.tether.UpdateExportFolder(folder)
        path = self.shoot()
        self.assertEqual(os.path.dirname(path), folder)
        self.assert_same_bytes(path, 0)
        with self.assertRaises(SyntaxError):
            ast.literal_eval(self.host.wait_for_text("NEWFILE").text)

    def test_a_folder_is_used_as_it_stands_also_with_a_trailing_separator(self):
        self.tether.UpdateExportFolder(self.folder + os.sep)
        path = self.shoot()
        self.assertTrue(path.startswith(self.folder + 2 * os.sep + "Canon_"), path)
        self.assert_same_bytes(path, 0)

    def test_a_link_to_a_folder_is_a_folder(self):
        link = self.subfolder("link", make=False)
        make_link(self.folder, link)
        self.tether.UpdateExportFolder(link)
        path = self.shoot()
        self.assertEqual(os.path.dirname(path), link)
        self.assertEqual(self.files(), [os.path.basename(path)])

    def test_a_relative_folder_is_one_of_the_working_directory(self):
        before = os.getcwd()
        self.addCleanup(os.chdir, before)
        os.chdir(self.base)
        self.tether.UpdateExportFolder("export")
        path = self.shoot()
        self.assertTrue(path.startswith(os.path.join("export", "Canon_")), path)
        self.assert_same_bytes(os.path.join(self.base, path), 0)

    def test_a_picture_for_a_missing_folder_is_announced_but_not_written(self):
        missing = self.subfolder("missing", make=False)
        self.tether.UpdateExportFolder(missing)
        path = self.shoot()
        self.assertTrue(path.startswith(os.path.join(missing, "Canon_")), path)
        self.assertFalse(os.path.exists(missing))

    def test_a_picture_for_a_folder_that_is_a_file_is_announced_but_not_written(self):
        file = self.subfolder("file", make=False)
        with open(file, "w") as stream:
            stream.write("mine")
        self.tether.UpdateExportFolder(file)
        self.assertTrue(self.shoot().startswith(os.path.join(file, "Canon_")))
        self.assertEqual(self.content(file), b"mine")

    def test_after_a_picture_that_had_no_folder_the_next_one_is_written(self):
        self.tether.UpdateExportFolder(self.subfolder("missing", make=False))
        self.shoot()
        self.tether.UpdateExportFolder(self.folder)
        self.assert_same_bytes(self.shoot(2), 1)

    @unittest.skipIf(ON_WINDOWS, "Windows removes no folder that holds an open file")
    def test_a_folder_that_vanishes_during_a_download_loses_the_picture_only(self):
        self.camera.fault("EdsDownload hang")
        self.tether.Shoot()
        self.camera.wait_for_hang("EdsDownload")
        shutil.rmtree(self.folder)
        self.camera.release_hangs()
        self.host.wait_for_text("GENERAL_")
        self.assertFalse(os.path.exists(self.folder))
        os.mkdir(self.folder)
        self.tether.Shoot()
        self.host.wait_for_text("GENERAL_", 2)
        self.assertEqual(len(self.files()), 1)

    def test_a_picture_for_no_folder_is_a_write_failure(self):
        self.tether.UpdateExportFolder("")
        self.tether.Shoot()
        self.assertEqual(self.host.wait_for_text("GENERAL_").text, WRITE_FAILURE)
        self.assertEqual(self.camera.calls("EdsCreateFileStream"), 0)
        self.camera.settle()
        self.assertEqual(self.camera.references("item"), 0)

    def test_a_picture_under_way_at_the_end_goes_into_the_folder_set_before(self):
        class Callable:
            def __call__(self, *arguments):
                pass

        self.tether.Uninit()
        callback = Callable()
        gone = weakref.ref(callback)
        self.tether.Init("Virtual EOS", self.folder, callback)
        del callback
        self.camera.wait_for_calls("EdsSetCapacity", 2)
        self.camera.fault("EdsGetDirectoryItemInfo hang")
        self.tether.Shoot()
        self.camera.wait_for_hang("EdsGetDirectoryItemInfo")
        end = threading.Thread(target=self.tether.Uninit)
        end.start()
        wait_until(lambda: gone() is None, "the end has begun")
        self.camera.release_hangs()
        end.join(DEADLINE)
        self.assertFalse(end.is_alive())
        self.assert_same_bytes(os.path.join(self.folder, self.files()[0]), 0)


class CameraNameTest(PicturesTestCase):
    def extension_for(self, name, count=1):
        """What follows the number in the name of a picture that the camera names so."""
        self.camera.set_picture_name(name)
        path = self.shoot(count)
        self.assertEqual(os.path.dirname(path), self.folder)
        self.assert_same_bytes(path, count - 1)
        return re.match(r"^Canon_\d+_\d+(.*)$", os.path.basename(path)).group(1)

    def test_only_the_extension_of_the_cameras_name_is_kept(self):
        names = {
            b"IMG_0001.JPG": ".JPG",
            b"img_0001.jPg": ".jPg",
            b"IMG.0001.CR2": ".CR2",
            b"IMG_0001": "",
            b"IMG_0001.": ".",
            b".hidden": ".hidden",
            b"..": ".",
            b"two words.J P G": ".J P G",
            "写真.ü".encode(): ".ü",
        }
        for count, (name, extension) in enumerate(names.items(), 1):
            self.assertEqual(self.extension_for(name, count), extension, name)

    def test_a_path_in_the_cameras_name_leads_nowhere(self):
        names = {
            b"DCIM/100CANON/IMG_0001.JPG": ".JPG",
            b"../../IMG_0001.JPG": ".JPG",
            b"/IMG_0001.JPG": ".JPG",
            b"..\\..\\IMG_0001.JPG": ".JPG",
            b"IMG.JPG/../evil": "",
            b"IMG.JPG\\..\\evil": "",
            b"IMG./": "",
            b"..": ".",
        }
        for count, (name, extension) in enumerate(names.items(), 1):
            self.assertEqual(self.extension_for(name, count), extension, name)

    def test_a_name_of_255_characters_gives_its_extension(self):
        self.assertEqual(self.extension_for(b"n" * 251 + b".JPG"), ".JPG")

    def test_a_name_without_terminator_gives_its_extension(self):
        self.assertEqual(self.extension_for(b"n" * 252 + b".JPG"), ".JPG")

    def test_a_name_without_terminator_and_extension_gives_none(self):
        self.assertEqual(self.extension_for(b"n" * 256), "")

    def test_a_name_that_is_no_utf_8_still_makes_a_call_and_prints_the_error(self):
        self.camera.set_picture_name(b"IMG_0001.\xff\xfe")
        errors = io.StringIO()
        with contextlib.redirect_stderr(errors):
            self.tether.Shoot()
            self.host.wait_for(lambda events: [event for event in events if event.code is None])
            self.camera.settle()
        self.assertIn("UnicodeDecodeError", errors.getvalue())
        self.assertEqual(self.host.calls(), [(None,)])
        self.assertTrue(self.files()[0].endswith(name_in_library(b".\xff\xfe")), self.files())

    def test_an_extension_that_the_library_cannot_be_told_leaves_no_empty_file(self):
        # No code page has letters of both alphabets, so on Windows the library takes the bytes for
        # others.
        extension = ".写ש"
        self.camera.set_picture_name(b"IMG_0001" + extension.encode())
        self.tether.Shoot()
        path = self.host.wait_for_picture()
        self.camera.settle()
        self.assertRegex(os.path.basename(path), r"^Canon_\d+_\d+" + extension + "$")
        [file] = self.files()
        self.assertTrue(file.endswith(name_in_library(extension.encode())), file)
        self.assert_same_bytes(os.path.join(self.folder, file), 0)

    def test_an_extension_that_makes_the_path_too_long_ends_the_process(self):
        run = run_host(
            """
            import sys
            from support import VirtualCanon, Host, Lumatie
            camera, host, tether = VirtualCanon(), Host(), Lumatie.Lumatie()
            camera.set_picture_name(b"." + b"x" * 254)
            tether.Init("Virtual EOS", sys.argv[1], host)
            tether.Shoot()
            host.wait_for_picture()
            """,
            arguments=[self.folder],
        )
        self.assertEqual((run.status, run.stdout), (3, ""))
        text = r"^Lumatie: the path of a picture is longer than \d+ bytes; the process ends\.\n$"
        self.assertRegex(run.stderr, text)
        self.assertEqual(self.files(), [])


class FailedDownloadTest(PicturesTestCase):
    def assert_write_failure(self):
        """One failure is announced, no file is left, and the next picture arrives."""
        self.tether.Shoot()
        self.assertEqual(self.host.wait_for_text("GENERAL_").text, WRITE_FAILURE)
        self.assertEqual(self.files(), [])
        self.camera.clear_faults()
        self.camera.configure("transfer.disk_full_after = -1")
        self.assert_same_bytes(self.shoot(), 1)
        self.assertEqual(len(self.host.of(Lumatie.TETHER_GENERAL)), 2)

    def test_a_download_that_fails_at_once_is_a_write_failure(self):
        self.camera.fail_next("EdsDownload", 0x02)
        self.assert_write_failure()

    def test_a_download_that_fails_half_way_leaves_no_partial_file(self):
        self.camera.fault("EdsDownload code=0x02 percent=50")
        self.assert_write_failure()

    def test_a_download_that_fails_at_its_end_leaves_no_file(self):
        self.camera.fault("EdsDownload code=0x02 after")
        self.assert_write_failure()

    def test_a_full_disk_is_a_write_failure(self):
        self.camera.configure("transfer.disk_full_after = 1000")
        self.assert_write_failure()

    def test_a_busy_camera_during_a_download_is_a_write_failure_without_another_try(self):
        self.camera.fail_next("EdsDownload", 0x81)
        self.assert_write_failure()
        self.assertEqual(self.camera.calls("EdsDownload"), 2)

    def test_a_camera_that_is_unplugged_half_way_is_a_write_failure(self):
        self.camera.fault("EdsDownload unplug percent=50")
        self.tether.Shoot()
        self.assertEqual(self.host.wait_for_text("GENERAL_").text, WRITE_FAILURE)
        self.assertEqual(self.files(), [])
        self.assertEqual(self.tether.Uninit(), 1)

    def test_a_failed_download_removes_the_own_file_only(self):
        other = os.path.join(self.folder, "Canon_1_1.JPG")
        with open(other, "w") as file:
            file.write("mine")
        self.camera.fault("EdsDownload code=0x02 percent=50")
        self.tether.Shoot()
        self.host.wait_for_failure()
        self.assertEqual(self.files(), ["Canon_1_1.JPG"])

    def test_a_host_that_changes_its_folder_meanwhile_finds_no_partial_file(self):
        shots = os.path.join(self.folder, "shots")
        os.mkdir(shots)
        run = run_host(
            """
            import os, sys
            from support import Host, Lumatie, VirtualCanon, WRITE_FAILURE
            camera, host, tether = VirtualCanon(), Host(), Lumatie.Lumatie()
            os.chdir(sys.argv[1])
            assert tether.Init("Virtual EOS", "shots", host) == 1
            camera.wait_for_calls("EdsSetCapacity")
            camera.fault("EdsDownload hang code=0x2A percent=50")
            tether.Shoot()
            camera.wait_for_hang("EdsDownload")
            assert len(os.listdir("shots")) == 1
            os.chdir(os.path.dirname(sys.argv[1]))
            camera.release_hangs()
            assert host.wait_for_text("GENERAL_").text == WRITE_FAILURE
            tether.Uninit()
            """,
            arguments=[self.folder],
        )
        self.assertEqual((run.status, run.stderr), (0, ""))
        self.assertEqual(os.listdir(shots), [])

    def test_every_failure_is_announced(self):
        self.camera.fail_next("EdsDownload", 0x02, 3)
        for count in range(1, 4):
            self.tether.Shoot()
            self.host.wait_for_failure(count)
        self.assertEqual(self.files(), [])

    def test_a_failure_before_the_download_is_announced_like_a_picture(self):
        faults = ("EdsGetDirectoryItemInfo", "EdsCreateFileStream", "EdsSetProgressCallback")
        for count, function in enumerate(faults, 1):
            with self.subTest(function):
                self.camera.fail_next(function, 0x02)
                path = self.shoot(count)
                self.assertEqual(os.path.dirname(path), self.folder)
                self.assertFalse(os.path.exists(path))
        self.assertEqual(self.camera.calls("EdsDownload"), 0)

    def test_a_camera_that_does_not_hear_of_the_arrival_does_not_matter(self):
        self.camera.fail_next("EdsDownloadComplete", 0x02)
        self.assert_same_bytes(self.shoot(), 0)

    def test_a_release_that_leaves_a_reference_announces_nothing(self):
        # The camera's own copy is released first, then the item, then the stream: that one counts.
        self.camera.fault("EdsRelease code=1 after skip=2")
        self.tether.Shoot()
        self.camera.wait_for_pictures()
        self.camera.settle()
        self.assertEqual(self.host.calls(), [])
        self.assert_same_bytes(os.path.join(self.folder, self.files()[0]), 0)
        self.assert_same_bytes(self.shoot(), 1)

    def test_a_lost_announcement_loses_the_picture_only(self):
        self.camera.event_rule("0x208 lose")
        self.tether.Shoot()
        self.camera.wait_for_pictures()
        self.camera.settle()
        self.assertEqual((self.host.calls(), self.files()), ([], []))
        self.assert_same_bytes(self.shoot(), 1)

    def test_an_announcement_without_a_picture_announces_nothing(self):
        self.camera.send_object_event(NEW_PICTURE, None)
        self.camera.settle()
        self.assertEqual((self.host.calls(), self.files()), ([], []))
        self.camera.clear_misuse()  # asking for the information of nothing

    def test_a_shutter_that_is_refused_brings_no_picture(self):
        for code in (0x60, 0x8D01, 0x81):
            self.camera.fault("EdsSendCommand code={:#x} calls=3".format(code))
            self.tether.Shoot()
            self.camera.settle()
            self.camera.clear_faults()
        self.assertEqual((self.host.calls(), self.files()), ([], []))
        self.assert_same_bytes(self.shoot(), 0)

    def test_a_body_without_the_button_command_takes_pictures_the_other_way(self):
        self.camera.fault("EdsSendCommand code=0x60 command=4 calls=0")
        self.assert_same_bytes(self.shoot(), 0)


if __name__ == "__main__":
    unittest.main()
