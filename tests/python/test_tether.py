"""The tether object as a host sees it: which maker it chooses, what it answers, when it ends."""

import gc
import os
import threading
import unittest

from support import (
    CAMERA_NAME,
    DEADLINE,
    Host,
    Lumatie,
    TetherTestCase,
    make_link,
    run_host,
    wait_until,
)


class TetherObjectTestCase(TetherTestCase):
    def setUp(self):
        super().setUp()
        self.host = Host()
        self.tether = Lumatie.Lumatie()
        self.end_with_test(self.tether)

    def init(self, name=CAMERA_NAME, host=None):
        return self.tether.Init(name, self.folder, host or self.host)

    def path(self, name, content=None):
        """A path in a folder of the test's own; with content, of a file that is there."""
        path = os.path.join(self.base, name)
        if content is not None:
            with open(path, "wb") as file:
                file.write(content)
        return path

    def functions(self):
        """The functions that were called so far, in order."""
        lines = [line.split(" ", 3)[3] for line in self.camera.log()]
        return [line.split("(")[0] for line in lines if not line.startswith("event ")]


class NoVendorTest(TetherObjectTestCase):
    def test_uninit_of_a_fresh_object_returns_0(self):
        self.assertEqual(self.tether.Uninit(), 0)
        self.assertEqual(self.camera.calls(), 0)

    def test_shoot_without_a_vendor_returns_1_and_does_nothing(self):
        self.assertEqual(self.tether.Shoot(), 1)
        self.assertEqual(self.camera.calls(), 0)

    def test_set_value_without_a_vendor_returns_1_and_does_nothing(self):
        for kind in range(-1, 20):
            self.assertEqual(self.tether.SetValue(kind, 1), 1)
        self.assertEqual(self.camera.calls(), 0)

    def test_update_of_the_folder_needs_no_vendor_and_no_folder(self):
        missing = self.path("missing")
        self.assertEqual(self.tether.UpdateExportFolder(missing), 1)
        self.assertFalse(os.path.exists(missing))
        self.assertEqual(self.camera.calls(), 0)

    def test_every_operation_may_follow_an_end(self):
        self.assertEqual((self.init(), self.tether.Uninit()), (1, 1))
        calls = self.camera.calls()
        self.assertEqual((self.tether.Shoot(), self.tether.SetValue(3, 0x60)), (1, 1))
        self.assertEqual((self.tether.UpdateExportFolder("d"), self.tether.Uninit()), (1, 0))
        self.assertEqual(self.camera.calls(), calls)


class VendorChoiceTest(TetherObjectTestCase):
    def assert_canon(self, info):
        """No camera is named so, but the cameras were asked."""
        self.assertEqual(self.init(info), 0)
        self.assertEqual(self.camera.calls("EdsGetCameraList"), 1)

    def assert_nikon(self, info):
        """The file is no driver module, and no Canon camera was asked."""
        self.assertEqual(self.init(info), 0)
        self.assertEqual(self.camera.calls(), 0)
        self.assertEqual(self.tether.Uninit(), 1)
        self.assertEqual(self.camera.calls(), 0)

    def test_a_text_that_names_nothing_takes_the_canon_road(self):
        self.assert_canon("Virtual EOS II")

    def test_a_path_to_nothing_takes_the_canon_road(self):
        self.assert_canon(self.path("missing.md3"))

    def test_a_directory_takes_the_canon_road(self):
        self.assert_canon(self.folder)

    def test_a_directory_named_like_a_camera_does_not_hide_the_camera(self):
        self.camera.set_name(self.folder.encode())
        self.assertEqual(self.init(self.folder), 1)

    def test_a_dead_link_takes_the_canon_road(self):
        make_link(self.path("missing"), self.path("link"))
        self.assert_canon(self.path("link"))

    def test_an_empty_text_takes_the_canon_road(self):
        self.assert_canon("")

    def test_no_text_takes_the_canon_road(self):
        self.assert_canon(None)

    def test_a_text_longer_than_any_path_takes_the_canon_road(self):
        self.assert_canon("x" * 100000)

    def test_a_normal_file_takes_the_nikon_road(self):
        self.assert_nikon(self.path("Type0001.md3", b"no module"))

    def test_an_empty_file_takes_the_nikon_road(self):
        self.assert_nikon(self.path("Type0001.md3", b""))

    def test_a_read_only_file_takes_the_nikon_road(self):
        path = self.path("Type0001.md3", b"no module")
        os.chmod(path, 0o444)
        self.assert_nikon(path)

    def test_a_link_to_a_file_takes_the_nikon_road(self):
        make_link(self.path("Type0001.md3", b"no module"), self.path("link"))
        self.assert_nikon(self.path("link"))

    def test_a_file_whose_name_is_not_ascii_takes_the_nikon_road(self):
        self.assert_nikon(self.path("写真 ü.md3", b"no module"))

    def test_what_is_neither_file_nor_directory_takes_the_nikon_road(self):
        self.assert_nikon(os.devnull)

    def test_a_file_named_like_the_camera_hides_the_camera(self):
        run = run_host(
            """
            import os, sys, support, Lumatie
            os.chdir(sys.argv[1])
            open("Virtual EOS", "w").close()
            print(Lumatie.Lumatie().Init("Virtual EOS", ".", None), support.VirtualCanon().calls())
            """,
            arguments=[self.folder],
        )
        self.assertEqual(run, (0, "Module object can't be opened.\n\n0 0\n", ""))

    def test_after_a_failed_nikon_start_the_operations_return_1_and_reach_no_camera(self):
        self.init(self.path("Type0001.md3", b"no module"))
        for kind in (1, 3, 11, 13):
            self.assertEqual(self.tether.SetValue(kind, 65537), 1)
        self.assertEqual(self.tether.Shoot(), 1)
        self.assertEqual(self.tether.UpdateExportFolder(self.folder), 1)
        self.assertEqual(self.camera.calls(), 0)

    def test_after_a_nikon_failure_a_canon_session_starts(self):
        self.init(self.path("Type0001.md3", b"no module"))
        self.assertEqual(self.init(), 1)
        self.host.wait_for_event(Lumatie.TETHER_EXPOSUREMODE)
        self.assertEqual((self.tether.Uninit(), self.tether.Uninit()), (1, 0))


class CameraChoiceTest(TetherObjectTestCase):
    def test_without_a_camera_init_returns_0(self):
        self.camera.unplug()
        self.assertEqual(self.init(), 0)
        self.assertEqual(self.camera.calls("EdsGetChildAtIndex"), 0)
        self.assertEqual(self.camera.references("list"), 1, "the list is left to the library")
        self.assertEqual((self.tether.Uninit(), self.tether.Uninit()), (1, 0))

    def test_when_no_name_fits_every_camera_is_released(self):
        self.camera.add("Virtual EOS II")
        self.assertEqual(self.init("Virtual EOS III"), 0)
        self.assertEqual(self.camera.references(), 0)
        self.assertEqual(self.camera.calls("EdsGetDeviceInfo"), 2)

    def test_of_two_cameras_the_second_is_chosen_by_a_name_in_another_case(self):
        self.camera.add("Virtual EOS II")
        self.assertEqual(self.init("VIRTUAL eos ii"), 1)
        wait_until(lambda: self.camera.session_open(1), "the second camera's session is open")
        self.assertFalse(self.camera.session_open(0))
        self.assertEqual(self.camera.references("camera"), 1)

    def test_of_two_cameras_of_one_name_the_first_is_chosen(self):
        self.camera.add(CAMERA_NAME)
        self.assertEqual(self.init(), 1)
        wait_until(lambda: self.camera.session_open(0), "the first camera's session is open")
        self.assertFalse(self.camera.session_open(1))

    def test_the_whole_name_counts(self):
        for name in ("Virtual", "Virtual EOS ", " Virtual EOS", "Virtual EOSX"):
            self.assertEqual(self.init(name), 0)

    def test_only_the_case_of_ascii_letters_is_overlooked(self):
        self.camera.set_name("Vïrtual".encode())
        self.assertEqual(self.init("VÏRTUAL"), 0)
        self.assertEqual(self.init("VïRTUAL"), 1)

    def test_a_name_that_fills_its_field_is_compared_whole(self):
        self.camera.set_name(b"n" * 256)
        self.assertEqual(self.init("n" * 255), 0)
        self.assertEqual(self.init("n" * 257), 0)
        self.assertEqual(self.init("N" * 256), 1)

    def test_an_empty_name_finds_a_camera_without_a_name(self):
        self.camera.set_name(b"")
        self.assertEqual(self.init(""), 1)

    def test_a_camera_that_gives_no_information_does_not_stop_the_search(self):
        self.camera.add("Virtual EOS II")
        self.camera.fail_next("EdsGetDeviceInfo", 0x02)
        self.assertEqual(self.init("Virtual EOS II"), 1)

    def test_a_camera_without_a_name_of_its_own_for_lack_of_information_is_refused(self):
        self.camera.fail_next("EdsGetDeviceInfo", 0x02)
        self.assertEqual(self.init(""), 0)
        self.assertEqual(self.camera.references("camera"), 1)
        self.assertEqual(self.tether.Uninit(), 1)
        self.assertEqual(self.camera.references("camera"), 0)


class StartTest(TetherObjectTestCase):
    def test_the_start_calls_the_library_in_order(self):
        self.assertEqual(self.init(), 1)
        self.camera.wait_for_calls("EdsSetCapacity")
        self.assertEqual(
            self.functions()[:11],
            [
                "EdsInitializeSDK",
                "EdsGetCameraList",
                "EdsGetChildCount",
                "EdsGetChildAtIndex",
                "EdsGetDeviceInfo",
                "EdsRelease",
                "EdsSetPropertyEventHandler",
                "EdsSetObjectEventHandler",
                "EdsSetCameraStateEventHandler",
                "EdsOpenSession",
                "EdsSetPropertyData",
            ],
        )

    def test_a_start_that_fails_returns_0_and_its_end_returns_1(self):
        for function in ("EdsInitializeSDK", "EdsGetCameraList", "EdsGetChildAtIndex"):
            with self.subTest(function):
                self.camera.fail_next(function, 0x02)
                self.assertEqual(self.init(), 0)
                self.assertEqual((self.tether.Uninit(), self.tether.Uninit()), (1, 0))

    def test_the_library_is_terminated_only_after_it_was_initialised(self):
        self.camera.fail_next("EdsInitializeSDK", 0x02)
        self.assertEqual((self.init(), self.tether.Uninit()), (0, 1))
        self.assertEqual(self.camera.calls("EdsTerminateSDK"), 0)

    def test_the_library_is_terminated_again_after_a_later_start_failed(self):
        self.assertEqual((self.init(), self.tether.Uninit()), (1, 1))
        self.camera.fail_next("EdsInitializeSDK", 0x02)
        self.assertEqual((self.init(), self.tether.Uninit()), (0, 1))
        self.assertEqual(self.camera.calls("EdsTerminateSDK"), 2)

    def test_after_a_failed_canon_start_shoot_and_set_value_return_1_and_do_nothing(self):
        self.assertEqual(self.init("another camera"), 0)
        calls = self.camera.calls()
        self.assertEqual((self.tether.Shoot(), self.tether.SetValue(3, 0x60)), (1, 1))
        self.assertEqual(self.camera.calls(), calls)

    def test_a_failed_start_leaves_no_thread(self):
        self.assertEqual(self.init("another camera"), 0)
        self.assertEqual(self.tether.Uninit(), 1)

    def test_a_failed_handler_registration_does_not_matter_to_the_start(self):
        for function in ("EdsSetPropertyEventHandler", "EdsSetObjectEventHandler"):
            with self.subTest(function):
                self.camera.fail_next(function, 0x02)
                self.assertEqual(self.init(), 1)
                self.assertEqual(self.tether.Uninit(), 1)

    def test_the_start_does_not_wait_for_the_session_to_open(self):
        self.camera.fault("EdsOpenSession hang")
        self.assertEqual(self.init(), 1)
        self.camera.wait_for_hang("EdsOpenSession")
        self.assertFalse(self.camera.session_open())
        self.camera.release_hangs()

    def test_a_session_that_does_not_open_is_tried_again(self):
        self.camera.fail_next("EdsOpenSession", 0x2003)
        self.assertEqual(self.init(), 1)
        self.host.wait_for_event(Lumatie.TETHER_EXPOSUREMODE)
        self.assertEqual(self.camera.calls("EdsOpenSession"), 2)

    def test_other_python_threads_run_while_the_start_waits_for_the_library(self):
        self.camera.fault("EdsGetCameraList hang")
        thread = threading.Thread(target=self.init)
        thread.start()
        self.camera.wait_for_hang("EdsGetCameraList")
        self.camera.release_hangs()
        thread.join(DEADLINE)
        self.assertFalse(thread.is_alive())
        self.host.wait_for_event(Lumatie.TETHER_EXPOSUREMODE)


class EndTest(TetherObjectTestCase):
    def test_uninit_returns_1_and_a_second_one_0(self):
        self.init()
        self.assertEqual((self.tether.Uninit(), self.tether.Uninit()), (1, 0))

    def test_uninit_closes_the_session_releases_the_camera_and_terminates(self):
        self.init()
        self.camera.wait_for_calls("EdsSetCapacity")
        self.tether.Uninit()
        self.assertEqual(
            self.functions()[-3:], ["EdsCloseSession", "EdsRelease", "EdsTerminateSDK"]
        )

    def test_uninit_right_after_init_ends_cleanly(self):
        for _ in range(20):
            self.assertEqual((self.init(), self.tether.Uninit()), (1, 1))
        self.assertEqual(self.camera.calls("EdsTerminateSDK"), 20)

    def test_no_event_arrives_after_uninit(self):
        self.init()
        self.host.wait_for_event(Lumatie.TETHER_EXPOSUREMODE)
        self.tether.Uninit()
        count = len(self.host.events)
        self.camera.set_property(0x402, 0x48)
        self.camera.press_shutter()
        self.camera.wait_for_pictures()
        self.camera.wait_until_idle()
        self.assertEqual(len(self.host.events), count)

    def test_uninit_waits_for_the_command_under_way(self):
        self.init()
        self.camera.wait_for_calls("EdsSetCapacity")
        self.camera.fault("EdsSendCommand delay_ms=100")
        self.tether.Shoot()
        self.tether.Uninit()
        functions = self.functions()
        self.assertEqual(functions[-1], "EdsTerminateSDK")
        self.assertNotIn("EdsSendCommand", functions[functions.index("EdsCloseSession") :])

    def test_queued_commands_are_dropped_by_the_end(self):
        self.init()
        self.camera.wait_for_calls("EdsSetCapacity")
        self.camera.fault("EdsSetPropertyData delay_ms=50 calls=0")
        before = self.camera.calls("EdsSetPropertyData")
        for _ in range(40):
            self.tether.SetValue(Lumatie.TETHER_ISO, 0x48)
        self.assertEqual(self.tether.Uninit(), 1)
        self.assertLess(self.camera.calls("EdsSetPropertyData") - before, 20)
        self.assertEqual(self.functions()[-1], "EdsTerminateSDK")

    def test_the_end_of_a_camera_that_was_unplugged_returns_1(self):
        self.init()
        self.camera.wait_for_calls("EdsSetCapacity")
        self.camera.unplug()
        self.assertEqual((self.tether.Uninit(), self.tether.Uninit()), (1, 0))

    def test_destroying_the_object_ends_its_session(self):
        tether = Lumatie.Lumatie()
        self.assertEqual(tether.Init(CAMERA_NAME, self.folder, self.host), 1)
        self.camera.wait_for_calls("EdsSetCapacity")
        del tether
        gc.collect()
        self.assertEqual(self.functions()[-1], "EdsTerminateSDK")
        self.assertFalse(self.camera.session_open())

    def test_destroying_the_object_after_a_failed_start_releases_the_camera(self):
        tether = Lumatie.Lumatie()
        self.camera.fail_next("EdsGetDeviceInfo", 0x02)
        self.assertEqual(tether.Init("", self.folder, self.host), 0)
        del tether
        gc.collect()
        self.assertEqual(self.camera.references(), 0)

    def test_an_object_can_start_and_end_again_and_again(self):
        for round_number in range(3):
            self.assertEqual(self.init(), 1)
            self.host.wait_for_event(Lumatie.TETHER_EXPOSUREMODE, round_number + 1)
            self.assertEqual(self.tether.Uninit(), 1)
        self.assertEqual(self.camera.calls("EdsOpenSession"), 3)


class SecondInitTest(TetherObjectTestCase):
    def setUp(self):
        super().setUp()
        self.camera.add("Virtual EOS II")

    def test_a_second_init_leaves_the_first_session_running_until_uninit_ends_both(self):
        self.init()
        self.assertEqual(self.init("Virtual EOS II"), 1)
        for number in (0, 1):
            wait_until(lambda n=number: self.camera.session_open(n), "the session is open")
        self.assertEqual((self.tether.Uninit(), self.tether.Uninit()), (1, 0))
        self.assertFalse(self.camera.session_open(0) or self.camera.session_open(1))

    def test_after_a_second_init_the_shutter_and_the_settings_are_the_second_cameras(self):
        self.init()
        self.init("Virtual EOS II")
        wait_until(lambda: self.camera.session_open(1), "the second session is open")
        self.tether.SetValue(Lumatie.TETHER_ISO, 0x50)
        self.tether.Shoot()
        self.host.wait_for_picture()
        self.assertEqual([picture["camera"] for picture in self.camera.pictures()], [1])
        self.assertEqual((self.camera.property(0x402, 0), self.camera.property(0x402, 1)), (88, 80))

    def test_after_a_second_init_both_cameras_report_to_the_new_callable(self):
        self.init()
        self.host.wait_for_event(Lumatie.TETHER_EXPOSUREMODE)
        second = Host()
        self.init("Virtual EOS II", second)
        self.camera.settle(1)
        self.camera.settle(0)
        second.clear()
        count = len(self.host.events)
        self.camera.set_property(0x402, 0x48, camera=0)
        self.camera.set_property(0x402, 0x50, camera=1)
        second.wait_for_call(Lumatie.TETHER_ISO, 0x48, "100")
        second.wait_for_call(Lumatie.TETHER_ISO, 0x50, "200")
        self.assertEqual(len(self.host.events), count)

    def test_a_second_init_that_fails_leaves_the_first_session_running(self):
        self.init()
        self.assertEqual(self.init("Virtual EOS III"), 0)
        self.tether.Shoot()
        self.host.wait_for_picture()
        self.assertEqual(self.tether.Uninit(), 1)

    def test_a_second_init_for_the_same_camera_ends_cleanly(self):
        self.init()
        self.host.wait_for_event(Lumatie.TETHER_EXPOSUREMODE)
        self.assertEqual(self.init(), 1)
        self.assertEqual((self.tether.Uninit(), self.tether.Uninit()), (1, 0))


class SharedTextsTest(TetherObjectTestCase):
    def test_the_export_folder_is_one_for_all_objects(self):
        self.init()
        other = Lumatie.Lumatie()
        elsewhere = self.path("elsewhere")
        os.mkdir(elsewhere)
        self.assertEqual(other.UpdateExportFolder(elsewhere), 1)
        self.tether.Shoot()
        self.assertEqual(os.path.dirname(self.host.wait_for_picture()), elsewhere)

    def test_an_init_that_fails_has_set_the_folder_all_the_same(self):
        self.init()
        elsewhere = self.path("elsewhere")
        os.mkdir(elsewhere)
        other = Lumatie.Lumatie()  # its end would terminate the library
        self.assertEqual(other.Init("no camera", elsewhere, None), 0)
        self.tether.Shoot()
        self.assertEqual(os.path.dirname(self.host.wait_for_picture()), elsewhere)
        self.tether.Uninit()

    def test_two_objects_with_a_camera_each_report_to_their_own_callables(self):
        self.camera.add("Virtual EOS II")
        second, other = Host(), Lumatie.Lumatie()
        self.assertEqual(self.init(), 1)
        self.assertEqual(other.Init("Virtual EOS II", self.folder, second), 1)
        self.camera.settle(0)
        self.camera.settle(1)
        self.camera.set_property(0x402, 0x50, camera=1)
        second.wait_for_call(Lumatie.TETHER_ISO, 0x50, "200")
        self.camera.settle(0)
        self.assertNotIn((Lumatie.TETHER_ISO, 0x50, "200"), self.host.calls())
        self.assertEqual(self.tether.Uninit(), 1)
        # The first end has terminated the library for both: what the second one calls is too late.
        self.assertEqual(other.Uninit(), 1)
        self.camera.clear_misuse()


class RejectedFolderTest(TetherTestCase):
    REJECTED = "Lumatie: the export folder is missing or longer than 255 bytes; the process ends.\n"

    def run_with(self, call):
        return run_host("import Lumatie\ntether = Lumatie.Lumatie()\n{}\nprint('on')".format(call))

    def test_a_missing_folder_ends_the_process(self):
        for call in ("tether.Init('x', None, None)", "tether.UpdateExportFolder(None)"):
            self.assertEqual(self.run_with(call), (3, "", self.REJECTED))

    def test_a_folder_of_256_bytes_ends_the_process(self):
        for call in ("tether.Init('x', 'd' * 256, None)", "tether.UpdateExportFolder('ü' * 128)"):
            self.assertEqual(self.run_with(call), (3, "", self.REJECTED))

    def test_a_folder_of_255_bytes_is_accepted(self):
        for call in ("tether.Init('x', 'd' * 255, None)", "tether.UpdateExportFolder('d' * 255)"):
            self.assertEqual(self.run_with(call), (0, "on\n", ""))

    def test_an_empty_folder_is_accepted(self):
        self.assertEqual(self.run_with("tether.UpdateExportFolder('')"), (0, "on\n", ""))


if __name__ == "__main__":
    unittest.main()
