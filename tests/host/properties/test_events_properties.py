"""Any event survives its record, and no record can do harm."""

import dataclasses
import datetime
import json
import typing
import unittest

import repeatable  # noqa: F401  the same examples each time
from hypothesis import given
from hypothesis import strategies as st
from lumatie_host import events

TEXTS = st.text(st.characters(blacklist_categories=["Cs"]), max_size=20)
ZONES = st.integers(-1439, 1439).map(  # named zones have moments that equal no other zone's
    lambda minutes: datetime.timezone(datetime.timedelta(minutes=minutes))
)
TIMES = st.datetimes(
    min_value=datetime.datetime(1970, 1, 2),
    max_value=datetime.datetime(2200, 1, 1),
    timezones=ZONES,
).map(lambda time: time.replace(microsecond=time.microsecond // 1000 * 1000))
FORMS = {
    int: st.integers(),
    float: st.floats(allow_nan=False),
    bool: st.booleans(),
    str: TEXTS,
    typing.Optional[int]: st.none() | st.integers(),
    typing.Optional[str]: st.none() | TEXTS,
    typing.Tuple[str, ...]: st.lists(TEXTS, max_size=4).map(tuple),
    typing.Mapping[str, str]: st.dictionaries(TEXTS, TEXTS, max_size=4),
    typing.Mapping[str, typing.Tuple[str, str]]: st.dictionaries(
        TEXTS, st.tuples(TEXTS, TEXTS), max_size=4
    ),
    datetime.datetime: TIMES,
}
ANYTHING = st.recursive(
    st.none() | st.booleans() | st.integers() | st.floats(allow_nan=False) | TEXTS,
    lambda inner: st.lists(inner, max_size=3) | st.dictionaries(TEXTS, inner, max_size=3),
    max_leaves=8,
)


@st.composite
def any_event(draw):
    kind = draw(st.sampled_from(sorted(events.EVENTS.values(), key=lambda kind: kind.kind)))
    forms = typing.get_type_hints(kind)
    fields = {field.name: forms[field.name] for field in dataclasses.fields(kind)}
    return kind(**{name: draw(FORMS[form]) for name, form in fields.items()})


def stored(event):
    return json.loads(json.dumps(events.to_record(event)))


class Records(unittest.TestCase):
    @given(any_event())
    def test_an_event_survives_its_record(self, event):
        made = events.from_record(stored(event))
        self.assertEqual(made, event)
        self.assertEqual(made.time.utcoffset(), datetime.timedelta(0))
        self.assertEqual(stored(made), stored(event))

    @given(any_event(), st.dictionaries(TEXTS.map(lambda name: "x-" + name), ANYTHING, max_size=3))
    def test_fields_of_a_newer_program_change_nothing(self, event, newer):
        self.assertEqual(events.from_record({**newer, **stored(event)}), event)

    @given(any_event(), st.data())
    def test_a_record_with_any_field_spoiled_makes_an_event_or_none(self, event, data):
        record = stored(event)
        name = data.draw(st.sampled_from(sorted(record)))
        record[name] = data.draw(ANYTHING)
        made = events.from_record(record)
        self.assertTrue(made is None or isinstance(made, events.Event))

    @given(st.dictionaries(st.sampled_from(["v", "n", "time", "kind", "x"]), ANYTHING))
    def test_rubbish_makes_no_event_and_no_error(self, record):
        made = events.from_record(record)
        self.assertTrue(made is None or isinstance(made, events.Closed))


if __name__ == "__main__":
    unittest.main()
