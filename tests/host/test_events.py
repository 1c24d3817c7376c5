"""Events and their records in the ledger, which say the same."""

import dataclasses
import datetime
import json
import pickle
import unittest

from lumatie_host import events

TIME = datetime.datetime(2026, 11, 22, 5, 40, 48, 123000, tzinfo=datetime.timezone.utc)
HASH = "ab" * 32

# events, and their records without what all have
ALL = (
    (
        events.Opened(1, TIME, "Virtual EOS", "canon", "s1"),
        {"kind": "opened", "camera": "Virtual EOS", "maker": "canon", "session": "s1"},
    ),
    (events.Lost(2, TIME, "no report"), {"kind": "lost", "evidence": "no report"}),
    (
        events.Back(3, TIME, 7.5, {"iso": ("100", "200")}),
        {"kind": "back", "after": 7.5, "differences": {"iso": ["100", "200"]}},
    ),
    (events.Closed(4, TIME), {"kind": "closed"}),
    (
        events.SettingChanged(5, TIME, "iso", "100", ("100", "200"), True),
        {
            "kind": "setting",
            "name": "iso",
            "text": "100",
            "allowed": ["100", "200"],
            "settable": True,
        },
    ),
    (events.ShotAsked(6, TIME, 3), {"kind": "shot", "shot": 3}),
    (
        events.Picture(
            7, TIME, "day1/a.JPG", 5, HASH, 3, "host", "JPEG", {"iso": "100"}, 6000, 4000, "C_1.JPG"
        ),
        {
            "kind": "picture",
            "file": "day1/a.JPG",
            "size": 5,
            "sha256": HASH,
            "shot": 3,
            "origin": "host",
            "format": "JPEG",
            "settings": {"iso": "100"},
            "width": 6000,
            "height": 4000,
            "original": "C_1.JPG",
        },
    ),
    (
        events.Failed(8, TIME, "no_answer", "Wake it.", "none came", 3, "a.JPG"),
        {
            "kind": "failed",
            "reason": "no_answer",
            "advice": "Wake it.",
            "text": "none came",
            "shot": 3,
            "file": "a.JPG",
        },
    ),
    (
        events.Copied(9, TIME, "a.JPG", "/second/a.JPG", HASH, 0.25),
        {
            "kind": "copied",
            "file": "a.JPG",
            "to": "/second/a.JPG",
            "sha256": HASH,
            "seconds": 0.25,
        },
    ),
    (
        events.Rated(10, TIME, "a.JPG", 5, "Red"),
        {"kind": "rated", "file": "a.JPG", "rating": 5, "label": "Red"},
    ),
    (
        events.Alarm(11, TIME, "the disk is nearly full", "Make room."),
        {"kind": "alarm", "what": "the disk is nearly full", "advice": "Make room."},
    ),
)


def record_of(event, fields):
    return {"v": 1, "n": event.n, "time": "2026-11-22T05:40:48.123Z", **fields}


class Records(unittest.TestCase):
    def test_a_record_without_what_only_our_own_programs_write_is_an_event(self):
        for kind, fields in {"opened": {}, "copied": {"file": "a.jpg"}}.items():
            with self.subTest(kind):
                record = {"v": 1, "n": 1, "time": "2026-11-22T05:40:48.123Z", "kind": kind}
                self.assertEqual(events.from_record({**record, **fields}).kind, kind)

    def test_each_event_makes_its_record(self):
        for event, fields in ALL:
            with self.subTest(event.kind):
                record = json.loads(json.dumps(events.to_record(event)))
                self.assertEqual(record, record_of(event, fields))

    def test_a_record_begins_with_what_all_records_have(self):
        for event, _ in ALL:
            with self.subTest(event.kind):
                self.assertEqual(list(events.to_record(event))[:4], ["v", "n", "time", "kind"])

    def test_each_record_makes_its_event(self):
        for event, fields in ALL:
            with self.subTest(event.kind):
                made = events.from_record(record_of(event, fields))
                self.assertEqual(made, event)
                self.assertIs(type(made), type(event))

    def test_each_kind_is_looked_at_and_known_by_its_name(self):
        self.assertEqual({type(event) for event, _ in ALL}, set(events.Event.__subclasses__()))
        self.assertEqual(dict(events.EVENTS), {event.kind: type(event) for event, _ in ALL})

    def test_what_is_not_known_is_left_out_of_a_record(self):
        picture = events.Picture(1, TIME, "a.JPG", 5, HASH, 3, "host", "JPEG")
        record = events.to_record(picture)
        self.assertNotIn("width", record)
        self.assertNotIn("original", record)
        self.assertEqual(record["settings"], {})
        self.assertEqual(events.from_record(record), picture)

    def test_whether_there_is_a_record_is_in_none(self):
        alarm = events.Alarm(3, TIME, "the disk is full", "Make room.", is_recorded=False)
        record = events.to_record(alarm)
        self.assertNotIn("is_recorded", record)
        self.assertTrue(events.from_record(dict(record, is_recorded=False)).is_recorded)

    def test_fields_that_are_not_known_are_passed_over(self):
        for event, fields in ALL:
            with self.subTest(event.kind):
                record = dict(record_of(event, fields), newer={"field": 1}, v2=None)
                self.assertEqual(events.from_record(record), event)

    def test_kinds_and_versions_that_are_not_known_make_no_event(self):
        record = record_of(*ALL[1])
        for changes in (
            {"kind": "levitated"},
            {"kind": None},
            {"kind": ["lost"]},
            {"v": 2},
            {"v": None},
        ):
            with self.subTest(changes):
                self.assertIsNone(events.from_record(dict(record, **changes)))
        self.assertIsNone(events.from_record({}))

    def test_a_record_without_a_field_that_its_kind_needs_makes_no_event(self):
        for event, fields in ALL:
            needed = [
                field.name
                for field in dataclasses.fields(event)
                if field.default is dataclasses.MISSING
                and field.default_factory is dataclasses.MISSING
            ]
            for name in ("v", "kind", *needed):
                with self.subTest(event.kind, without=name):
                    record = record_of(event, fields)
                    del record[name]
                    self.assertIsNone(events.from_record(record))

    def test_fields_of_another_form_make_no_event(self):
        back, changed = ALL[2], ALL[4]
        for event, changes in (
            (back, {"differences": {"iso": ["100"]}}),
            (back, {"differences": {"iso": 100}}),
            (back, {"differences": 1}),
            (changed, {"allowed": 5}),
            (changed, {"time": 1795325248}),
            (changed, {"time": "yesterday"}),
            (changed, {"time": None}),
        ):
            with self.subTest(changes):
                self.assertIsNone(events.from_record(dict(record_of(*event), **changes)))

    def test_fields_of_another_type_make_no_event(self):
        for event, fields in ALL:
            for name, value in dict(fields, n=event.n).items():
                for other in (True, 1, 1.5, "x", ["x"], [1], {"x": ["y", "z"]}, {"x": 1}):
                    is_alike = type(other) in (type(value), type(value) is float and int)
                    if is_alike and other not in ([1], {"x": 1}):
                        continue
                    with self.subTest(event.kind, name=name, other=other):
                        record = record_of(event, {**fields, name: other})
                        self.assertIsNone(events.from_record(record))

    def test_a_whole_number_of_seconds_is_one(self):
        back, fields = ALL[2]
        self.assertEqual(events.from_record(record_of(back, dict(fields, after=7))).after, 7)

    def test_what_is_not_known_may_be_told_as_nothing(self):
        picture, fields = ALL[6]
        self.assertIsNone(events.from_record(record_of(picture, dict(fields, width=None))).width)


class Times(unittest.TestCase):
    def test_a_time_is_told_in_utc_with_milliseconds(self):
        east = datetime.timezone(datetime.timedelta(hours=5, minutes=30))
        for time, text in (
            (TIME, "2026-11-22T05:40:48.123Z"),
            (TIME.astimezone(east), "2026-11-22T05:40:48.123Z"),
            (TIME.replace(microsecond=999999), "2026-11-22T05:40:48.999Z"),
            (TIME.replace(microsecond=0), "2026-11-22T05:40:48.000Z"),
        ):
            with self.subTest(text):
                self.assertEqual(events.time_text(time), text)

    def test_a_told_time_is_the_same_moment(self):
        self.assertEqual(events.time_of("2026-11-22T05:40:48.123Z"), TIME)
        self.assertEqual(events.time_of("2026-11-22T11:10:48.123+05:30"), TIME)
        for text in ("", "Z", "2026-11-22T25:00:00.000Z", "2026-13-01T00:00:00.000Z"):
            with self.subTest(text), self.assertRaises(ValueError):
                events.time_of(text)


class Values(unittest.TestCase):
    def test_events_cannot_be_changed(self):
        for event, _ in ALL:
            with self.subTest(event.kind), self.assertRaises(dataclasses.FrozenInstanceError):
                event.n = 99

    def test_events_cross_processes(self):
        for event in (*(event for event, _ in ALL), events.Lagged(3, 9)):
            with self.subTest(event):
                self.assertEqual(pickle.loads(pickle.dumps(event)), event)

    def test_lagged_is_no_record(self):
        self.assertNotIsInstance(events.Lagged(3, 9), events.Event)
        self.assertNotIn(events.Lagged, events.EVENTS.values())


if __name__ == "__main__":
    unittest.main()
