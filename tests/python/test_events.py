"""The events of a Canon camera: the form and text of each, their order, and what is never sent."""

import ast
import os
import threading
import unittest

import canon_tables
from support import (
    APERTURE,
    COLOR_TEMPERATURE,
    DEVICE_BUSY,
    EXPOSURE_MODE,
    IMAGE_QUALITY,
    ISO,
    LIST_CHANGED,
    PRODUCT_NAME,
    PROPERTY_CHANGED,
    SHUTTER_SPEED,
    WHITE_BALANCE,
    Lumatie,
    TetherTestCase,
)

# Properties and event types that belong together.
CODES = [
    (SHUTTER_SPEED, Lumatie.TETHER_SHUTTERSPEED, canon_tables.SHUTTER_SPEEDS),
    (APERTURE, Lumatie.TETHER_APERTURE, canon_tables.APERTURES),
    (ISO, Lumatie.TETHER_ISO, canon_tables.ISO_SPEEDS),
    (WHITE_BALANCE, Lumatie.TETHER_WB, canon_tables.WHITE_BALANCES),
]
LISTS = [(identifier, kind + 1, table) for identifier, kind, table in CODES]
TEXTS = [
    (EXPOSURE_MODE, Lumatie.TETHER_EXPOSUREMODE, canon_tables.EXPOSURE_MODES),
    (IMAGE_QUALITY, Lumatie.TETHER_IMAGEQUALITY, canon_tables.IMAGE_QUALITIES),
]
BUSY_CALL = (Lumatie.TETHER_GENERAL, DEVICE_BUSY)


def list_text(table, codes=None):
    """The list text of these codes: every entry, the last one included, ends with a comma."""
    entries = ("{}:'{}',".format(code, table[code]) for code in codes or table)
    return "{" + "".join(entries) + "}"


def signed(code):
    return code - 2**32 if code >= 2**31 else code


class EventsTestCase(TetherTestCase):
    def setUp(self):
        super().setUp()
        self.configure()
        self.tether, self.host = self.start()
        self.first = self.host.calls()
        self.host.clear()

    def configure(self):
        """Prepares the camera before the session starts."""

    def settled(self):
        """What came until the camera and the module had nothing left to do."""
        self.camera.settle()
        return self.host.calls()

    def set(self, identifier, value):
        """Changes a setting on the body and returns what came of it."""
        self.host.clear()
        self.camera.set_property(identifier, value)
        return self.settled()

    def announce(self, event, identifier):
        """Lets the camera announce a change and returns what came of it."""
        self.host.clear()
        self.camera.send_property_event(event, identifier)
        return self.settled()


class StartTest(EventsTestCase):
    def test_the_start_reports_each_setting_and_then_each_list_once(self):
        temperatures = "{}"  # the camera offers none until its white balance asks for one
        self.assertEqual(
            self.first,
            [
                (Lumatie.TETHER_IMAGEQUALITY, "Large Fine Jpeg"),
                (Lumatie.TETHER_WB, 0, "Auto"),
                (Lumatie.TETHER_COLORTEMP, 5200),
                (Lumatie.TETHER_ISO, 0x58, "400"),
                (Lumatie.TETHER_APERTURE, 0x30, "5.6"),
                (Lumatie.TETHER_SHUTTERSPEED, 0x70, "1/125"),
                (Lumatie.TETHER_EXPOSUREMODE, "M"),
                (Lumatie.TETHER_WB_LIST, self.text_of(WHITE_BALANCE, "WHITE_BALANCES")),
                (Lumatie.TETHER_COLORTEMP_LIST, temperatures),
                (Lumatie.TETHER_ISO_LIST, self.text_of(ISO, "ISO_SPEEDS")),
                (Lumatie.TETHER_APERTURE_LIST, self.text_of(APERTURE, "APERTURES")),
                (Lumatie.TETHER_SHUTTERSPEED_LIST, self.text_of(SHUTTER_SPEED, "SHUTTER_SPEEDS")),
            ],
        )

    def text_of(self, identifier, table):
        return list_text(getattr(canon_tables, table), self.camera.allowed(identifier))

    def test_the_lists_of_exposure_modes_and_image_qualities_never_arrive(self):
        self.assertTrue(self.camera.allowed(EXPOSURE_MODE) and self.camera.allowed(IMAGE_QUALITY))
        for identifier in (EXPOSURE_MODE, IMAGE_QUALITY):
            self.assertEqual(self.announce(LIST_CHANGED, identifier), [])
        codes = {call[0] for call in self.first}
        self.assertFalse(
            codes & {Lumatie.TETHER_EXPOSUREMODE_LIST, Lumatie.TETHER_IMAGEQUALITY_LIST}
        )

    def test_every_argument_has_its_type(self):
        forms = {
            Lumatie.TETHER_EXPOSUREMODE: (int, str),
            Lumatie.TETHER_SHUTTERSPEED: (int, int, str),
            Lumatie.TETHER_SHUTTERSPEED_LIST: (int, str),
            Lumatie.TETHER_APERTURE: (int, int, str),
            Lumatie.TETHER_APERTURE_LIST: (int, str),
            Lumatie.TETHER_ISO: (int, int, str),
            Lumatie.TETHER_ISO_LIST: (int, str),
            Lumatie.TETHER_WB: (int, int, str),
            Lumatie.TETHER_WB_LIST: (int, str),
            Lumatie.TETHER_COLORTEMP: (int, int),
            Lumatie.TETHER_COLORTEMP_LIST: (int, str),
            Lumatie.TETHER_IMAGEQUALITY: (int, str),
        }
        found = {call[0]: tuple(type(argument) for argument in call) for call in self.first}
        self.assertEqual(found, forms)

    def test_all_events_come_on_one_thread_that_is_not_the_hosts(self):
        self.set(ISO, 0x48)
        self.tether.Shoot()
        self.host.wait_for_picture()
        threads = {event.thread for event in self.host.events}
        self.assertEqual(len(threads), 1)
        self.assertNotIn(threading.get_ident(), threads)


class OtherStartsTest(TetherTestCase):
    def test_an_older_body_reports_the_same_settings(self):
        self.camera.remove(0)
        number = self.camera.add("Older EOS", identifier=0)
        _, host = self.start(name="Older EOS", wait=False)
        self.camera.wait_for_calls("EdsSetCapacity")
        self.camera.settle(number)
        self.assertEqual(host.calls()[0], (Lumatie.TETHER_IMAGEQUALITY, "Large Jpeg"))
        self.assertEqual(sorted(host.codes()), [1, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13])

    def test_an_event_during_the_registration_is_reported_once_the_session_is_open(self):
        self.camera.configure("events.at_registration = 1")
        # Each read that comes too early is tried again after half a second: one is enough.
        self.camera.event_rule("0x101 property={:#x} delay_ms=0 calls=0".format(ISO))
        self.camera.event_rule("0x101 lose calls=17")
        _, host = self.start()
        self.assertEqual(len(host.of(Lumatie.TETHER_ISO)), 2)
        reads = [line for line in self.camera.log() if "EdsGetPropertySize(" in line]
        self.assertIn("0x402, 0) = 0x2003", reads[0])

    def test_events_from_inside_calls_are_all_reported(self):
        self.camera.configure("events.inside_calls = 1")
        tether, host = self.start()
        host.clear()
        tether.SetValue(Lumatie.TETHER_ISO, 0x50)
        host.wait_for_call(Lumatie.TETHER_ISO, 0x50, "200")

    def test_events_from_many_threads_are_all_reported(self):
        self.camera.configure("events.threads = 8")
        _, host = self.start()
        self.assertEqual(sorted(host.codes()), [1, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13])

    def test_events_at_the_end_of_the_library_are_not_reported(self):
        self.camera.configure("events.at_terminate = 1")
        tether, host = self.start()
        host.clear()
        self.camera.event_rule("0x101 delay_ms=3600000 calls=0")
        self.camera.set_property(ISO, 0x48)
        self.camera.clear_log()
        tether.Uninit()
        late = [line for line in self.camera.log() if "event 0x101 property 0x402" in line]
        self.assertEqual((len(late), host.calls()), (1, []))


class ValueTest(EventsTestCase):
    def test_a_code_arrives_with_its_text(self):
        self.assertEqual(self.set(SHUTTER_SPEED, 0x0C), [(3, 12, "Bulb")])
        self.assertEqual(self.set(APERTURE, 0x2D), [(5, 0x2D, "5.0")])
        self.assertEqual(self.set(APERTURE, 0x38), [(5, 0x38, "8")])
        self.assertEqual(self.set(ISO, 0), [(7, 0, "Auto")])

    def test_every_exposure_mode_and_quality_arrives_with_its_text(self):
        for identifier, kind, table in TEXTS:
            # The dial's other consequences are not what is looked at here.
            current = self.camera.property(identifier)
            codes = [code for code in table if code != current] + [current]
            for code in codes:
                self.camera.set_property(identifier, code)
                self.host.wait_for_call(kind, table[code])
                self.host.clear()

    def test_the_invalid_code_is_unknown_and_arrives_signed(self):
        for identifier, kind, table in CODES[:3]:
            self.assertEqual(table[0xFFFFFFFF], "unknown")
            self.assertEqual(self.set(identifier, 0xFFFFFFFF), [(kind, -1, "unknown")])

    def test_the_invalid_exposure_mode_is_unknown(self):
        self.assertIn((1, "unknown"), self.set(EXPOSURE_MODE, 0xFFFFFFFF))

    def test_the_invalid_code_of_white_balance_and_quality_is_not_reported(self):
        self.assertEqual(self.set(WHITE_BALANCE, 0xFFFFFFFF), [])
        self.assertEqual(self.set(IMAGE_QUALITY, 0xFFFFFFFF), [])

    def test_a_code_without_a_text_is_not_reported(self):
        self.assertEqual(self.set(APERTURE, 0x09), [])
        self.assertEqual(self.set(SHUTTER_SPEED, 0x11), [])
        self.assertEqual(self.set(ISO, 0x49), [])
        for code in (0x07, 0x0D, 0x0E, 0x11):
            self.assertEqual(self.set(WHITE_BALANCE, code), [])
        for code in (0x12, 0x15, 0x2D):
            codes = [call[0] for call in self.set(EXPOSURE_MODE, code)]
            self.assertNotIn(Lumatie.TETHER_EXPOSUREMODE, codes)

    def test_white_balance_9_is_followed_by_the_list_of_temperatures(self):
        allowed = range(2500, 10001, 100)
        entries = "".join("{}:{},".format(*entry) for entry in enumerate(allowed))
        self.assertEqual(
            self.set(WHITE_BALANCE, 9),
            [(9, 9, "Color temperature"), (12, "{" + entries + "}")],
        )

    def test_a_colour_temperature_arrives_as_a_bare_number(self):
        self.assertEqual(self.set(COLOR_TEMPERATURE, 3200), [(11, 3200)])

    def test_a_colour_temperature_is_signed(self):
        self.assertEqual(self.set(COLOR_TEMPERATURE, 0xFFFFFFFE), [(11, -2)])

    def test_a_change_of_the_dial_reports_what_follows_from_it(self):
        self.camera.turn_dial(2)
        calls = self.settled()
        self.assertIn((Lumatie.TETHER_EXPOSUREMODE, "Av"), calls)
        self.assertIn((Lumatie.TETHER_SHUTTERSPEED_LIST, "{}"), calls)

    def test_settings_that_the_host_does_not_know_are_not_reported(self):
        for identifier in (PRODUCT_NAME, 0xB, 0x104, 0x403, 0x407, 0x500, 0x50E):
            self.assertEqual(self.announce(PROPERTY_CHANGED, identifier), [])
            self.assertEqual(self.announce(LIST_CHANGED, identifier), [])

    def test_the_reported_set_is_read_in_its_order(self):
        codes = [call[0] for call in self.announce(PROPERTY_CHANGED, 0xFFFF)]
        self.assertEqual(codes, [1, 3, 5, 7, 13])

    def test_a_reported_set_that_fails_part_way_is_read_again_from_the_start(self):
        self.camera.fault("EdsGetPropertyData code=0x81 property=0x405")
        codes = [call[0] for call in self.announce(PROPERTY_CHANGED, 0xFFFF)]
        self.assertEqual(codes, [1, 3, 1, 3, 5, 7, 13])

    def test_a_property_of_another_type_announces_the_value_known_before(self):
        self.camera.configure("corrupt.0x402.type = 14")
        self.assertEqual(self.set(ISO, 0x50), [(7, 0x58, "400")])

    def test_white_balance_and_temperature_report_what_a_failed_second_read_left(self):
        self.camera.set_property(WHITE_BALANCE, 1)
        self.camera.settle()
        for identifier, call in ((WHITE_BALANCE, (9, 0, "Auto")), (COLOR_TEMPERATURE, (11, 0))):
            rule = "EdsGetPropertyData code=0x50 property={:#x} skip=1"
            self.camera.fault(rule.format(identifier))
            self.assertEqual(self.announce(PROPERTY_CHANGED, identifier), [call])

    def test_a_quality_whose_second_read_fails_is_not_reported(self):
        for function in ("EdsGetPropertySize", "EdsGetPropertyData"):
            self.camera.fault(function + " code=0x50 property=0x100 skip=1")
            self.assertEqual(self.announce(PROPERTY_CHANGED, IMAGE_QUALITY), [])
        self.assertEqual(self.announce(PROPERTY_CHANGED, IMAGE_QUALITY), [(13, "Large Fine Jpeg")])

    def test_a_read_that_fails_is_tried_again_until_it_succeeds(self):
        self.camera.fail_next("EdsGetPropertySize", 0x50)
        self.assertEqual(self.set(ISO, 0x48), [(7, 0x48, "100")])

    def test_texts_that_break_their_bounds_hurt_nothing(self):
        for name in (b"n" * 256, b"n" * 4000, b"", b"\xff\xfe"):
            self.camera.set_property_bytes(PRODUCT_NAME, 2, name)
            self.assertEqual(self.announce(PROPERTY_CHANGED, PRODUCT_NAME), [])
        self.camera.configure("corrupt.0x2.unterminated = 1\ncorrupt.0x2.rubbish = 1")
        self.assertEqual(self.announce(PROPERTY_CHANGED, PRODUCT_NAME), [])

    def test_an_event_that_is_delivered_twice_is_reported_twice(self):
        self.camera.event_rule("0x101 property=0x402 double")
        self.assertEqual(self.set(ISO, 0x48), [(7, 0x48, "100")] * 2)

    def test_an_event_that_is_lost_is_not_reported(self):
        self.camera.event_rule("0x101 property=0x402 lose")
        self.assertEqual(self.set(ISO, 0x48), [])


class ListTest(EventsTestCase):
    def allow(self, identifier, values):
        """Changes the allowed values on the body and returns what came of it."""
        self.host.clear()
        self.camera.set_allowed(identifier, values)
        return self.settled()

    def test_every_code_of_a_table_stands_in_its_list_with_its_text(self):
        for identifier, kind, table in LISTS:
            codes = [signed(code) for code in table]
            self.assertEqual(self.allow(identifier, codes), [(kind, list_text(table))])

    def test_a_list_keeps_the_cameras_order_and_its_repetitions(self):
        text = "{96:'1/30',16:'30',96:'1/30',}"
        self.assertEqual(self.allow(SHUTTER_SPEED, [0x60, 0x10, 0x60]), [(4, text)])

    def test_a_list_leaves_out_codes_without_a_text(self):
        for identifier, kind, table in LISTS:
            text = list_text(table, [0x00])
            self.assertEqual(self.allow(identifier, [0x0D0D, 0x00, -2]), [(kind, text)])

    def test_a_list_of_codes_without_texts_is_empty(self):
        self.assertEqual(self.allow(APERTURE, [0x09, 0x0A]), [(6, "{}")])

    def test_an_empty_list_is_a_pair_of_braces(self):
        for identifier, kind, _ in LISTS:
            self.assertEqual(self.allow(identifier, []), [(kind, "{}")])
        self.assertEqual(self.allow(COLOR_TEMPERATURE, []), [(12, "{}")])

    def test_the_invalid_code_is_unsigned_in_a_list(self):
        self.assertEqual(self.allow(ISO, [-1]), [(8, "{4294967295:'unknown',}")])

    def test_a_list_of_128_entries_arrives_whole(self):
        calls = self.allow(SHUTTER_SPEED, [0x60] * 128)
        self.assertEqual(calls, [(4, "{" + "96:'1/30'," * 128 + "}")])

    def test_a_count_that_cannot_be_is_bounded(self):
        for count, entries in ((129, 128), (2000000000, 128), (-1, 0)):
            self.camera.set_allowed(SHUTTER_SPEED, [0x60] * 128)
            self.camera.configure("corrupt.0x406.count = {}".format(count))
            calls = self.announce(LIST_CHANGED, SHUTTER_SPEED)
            self.assertEqual(calls[-1], (4, "{" + "96:'1/30'," * entries + "}"))

    def test_temperatures_are_listed_by_position_with_signed_values(self):
        calls = self.allow(COLOR_TEMPERATURE, [2500, 2600, -1])
        self.assertEqual(calls, [(12, "{0:2500,1:2600,2:-1,}")])

    def test_every_list_is_a_literal_that_gives_the_codes_and_texts(self):
        for identifier, kind, table in LISTS:
            calls = self.allow(identifier, [signed(code) for code in table])
            self.assertEqual(ast.literal_eval(calls[0][1]), table)
            self.assertEqual(calls[0][0], kind)
        calls = self.allow(COLOR_TEMPERATURE, [2500, 10000])
        self.assertEqual(ast.literal_eval(calls[0][1]), {0: 2500, 1: 10000})

    def test_the_lists_of_the_reported_set_come_in_its_order(self):
        codes = [call[0] for call in self.announce(LIST_CHANGED, 0xFFFF)]
        self.assertEqual(codes, [4, 6, 8, 12])

    def test_a_description_that_cannot_be_read_is_given_up(self):
        self.camera.fail_next("EdsGetPropertyDesc", 0x50)
        self.assertEqual(self.announce(LIST_CHANGED, ISO), [])

    def test_a_camera_read_list_whose_second_read_fails_is_empty(self):
        for identifier, kind in ((WHITE_BALANCE, 10), (COLOR_TEMPERATURE, 12)):
            self.camera.set_allowed(identifier, [0, 1])
            self.camera.settle()
            rule = "EdsGetPropertyDesc code=0x50 property={:#x} skip=1"
            self.camera.fault(rule.format(identifier))
            self.assertEqual(self.announce(LIST_CHANGED, identifier), [(kind, "{}")])


class SetValueTest(EventsTestCase):
    def writes(self):
        """The values written since the log was emptied: property, size, value."""
        found = []
        for line in self.camera.log():
            if "EdsSetPropertyData(" in line:
                arguments = line.split("(", 1)[1].split(")")[0].split(", ")
                found.append((int(arguments[1], 16), int(arguments[3]), int(arguments[4], 16)))
        return found

    def set_value(self, kind, value):
        """Sets a value as a host does; returns the result, what was written and what came back."""
        self.camera.clear_log()
        self.host.clear()
        result = self.tether.SetValue(kind, value)
        self.camera.settle()
        return result, self.writes(), self.host.calls()

    def test_each_setting_is_written_and_comes_back_as_an_event(self):
        for kind, identifier, value, text in (
            (Lumatie.TETHER_SHUTTERSPEED, SHUTTER_SPEED, 0x60, "1/30"),
            (Lumatie.TETHER_APERTURE, APERTURE, 0x40, "11"),
            (Lumatie.TETHER_ISO, ISO, 0x68, "1600"),
            (Lumatie.TETHER_WB, WHITE_BALANCE, 0x08, "Shade"),
        ):
            expected = (1, [(identifier, 4, value)], [(kind, value, text)])
            self.assertEqual(self.set_value(kind, value), expected)
            self.assertEqual(self.camera.property(identifier), value)

    def test_the_colour_temperature_is_written_as_the_number_itself(self):
        self.set_value(Lumatie.TETHER_WB, Lumatie.TETHER_CANON_COLORTEMP)
        expected = (1, [(COLOR_TEMPERATURE, 4, 5600)], [(Lumatie.TETHER_COLORTEMP, 5600)])
        self.assertEqual(self.set_value(Lumatie.TETHER_COLORTEMP, 5600), expected)

    def test_every_key_of_a_list_can_be_set(self):
        for kind, identifier in ((Lumatie.TETHER_APERTURE, APERTURE), (Lumatie.TETHER_ISO, ISO)):
            lists = [call[1] for call in self.first if call[0] == kind + 1]
            for key, text in ast.literal_eval(lists[0]).items():
                self.tether.SetValue(kind, key)
                if key != self.camera.property(identifier):
                    self.host.wait_for_call(kind, key, text)
            self.camera.settle()

    def test_exposure_mode_quality_lists_and_unknown_types_are_not_set(self):
        settable = {3, 5, 7, 9, 11}
        for kind in set(range(-2, 18)) - settable | {2**31 - 1, -(2**31)}:
            self.assertEqual(self.set_value(kind, 1), (1, [], []))

    def test_a_value_that_the_camera_refuses_is_written_once_and_brings_no_event(self):
        expected = (1, [(SHUTTER_SPEED, 4, 0x61)], [])
        self.assertEqual(self.set_value(Lumatie.TETHER_SHUTTERSPEED, 0x61), expected)

    def test_a_negative_value_is_written_as_its_32_bits(self):
        for value in (-1, -(2**31), 2**31 - 1):
            expected = (1, [(ISO, 4, value & 0xFFFFFFFF)], [])
            self.assertEqual(self.set_value(Lumatie.TETHER_ISO, value), expected)

    def test_a_bool_sets_the_value_1(self):
        expected = (1, [(WHITE_BALANCE, 4, 1)], [(9, 1, "Daylight")])
        self.assertEqual(self.set_value(Lumatie.TETHER_WB, True), expected)

    def test_values_are_written_in_the_order_in_which_they_were_set(self):
        self.camera.clear_log()
        values = [0x48, 0x50, 0x58, 0x60, 0x68] * 4
        for value in values:
            self.tether.SetValue(Lumatie.TETHER_ISO, value)
        self.camera.settle()
        self.assertEqual([write[2] for write in self.writes()], values)

    def test_a_camera_that_is_busy_gets_the_value_later(self):
        self.camera.fail_next("EdsSetPropertyData", 0x81)
        result, writes, calls = self.set_value(Lumatie.TETHER_ISO, 0x48)
        self.assertEqual((result, writes), (1, [(ISO, 4, 0x48)] * 2))
        self.assertEqual(calls, [(7, 0x48, "100")])


class BusyTest(EventsTestCase):
    def test_a_refused_setting_with_the_hosts_busy_code_reports_it_once(self):
        self.camera.fail_next("EdsSetPropertyData", 0xC0)
        self.tether.SetValue(Lumatie.TETHER_ISO, 0x48)
        self.assertEqual(self.settled(), [BUSY_CALL])
        self.assertEqual(ast.literal_eval(DEVICE_BUSY), {Lumatie.TETHER_GENERAL_DEVICEBUSY: 1})

    def test_a_refused_shutter_with_the_hosts_busy_code_reports_it_once(self):
        self.camera.fault("EdsSendCommand code=0xC0 command=4 parameter=3")
        self.tether.Shoot()
        self.assertEqual(self.settled(), [BUSY_CALL])

    def test_a_refused_description_with_the_hosts_busy_code_reports_it_once(self):
        self.camera.fail_next("EdsGetPropertyDesc", 0xC0)
        self.assertEqual(self.announce(LIST_CHANGED, ISO), [BUSY_CALL])

    def test_a_refused_read_reports_it_at_each_attempt(self):
        self.camera.fail_next("EdsGetPropertySize", 0xC0, 2)
        self.assertEqual(self.set(ISO, 0x48), [BUSY_CALL, BUSY_CALL, (7, 0x48, "100")])

    def test_a_session_that_does_not_open_for_it_reports_it(self):
        self.tether.Uninit()
        self.camera.fail_next("EdsOpenSession", 0xC0)
        _, host = self.start()
        self.assertEqual(host.calls()[0], BUSY_CALL)

    def test_the_cameras_own_busy_code_is_never_reported(self):
        self.camera.fail_next("EdsSetPropertyData", 0x81)
        self.tether.SetValue(Lumatie.TETHER_ISO, 0x48)
        self.assertEqual(self.settled(), [(7, 0x48, "100")])
        self.camera.fail_next("EdsGetPropertySize", 0x81)
        self.assertEqual(self.set(ISO, 0x50), [(7, 0x50, "200")])

    def test_a_busy_description_is_read_again_whatever_stands_in_the_codes_upper_half(self):
        for code in (0x81, 0x10081):
            self.camera.fail_next("EdsGetPropertyDesc", code)
            codes = [call[0] for call in self.announce(LIST_CHANGED, ISO)]
            self.assertEqual(codes, [Lumatie.TETHER_ISO_LIST])

    def test_other_errors_are_never_reported(self):
        for code in (0x10081, 0x02, 0x50, 0x60, 0xC1, 0x1C0, 0xC000, 0xFFFFFFFF):
            self.camera.fail_next("EdsSetPropertyData", code)
            self.tether.SetValue(Lumatie.TETHER_ISO, 0x48)
            self.assertEqual(self.settled(), [])


class ForeignEventsTest(EventsTestCase):
    def test_property_events_of_other_codes_do_nothing(self):
        for event in (0x100, 0x103, 0x1FF, 0):
            self.camera.clear_log()
            self.assertEqual(self.announce(event, ISO), [])
            reads = [line for line in self.camera.log() if "Eds" in line and "0x402" in line]
            self.assertEqual(reads, [])

    def test_object_events_of_other_codes_give_their_reference_back(self):
        for event in (0x201, 0x204, 0x205, 0x20A, 0x209):
            self.camera.send_object_event(event, self.camera.new_item())
            self.assertEqual(self.settled(), [])
            self.assertEqual(self.camera.references("item"), 0)

    def test_an_object_event_without_a_reference_does_nothing(self):
        releases = self.camera.calls("EdsRelease")
        self.camera.send_object_event(0x204, None)
        self.assertEqual(self.settled(), [])
        self.assertEqual(self.camera.calls("EdsRelease"), releases)

    def test_state_events_reach_no_host_and_end_no_session(self):
        for event in (0x301, 0x302, 0x303, 0x306):
            self.camera.send_state_event(event)
            self.assertEqual(self.settled(), [])
        self.assertEqual(self.set(ISO, 0x48), [(7, 0x48, "100")])

    def test_a_picture_that_stays_on_the_camera_is_not_reported(self):
        self.camera.set_property(0xB, 1)
        self.camera.settle()
        self.host.clear()
        self.camera.press_shutter()
        self.camera.wait_for_pictures()
        self.assertEqual(self.settled(), [])
        self.assertEqual(os.listdir(self.folder), [])


if __name__ == "__main__":
    unittest.main()
