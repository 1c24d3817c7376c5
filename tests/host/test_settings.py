"""What a camera is set to and can be set to, from what it tells."""

import pickle
import unittest

import canon_tables
from lumatie_host.errors import NotSettable, Refused
from lumatie_host.protocol import CODES, Busy, NewFile, Unreadable, WriteFailed, read
from lumatie_host.settings import NAMES, UNKNOWN, Choice, Setting, Settings, seconds_of

# What a Canon camera tells when its session opens.
CANON = (
    (13, "Large Fine Jpeg"),
    (9, 0, "Auto"),
    (11, 5200),
    (7, 88, "400"),
    (5, 48, "5.6"),
    (3, 112, "1/125"),
    (1, "M"),
    (10, "{0:'Auto',1:'Daylight',9:'Color temperature',}"),
    (12, "{}"),
    (8, "{0:'Auto',72:'100',88:'400',}"),
    (6, "{45:'5.0',48:'5.6',56:'8',}"),
    (4, "{12:'Bulb',16:'30',64:'0.5',112:'1/125',120:'1/250',}"),
)

# A report of a Nikon camera.
NIKON = (
    (1, "Manual"),
    (3, 3),
    (4, "{1:'Bulb',2:'30',3:'1/125',4:'1/250',5:'1/1.3','NIKON_EDITABLE':1,}"),
    (5, 2),
    (6, "{1:'f/2.8',2:'f/5.6','NIKON_EDITABLE':1,}"),
    (7, 1),
    (8, "{1:'100',2:'400',3:'Hi 1','NIKON_EDITABLE':1,}"),
    (9, 1),
    (10, "{1:'Auto',2:'Direct sunlight',3:'Choose color temp.','NIKON_EDITABLE':1,}"),
    (13, "JPEG Fine"),
)


def settings_of(maker, *events):
    """The settings after the events."""
    settings = Settings(maker)
    for event in events:
        settings.apply(read(*event))
    return settings


def list_text(texts):
    return "{%s}" % "".join("%d:'%s'," % entry for entry in texts)


class CanonTest(unittest.TestCase):
    def setUp(self):
        self.settings = settings_of("canon", *CANON)

    def test_a_value_has_its_key_and_text(self):
        shutter = self.settings.get("shutter")
        self.assertEqual((shutter.text, shutter.key), ("1/125", 112))

    def test_a_list_says_what_is_allowed(self):
        aperture = self.settings.get("aperture")
        self.assertEqual(aperture.allowed, ("5.0", "5.6", "8"))
        self.assertEqual(aperture.choices[2], Choice(56, "8"))
        self.assertIs(aperture.settable, True)

    def test_an_empty_list_is_a_setting_that_the_camera_chooses(self):
        self.settings.apply(read(1, "Tv"))
        changed = self.settings.apply(read(6, "{}"))
        self.assertEqual(changed, Setting("aperture", "5.6", 48, (), False))
        with self.assertRaises(NotSettable) as caught:
            self.settings.choose("aperture", "8")
        self.assertEqual(caught.exception.mode, "Tv")
        self.assertIn("in mode Tv", str(caught.exception))

    def test_nobody_is_told_to_turn_a_dial_to_m_that_stands_there(self):
        self.settings.apply(read(6, "{}"))
        with self.assertRaises(NotSettable) as caught:
            self.settings.choose("aperture", "8")
        self.assertIsNone(caught.exception.mode)

    def test_an_unknown_key_can_be_a_value_and_no_choice(self):
        self.assertEqual(self.settings.apply(read(3, -1, "unknown")).text, "unknown")
        self.settings.apply(read(4, "{4294967295:'unknown',16:'30',}"))
        self.assertEqual(self.settings.get("shutter").allowed, ("30",))
        with self.assertRaises(Refused):
            self.settings.choose("shutter", "unknown")
        with self.assertRaises(Refused):
            self.settings.choose("shutter", key=-1)

    def test_mode_and_quality_are_never_set_from_here(self):
        # Not even if there were lists of them some day.
        self.settings.apply(read(2, "{0:'P',3:'M',}"))
        self.settings.apply(read(14, "{1:'RAW',}"))
        for name, text in (("mode", "M"), ("quality", "Large Fine Jpeg")):
            setting = self.settings.get(name)
            self.assertEqual(setting, Setting(name, text))
            with self.assertRaises(NotSettable):
                self.settings.choose(name, text)

    def test_it_is_complete_when_values_and_lists_were_told(self):
        needed = [event for event in CANON if 3 <= event[0] <= 10]
        self.assertTrue(settings_of("canon", *needed).is_complete)
        for missing in needed:
            rest = [event for event in needed if event is not missing]
            self.assertFalse(settings_of("canon", *rest).is_complete, missing)

    def test_what_was_told_before_is_forgotten_with_a_new_session(self):
        self.settings.forget()
        self.assertFalse(self.settings.is_complete)
        self.assertEqual(self.settings.texts(), {})
        self.assertEqual(self.settings.all(), ())
        self.assertEqual(self.settings.get("shutter"), Setting("shutter"))

    def test_only_what_is_different_is_told(self):
        for event in CANON:
            self.assertIsNone(self.settings.apply(read(*event)), event)
        self.assertEqual(self.settings.apply(read(7, 72, "100")).text, "100")
        self.assertIsNone(self.settings.apply(read(7, 72, "100")))

    def test_other_messages_change_nothing(self):
        for message in (NewFile("/x"), WriteFailed(), Busy(), Unreadable(3, "what")):
            self.assertIsNone(self.settings.apply(message))

    def test_texts_are_those_that_were_told(self):
        self.assertEqual(
            settings_of("canon", CANON[0], CANON[4]).texts(),
            {"aperture": "5.6", "quality": "Large Fine Jpeg"},
        )
        self.assertEqual(tuple(self.settings.texts()), NAMES)
        self.assertEqual([setting.name for setting in self.settings.all()], list(NAMES))

    def test_another_name_is_no_setting(self):
        with self.assertRaises(KeyError):
            self.settings.get("flash")
        with self.assertRaises(NotSettable):
            self.settings.choose("flash", "on")


class ColorTemperatureTest(unittest.TestCase):
    LIST = (12, "{0:2500,1:5600,}")

    def setUp(self):
        self.settings = settings_of("canon", *CANON, self.LIST)

    def test_it_cannot_be_set_while_white_balance_is_another(self):
        self.assertFalse(self.settings.get("color_temperature").settable)
        self.assertEqual(self.settings.get("color_temperature").allowed, ())
        with self.assertRaises(NotSettable) as caught:
            self.settings.choose("color_temperature", "5600")
        self.assertEqual(
            caught.exception.advice, "Set the white balance to Color temperature first."
        )

    def test_it_is_set_by_the_number_itself(self):
        self.settings.apply(read(9, 9, "Color temperature"))
        for wanted in ("5600", "5600K", "5600 k", " 5600", "5600.0"):
            request = self.settings.choose("color_temperature", wanted)
            self.assertEqual((request.code, request.value), (11, 5600))
        self.assertEqual(self.settings.choose("color_temperature", key=2500).value, 2500)
        with self.assertRaises(Refused):
            self.settings.choose("color_temperature", "5601")
        with self.assertRaises(Refused):
            self.settings.choose("color_temperature", key=1)

    def test_white_balance_makes_both_different(self):
        changes = self.settings.changes(read(9, 9, "Color temperature"))
        self.assertEqual(
            [change.name for change in changes], ["white_balance", "color_temperature"]
        )
        self.assertEqual(changes[1].allowed, ("2500", "5600"))
        self.assertEqual(self.settings.changes(read(*self.LIST)), ())
        changes = self.settings.changes(read(9, 0, "Auto"))
        self.assertEqual([change.settable for change in changes], [True, False])

    def test_the_request_is_met_by_the_number(self):
        self.settings.apply(read(9, 9, "Color temperature"))
        request = self.settings.choose("color_temperature", "5600")
        self.assertFalse(request.is_met_by(self.settings.get("color_temperature")))
        self.assertTrue(request.is_met_by(self.settings.apply(read(11, 5600))))


class NikonTest(unittest.TestCase):
    def setUp(self):
        self.settings = settings_of("nikon", *NIKON)

    def test_a_position_is_the_text_in_the_list(self):
        self.assertEqual(
            self.settings.texts(),
            {
                "mode": "Manual",
                "shutter": "1/125",
                "aperture": "f/5.6",
                "iso": "100",
                "white_balance": "Auto",
                "quality": "JPEG Fine",
            },
        )
        self.assertEqual(self.settings.get("shutter").key, 3)

    def test_what_is_set_is_the_position(self):
        request = self.settings.choose("shutter", "1/250")
        self.assertEqual((request.code, request.value), (3, 4))
        self.assertFalse(request.is_met_by(self.settings.get("shutter")))
        self.settings.apply(read(3, 4))
        self.assertTrue(request.is_met_by(self.settings.apply(read(*NIKON[2]))))

    def test_a_position_counts_in_the_list_that_comes_behind_it(self):
        # The dial was turned: the list lost its first entry, and every position is another one.
        shorter = (4, "{1:'30',2:'1/125',3:'1/250',4:'1/1.3','NIKON_EDITABLE':1,}")
        request = self.settings.choose("shutter", "1/250")
        self.assertIsNone(self.settings.apply(read(3, 3)))
        self.assertEqual(self.settings.get("shutter").text, "1/125")
        changed = self.settings.apply(read(*shorter))
        self.assertEqual((changed.text, changed.key), ("1/250", 3))
        self.assertTrue(request.is_met_by(changed))
        self.assertFalse(request.is_met_by(Setting("shutter", "1/1.3", 4, changed.choices, True)))

    def test_a_request_is_not_met_by_the_same_text_of_another_value(self):
        self.settings.apply(read(4, "{1:'6',2:'6',3:'1','NIKON_EDITABLE':1,}"))
        request = self.settings.choose("shutter", key=2)
        choices = self.settings.get("shutter").choices
        self.assertFalse(request.is_met_by(Setting("shutter", "6", 1, choices, True)))
        self.assertTrue(request.is_met_by(Setting("shutter", "6", 2, choices, True)))
        self.assertFalse(request.is_met_by(Setting("aperture", "6", 2, choices, True)))

    def test_position_0_and_one_behind_the_list_are_unknown(self):
        for position in (0, 6, -1):
            self.settings.apply(read(3, position))
            changed = self.settings.apply(read(*NIKON[2]))
            self.assertEqual((changed.text, changed.key), (UNKNOWN, position))

    def test_a_list_that_cannot_be_edited_still_has_the_text(self):
        self.settings.apply(read(1, "Speed"))
        changed = self.settings.apply(read(6, "{1:'f/2.8',2:'f/5.6','NIKON_EDITABLE':0,}"))
        self.assertEqual(changed, Setting("aperture", "f/5.6", 2, (), False))
        with self.assertRaises(NotSettable) as caught:
            self.settings.choose("aperture", "f/2.8")
        self.assertEqual(caught.exception.mode, "Speed")

    def test_there_is_no_color_temperature(self):
        self.assertNotIn("color_temperature", self.settings.texts())
        self.assertEqual(self.settings.get("color_temperature"), Setting("color_temperature"))
        self.settings.apply(read(12, "{0:5600,}"))
        with self.assertRaises(NotSettable) as caught:
            self.settings.choose("color_temperature", "5600")
        self.assertEqual(caught.exception.advice, "Set it on the camera itself.")

    def test_it_is_complete_at_the_end_of_its_first_report(self):
        settings = Settings("nikon")
        for event in NIKON:
            self.assertFalse(settings.is_complete, event)
            settings.apply(read(*event))
        self.assertTrue(settings.is_complete)

    def test_a_report_like_the_one_before_changes_nothing(self):
        for event in NIKON:
            self.assertIsNone(self.settings.apply(read(*event)), event)


class ChooseTest(unittest.TestCase):
    def setUp(self):
        self.canon = settings_of("canon", *CANON)
        self.nikon = settings_of("nikon", *NIKON)

    def assert_chosen(self, settings, name, text, *wishes):
        for wanted in wishes:
            with self.subTest(name=name, wanted=wanted):
                request = settings.choose(name, wanted)
                self.assertEqual(request.choice.text, text)
                self.assertEqual(request.value, request.choice.key)
                self.assertEqual(request.code, CODES[name])

    def assert_refused(self, settings, name, *wishes):
        for wanted in wishes:
            with self.subTest(name=name, wanted=wanted), self.assertRaises(Refused) as caught:
                settings.choose(name, wanted)
            self.assertEqual(caught.exception.keys, ())
            self.assertEqual(caught.exception.wanted, wanted)

    def test_apertures_are_found_however_they_are_written(self):
        wishes = ("5.6", "f/5.6", "F5.6", "f 5.6", "F/5,6", " f/5.60 ", "\u0192/5.6")
        self.assert_chosen(self.canon, "aperture", "5.6", *wishes)
        self.assert_chosen(self.nikon, "aperture", "f/5.6", *wishes)
        self.assert_chosen(self.canon, "aperture", "5.0", "5", "f/5", "f5.0")
        self.assert_refused(
            self.canon, "aperture", "5.7", "56", "1/5.6", "f//5.6", "ff5.6", "", "f"
        )

    def test_shutter_speeds_are_found_however_they_are_written(self):
        wishes = ("1/250", "1/250s", "1 / 250 sec", "1/250 S", "0.004", "2/500")
        self.assert_chosen(self.canon, "shutter", "1/250", *wishes)
        self.assert_chosen(self.nikon, "shutter", "1/250", *wishes)
        self.assert_chosen(self.canon, "shutter", "0.5", "1/2", '0"5', "0,5", "0.50s", "0\u20335")
        self.assert_chosen(self.canon, "shutter", "30", "30s", '30"', "30 seconds", "30.0")
        self.assert_chosen(self.canon, "shutter", "Bulb", "bulb", "BULB", " Bulb ")
        self.assert_chosen(self.nikon, "shutter", "1/1.3", "1/1.3s", "1/1,30")
        self.assert_refused(self.canon, "shutter", "250", "1/251", "1/0", "0", "nan", "inf", "-30")

    def test_sensitivities_and_white_balances_are_found_however_they_are_written(self):
        self.assert_chosen(self.canon, "iso", "400", "400", "ISO 400", "iso400", "400.0")
        self.assert_chosen(self.canon, "iso", "Auto", "auto", "AUTO", "Auto")
        self.assert_chosen(self.nikon, "iso", "Hi 1", "hi1", "HI 1")
        self.assert_chosen(self.nikon, "white_balance", "Direct sunlight", "direct Sunlight")
        self.assert_chosen(self.canon, "white_balance", "Daylight", "daylight", "DAY LIGHT")
        self.assert_refused(self.canon, "iso", "401", "iso", "Hi 1", "4e2", "\u0664\u0660\u0660")
        self.assert_refused(self.canon, "white_balance", "sun", "0", "9")

    def test_the_very_text_goes_before_one_that_is_alike(self):
        self.nikon.apply(read(8, "{1:'HI',2:'hi',3:'100','NIKON_EDITABLE':1,}"))
        self.assertEqual(self.nikon.choose("iso", "hi").value, 2)
        self.assertEqual(self.nikon.choose("iso", "HI").value, 1)

    def test_a_text_of_two_values_is_refused_unless_a_key_is_given(self):
        self.canon.apply(read(4, "{20:'20',21:'20',24:'15',}"))
        for wanted in ("20", "20s"):
            with self.assertRaises(Refused) as caught:
                self.canon.choose("shutter", wanted)
            self.assertEqual(caught.exception.keys, (20, 21))
            self.assertIn("20, 21", caught.exception.advice)
        self.assertEqual(self.canon.choose("shutter", key=21).value, 21)
        self.assertEqual(self.canon.choose("shutter", "20", 20).value, 20)

    def test_a_key_must_be_of_a_choice_that_has_the_text(self):
        self.assertEqual(self.canon.choose("shutter", "1/250", 120).value, 120)
        for wanted, key in (("1/250", 112), (None, 121), (None, 0)):
            with self.assertRaises(Refused):
                self.canon.choose("shutter", wanted, key)

    def test_what_is_set_already_is_a_request_all_the_same(self):
        request = self.canon.choose("shutter", "1/125")
        self.assertEqual(request.value, 112)
        self.assertTrue(request.is_met_by(self.canon.get("shutter")))

    def test_what_is_allowed_comes_with_the_refusal(self):
        with self.assertRaises(Refused) as caught:
            self.canon.choose("iso", "12")
        self.assertEqual(caught.exception.allowed, ("Auto", "100", "400"))
        self.assertEqual(caught.exception.setting, "iso")

    def test_the_errors_can_be_pickled(self):
        self.canon.apply(read(4, "{20:'20',21:'20',}"))
        for name, wanted in (("shutter", "20"), ("iso", "12"), ("color_temperature", "5600")):
            try:
                self.canon.choose(name, wanted)
            except (NotSettable, Refused) as error:
                again = pickle.loads(pickle.dumps(error))
                self.assertEqual((str(again), vars(again)), (str(error), vars(error)))
            else:
                self.fail("it was chosen")

    def test_neither_a_text_nor_a_key_is_no_wish(self):
        with self.assertRaises(ValueError):
            self.canon.choose("iso")

    def test_every_text_of_the_tables_chooses_itself_or_names_its_keys(self):
        for code, name, table in (
            (4, "shutter", canon_tables.SHUTTER_SPEEDS),
            (6, "aperture", canon_tables.APERTURES),
            (8, "iso", canon_tables.ISO_SPEEDS),
            (10, "white_balance", canon_tables.WHITE_BALANCES),
        ):
            settings = settings_of("canon", (code, list_text(table.items())))
            for choice in settings.get(name).choices:
                same = [key for key, text in table.items() if text == choice.text]
                if len(same) == 1:
                    self.assertEqual(settings.choose(name, choice.text).choice, choice)
                else:
                    with self.assertRaises(Refused) as caught:
                        settings.choose(name, choice.text)
                    self.assertEqual(caught.exception.keys, tuple(same))


class SecondsTest(unittest.TestCase):
    def test_times_are_seconds(self):
        for text, seconds in (
            ("1/250", 0.004),
            ("1/1.3", 1 / 1.3),
            ("30", 30.0),
            ("0.5", 0.5),
            ('0"5', 0.5),
            ('1"3', 1.3),
            ('30"', 30.0),
            ("1/8000 s", 1 / 8000),
        ):
            self.assertAlmostEqual(seconds_of(text), seconds, msg=text)

    def test_other_texts_are_no_times(self):
        texts = ("Bulb", "Time", "Auto", "unknown", "", "0", "1/0", "0/1", "/", "1/", "-1", "1e3")
        for text in (*texts, "nan", "inf", "1/2/3", "x 1/250", "\u0661", "9" * 400):
            self.assertIsNone(seconds_of(text), text)


if __name__ == "__main__":
    unittest.main()
