"""The class binding: which arguments each function takes, and the exact text of every refusal."""

import ctypes
import gc
import os
import pathlib
import sys
import unittest
import weakref

import swig_runtime
from support import DEADLINE, Host, Lumatie, TetherTestCase, _Lumatie, run_host, wait_until
from this_process import ON_WINDOWS, resident_bytes

SELF_ERRORS = [
    ("Lumatie_Init", ("x", "d", None)),
    ("Lumatie_UpdateExportFolder", ("d",)),
    ("Lumatie_Uninit", ()),
    ("Lumatie_Shoot", ()),
    ("Lumatie_SetValue", (3, 1)),
    ("delete_Lumatie", ()),
]


def argument_text(function, number, kind):
    return "in method '{}', argument {} of type '{}'".format(function, number, kind)


class BindingTestCase(TetherTestCase):
    def setUp(self):
        super().setUp()
        self.tether = _Lumatie.new_Lumatie()
        self.addCleanup(self._drop)

    def _drop(self):
        """By hand, because a wrapper that no proxy stands for is not destroyed by itself."""
        if self.tether.own():
            _Lumatie.delete_Lumatie(self.tether)

    def assert_refused(self, error, text, function, *arguments):
        """The call raises exactly this, and nothing else is left behind."""
        with self.assertRaises(error) as raised:
            function(*arguments)
        self.assertIs(type(raised.exception), error)
        self.assertEqual(str(raised.exception), text)
        self.assertIsNone(raised.exception.__context__)
        self.assertIsNone(raised.exception.__cause__)


class SelfTest(BindingTestCase):
    def test_an_object_that_is_no_wrapper_is_refused_by_every_function(self):
        for name, rest in SELF_ERRORS:
            for wrong in (3, "Lumatie", object(), (), self.tether.own, Lumatie.Lumatie):
                text = argument_text(name, 1, "Lumatie *")
                self.assert_refused(TypeError, text, getattr(_Lumatie, name), wrong, *rest)

    def test_none_is_a_null_reference_for_every_function_but_delete(self):
        for name, rest in SELF_ERRORS[:-1]:
            text = "invalid null reference in method '{}', argument 1 of type 'Lumatie *'"
            function = getattr(_Lumatie, name)
            self.assert_refused(ValueError, text.format(name), function, None, *rest)

    def test_a_wrapper_of_another_type_is_refused(self):
        buffer = ctypes.create_string_buffer(8)
        other = swig_runtime.wrap(buffer, swig_runtime.types()["_p_double"])
        for name, rest in SELF_ERRORS:
            text = argument_text(name, 1, "Lumatie *")
            self.assert_refused(TypeError, text, getattr(_Lumatie, name), other, *rest)

    def test_the_proxy_and_its_wrapper_are_both_accepted(self):
        proxy = Lumatie.Lumatie()
        self.assertEqual(_Lumatie.Lumatie_Shoot(proxy), 1)
        self.assertEqual(_Lumatie.Lumatie_Shoot(proxy.this), 1)

    def test_any_object_whose_attribute_this_is_a_wrapper_is_accepted(self):
        class Holder:
            this = self.tether

        self.assertEqual(_Lumatie.Lumatie_Shoot(Holder()), 1)

    def test_an_attribute_this_that_is_no_wrapper_is_refused(self):
        class Holder:
            this = 3

        text = argument_text("Lumatie_Shoot", 1, "Lumatie *")
        self.assert_refused(TypeError, text, _Lumatie.Lumatie_Shoot, Holder())

    def test_the_first_fitting_pointer_of_a_chain_is_taken(self):
        buffer = ctypes.create_string_buffer(8)
        chain = swig_runtime.wrap(buffer, swig_runtime.types()["_p_double"])
        chain.append(self.tether)
        self.assertEqual(_Lumatie.Lumatie_Shoot(chain), 1)

    def test_a_proxy_that_was_not_initialised_is_refused(self):
        class Forgetful(Lumatie.Lumatie):
            def __init__(self):
                pass

        with self.assertRaisesRegex(TypeError, "argument 1 of type 'Lumatie \\*'$"):
            Forgetful().Shoot()

    def test_a_type_with_a_registered_conversion_is_accepted_and_comes_first_from_then_on(self):
        run = run_host(
            """
            import ctypes
            import support, Lumatie, _Lumatie, swig_runtime as runtime

            tether = Lumatie.Lumatie()
            target = runtime.types()["_p_Lumatie"].contents
            head = target.cast.contents
            derived = runtime.TypeInfo(name=b"_p_Derived", text=b"Derived *")
            cast = runtime.CastInfo(type=ctypes.pointer(derived), previous=target.cast)
            head.next = ctypes.pointer(cast)

            pointer = runtime.behind(tether.this).pointer
            other = runtime.wrap(ctypes.c_void_p(pointer), ctypes.pointer(derived))
            print(_Lumatie.Lumatie_Shoot(other), target.cast.contents.type.contents.name)
            print(target.cast.contents.next.contents.type.contents.name)
            target.cast = ctypes.pointer(head)
            """
        )
        self.assertEqual(run, (0, "1 b'_p_Derived'\nb'_p_Lumatie'\n", ""))


class EndlessAttributesTest(BindingTestCase):
    """Objects whose attributes `this` never end, in place of each argument."""

    # In a process of its own, which has little room to follow them for ever.
    SCRIPT = """
        import sys, time
        import support, Lumatie, _Lumatie
        from unittest.mock import MagicMock

        class Circle:
            pass

        circle = Circle()
        circle.this = circle
        tether, wrapper = Lumatie.Lumatie(), _Lumatie.new_Lumatie()
        if sys.platform != "win32":
            import resource
            # Beside what the interpreter and the module have reserved already.
            with open("/proc/self/statm") as sizes:
                room = int(sizes.read().split()[0]) * resource.getpagesize() + (256 << 20)
            resource.setrlimit(resource.RLIMIT_AS, (room, room))
        calls = {calls}
        for endless in (circle, MagicMock()):
            for function, *arguments in calls:
                arguments = [endless if one is ... else one for one in arguments]
                begun = time.monotonic()
                try:
                    function(*arguments)
                except TypeError as error:
                    print(error)
                assert time.monotonic() - begun < 5, function
    """

    def said_of(self, calls):
        """What is raised by calls whose argument `...` is one such object, and then another."""
        deadline = 30 if ON_WINDOWS else 10
        run = run_host(self.SCRIPT.replace("{calls}", calls), deadline=deadline)
        self.assertEqual((run.status, run.stderr), (0, ""))
        lines = run.stdout.splitlines()
        half = len(lines) // 2
        self.assertEqual(lines[:half], lines[half:])
        return lines[:half]

    def test_they_are_no_self_for_any_function(self):
        said = self.said_of(
            """[
                (_Lumatie.Lumatie_Init, ..., "x", "d", None),
                (_Lumatie.Lumatie_UpdateExportFolder, ..., "d"),
                (_Lumatie.Lumatie_Uninit, ...),
                (_Lumatie.Lumatie_Shoot, ...),
                (_Lumatie.Lumatie_SetValue, ..., 3, 1),
                (_Lumatie.delete_Lumatie, ...),
            ]"""
        )
        texts = [argument_text(name, 1, "Lumatie *") for name, _ in SELF_ERRORS]
        self.assertEqual(said, texts)

    def test_they_are_no_text(self):
        said = self.said_of(
            """[
                (tether.Init, ..., "d", None),
                (tether.Init, "x", ..., None),
                (tether.UpdateExportFolder, ...),
            ]"""
        )
        texts = [
            argument_text("Lumatie_Init", 2, "char const *"),
            argument_text("Lumatie_Init", 3, "char const *"),
            argument_text("Lumatie_UpdateExportFolder", 2, "char const *"),
        ]
        self.assertEqual(said, texts)

    def test_they_are_no_number(self):
        said = self.said_of("[(tether.SetValue, ..., 1), (tether.SetValue, 3, ...)]")
        texts = [argument_text("Lumatie_SetValue", number, "int") for number in (2, 3)]
        self.assertEqual(said, texts)

    def test_they_are_neither_a_proxy_to_initialise_nor_a_wrapper_to_add(self):
        said = self.said_of(
            "[(_Lumatie.Lumatie_swiginit, ..., wrapper), (_Lumatie.Lumatie_swiginit, tether, ...)]"
        )
        texts = ["the attributes 'this' of an argument do not end"]
        texts.append("Attempt to append a non SwigPyObject")
        self.assertEqual(said, texts)

    def test_a_wrapper_behind_some_objects_is_found(self):
        class Holder:
            def __init__(self, this):
                self.this = this

        holder = self.tether
        for _ in range(20):
            holder = Holder(holder)
        self.assertEqual(_Lumatie.Lumatie_Shoot(holder), 1)


class TextTest(BindingTestCase):
    NO_TEXTS = (b"x", bytearray(b"x"), 3, 1.5, ["x"], object(), memoryview(b"x"), pathlib.Path("x"))

    def test_an_info_that_is_no_text_is_refused(self):
        text = argument_text("Lumatie_Init", 2, "char const *")
        for wrong in self.NO_TEXTS:
            init = _Lumatie.Lumatie_Init
            self.assert_refused(TypeError, text, init, self.tether, wrong, "d", None)

    def test_a_folder_that_is_no_text_is_refused(self):
        text = argument_text("Lumatie_Init", 3, "char const *")
        for wrong in self.NO_TEXTS:
            init = _Lumatie.Lumatie_Init
            self.assert_refused(TypeError, text, init, self.tether, "x", wrong, None)

    def test_an_updated_folder_that_is_no_text_is_refused(self):
        text = argument_text("Lumatie_UpdateExportFolder", 2, "char const *")
        for wrong in self.NO_TEXTS:
            update = _Lumatie.Lumatie_UpdateExportFolder
            self.assert_refused(TypeError, text, update, self.tether, wrong)

    def test_a_text_that_cannot_be_encoded_is_refused_with_the_arguments_text(self):
        text = argument_text("Lumatie_Init", 2, "char const *")
        init = _Lumatie.Lumatie_Init
        self.assert_refused(TypeError, text, init, self.tether, "\udc80", "d", None)
        text = argument_text("Lumatie_UpdateExportFolder", 2, "char const *")
        update = _Lumatie.Lumatie_UpdateExportFolder
        self.assert_refused(TypeError, text, update, self.tether, "pictures \ud800")

    def test_the_arguments_are_converted_in_order(self):
        init = _Lumatie.Lumatie_Init
        for arguments, number, kind in (
            ((3, b"", b"", None), 1, "Lumatie *"),
            ((self.tether, b"", b"", None), 2, "char const *"),
            ((None, b"", b"", None), 2, "char const *"),
            ((None, "", b"", None), 3, "char const *"),
        ):
            text = argument_text("Lumatie_Init", number, kind)
            self.assert_refused(TypeError, text, init, *arguments)

    def test_a_refused_init_does_not_touch_the_object(self):
        with self.assertRaises(TypeError):
            _Lumatie.Lumatie_Init(self.tether, "x", b"d", None)
        self.assertEqual(_Lumatie.Lumatie_Uninit(self.tether), 0)
        self.assertEqual(self.camera.calls(), 0)

    def test_none_as_info_is_a_null_text_which_is_no_cameras_name(self):
        self.assertEqual(_Lumatie.Lumatie_Init(self.tether, None, self.folder, None), 0)
        self.assertEqual(_Lumatie.Lumatie_Uninit(self.tether), 1)

    def test_a_wrapper_of_a_character_pointer_is_taken_as_a_text(self):
        name = ctypes.create_string_buffer(b"Virtual EOS")
        folder = ctypes.create_string_buffer(self.folder.encode())
        char = swig_runtime.types()["_p_char"]
        wrapped = [swig_runtime.wrap(buffer, char) for buffer in (name, folder)]
        self.assertEqual(_Lumatie.Lumatie_Init(self.tether, wrapped[0], wrapped[1], None), 1)
        self.camera.wait_for_calls("EdsSetCapacity")
        self.assertEqual(_Lumatie.Lumatie_Uninit(self.tether), 1)

    def test_a_wrapper_of_another_pointer_is_no_text(self):
        buffer = ctypes.create_string_buffer(b"Virtual EOS")
        other = swig_runtime.wrap(buffer, swig_runtime.types()["_p_unsigned_char"])
        text = argument_text("Lumatie_UpdateExportFolder", 2, "char const *")
        update = _Lumatie.Lumatie_UpdateExportFolder
        self.assert_refused(TypeError, text, update, self.tether, other)

    def test_a_subclass_of_str_is_a_text(self):
        class Name(str):
            pass

        self.assertEqual(_Lumatie.Lumatie_UpdateExportFolder(self.tether, Name("d")), 1)

    def test_a_text_ends_at_its_first_zero_character(self):
        host = Host()
        init = _Lumatie.Lumatie_Init
        self.assertEqual(init(self.tether, "Virtual EOS\0II", self.folder + "\0more", host), 1)
        self.camera.wait_for_calls("EdsSetCapacity")
        _Lumatie.Lumatie_Shoot(self.tether)
        self.assertEqual(os.path.dirname(host.wait_for_picture()), self.folder)
        _Lumatie.Lumatie_Uninit(self.tether)

    def test_the_texts_may_be_freed_after_the_call(self):
        host = Host()
        folder = "".join([self.folder])
        init = _Lumatie.Lumatie_Init
        self.assertEqual(init(self.tether, "".join(["Virtual", " EOS"]), folder, host), 1)
        del folder
        gc.collect()
        _Lumatie.Lumatie_Shoot(self.tether)
        self.assertEqual(os.path.dirname(host.wait_for_picture()), self.folder)
        _Lumatie.Lumatie_Uninit(self.tether)

    def test_a_failed_conversion_frees_the_copies_made_so_far(self):
        large = "x" * 4000000
        before = resident_bytes()
        for _ in range(50):
            with self.assertRaises(TypeError):
                _Lumatie.Lumatie_Init(self.tether, large, b"d", None)
        self.assertLess(resident_bytes() - before, 20 * len(large))


class NumberTest(BindingTestCase):
    def set_value(self, *arguments):
        return _Lumatie.Lumatie_SetValue(self.tether, *arguments)

    def test_a_type_that_is_no_int_is_refused(self):
        text = argument_text("Lumatie_SetValue", 2, "int")
        for wrong in (3.0, "3", None, b"3", [3], 3 + 0j):
            self.assert_refused(TypeError, text, self.set_value, wrong, 1)

    def test_a_value_that_is_no_int_is_refused(self):
        text = argument_text("Lumatie_SetValue", 3, "int")
        for wrong in (1.0, "1", None, b"1", [1]):
            self.assert_refused(TypeError, text, self.set_value, 3, wrong)

    def test_an_object_with_an_index_is_no_int(self):
        class Index:
            def __index__(self):
                return 3

        text = argument_text("Lumatie_SetValue", 2, "int")
        self.assert_refused(TypeError, text, self.set_value, Index(), 1)

    def test_a_type_beyond_32_bits_overflows(self):
        text = argument_text("Lumatie_SetValue", 2, "int")
        for wrong in (2**31, -(2**31) - 1, 2**32, 2**63, -(2**63) - 1, 2**200):
            self.assert_refused(OverflowError, text, self.set_value, wrong, 1)

    def test_a_value_beyond_32_bits_overflows(self):
        text = argument_text("Lumatie_SetValue", 3, "int")
        for wrong in (2**31, -(2**31) - 1, 2**32, 2**63, -(2**63) - 1, 2**200):
            self.assert_refused(OverflowError, text, self.set_value, 3, wrong)

    def test_the_ends_of_the_range_are_accepted(self):
        for value in (2**31 - 1, -(2**31), 0, -1):
            self.assertEqual(self.set_value(value, value), 1)

    def test_a_bool_counts_as_an_int(self):
        self.assertEqual(self.set_value(True, 1), 1)
        self.assertEqual(self.set_value(3, False), 1)

    def test_the_result_is_an_int(self):
        self.assertIs(type(self.set_value(3, 1)), int)
        self.assertIs(type(_Lumatie.Lumatie_Shoot(self.tether)), int)
        self.assertIs(type(_Lumatie.Lumatie_UpdateExportFolder(self.tether, "d")), int)
        self.assertIs(type(_Lumatie.Lumatie_Uninit(self.tether)), int)


class ArgumentCountTest(BindingTestCase):
    EXPECTED = {
        "Lumatie_Init": 4,
        "Lumatie_UpdateExportFolder": 2,
        "Lumatie_SetValue": 3,
        "swiginit": 2,
    }

    @staticmethod
    def function(name):
        return getattr(_Lumatie, name if name.startswith("Lumatie_") else "Lumatie_" + name)

    def raw(self, name):
        """The C function behind a Python function, to be called without the interpreter's help."""
        address_of = ctypes.pythonapi.PyCFunction_GetFunction
        address_of.argtypes = [ctypes.py_object]
        address_of.restype = ctypes.c_void_p
        function_type = ctypes.PYFUNCTYPE(ctypes.c_void_p, ctypes.c_void_p, ctypes.c_void_p)
        function = function_type(address_of(self.function(name)))

        def call(arguments):
            return function(None, None if arguments is None else id(arguments))

        return call

    def test_init_with_3_arguments_names_4_expected_and_3_got(self):
        self.assert_refused(
            TypeError,
            "Lumatie_Init expected 4 arguments, got 3",
            *(_Lumatie.Lumatie_Init, self.tether, "x", "d"),
        )

    def test_every_other_number_of_arguments_is_refused(self):
        for name, expected in self.EXPECTED.items():
            for count in range(7):
                if count != expected:
                    text = "{} expected {} arguments, got {}".format(name, expected, count)
                    function = self.function(name)
                    self.assert_refused(TypeError, text, function, *([self.tether] * count))

    def test_a_missing_argument_tuple_is_refused(self):
        for name, expected in self.EXPECTED.items():
            text = "{} expected {} arguments, got none".format(name, expected)
            self.assert_refused(TypeError, text, self.raw(name), None)

    def test_arguments_that_are_no_tuple_are_refused(self):
        for name in self.EXPECTED:
            text = "UnpackTuple() argument list is not a tuple"
            self.assert_refused(SystemError, text, self.raw(name), [self.tether] * 4)

    def test_a_function_of_one_object_returns_null_without_an_error_when_given_none(self):
        for name in ("Lumatie_Uninit", "Lumatie_Shoot"):
            self.assertIsNone(self.raw(name)(None))

    def test_the_proxys_methods_take_their_arguments_by_name(self):
        proxy = Lumatie.Lumatie()
        self.assertEqual(proxy.SetValue(nType=3, value=1), 1)
        self.assertEqual(proxy.UpdateExportFolder(szExportFolder="d"), 1)
        self.assertEqual(proxy.Init(szInfo="none", szExportFolder="d", callback=None), 0)
        self.assertEqual(proxy.Uninit(), 1)

    def test_the_proxys_methods_refuse_other_counts_before_the_module_sees_them(self):
        proxy = Lumatie.Lumatie()
        with self.assertRaisesRegex(TypeError, "missing 1 required positional argument"):
            proxy.Init("x", "d")
        with self.assertRaisesRegex(TypeError, "takes 1 positional argument but 2 were given"):
            proxy.Shoot(1)


class OwnershipTest(BindingTestCase):
    def test_a_new_wrapper_owns_its_object(self):
        self.assertEqual(type(self.tether).__name__, "SwigPyObject")
        self.assertIs(self.tether.own(), True)

    def test_delete_of_none_returns_none(self):
        self.assertIsNone(_Lumatie.delete_Lumatie(None))

    def test_after_delete_the_wrapper_owns_nothing(self):
        self.assertIsNone(_Lumatie.delete_Lumatie(self.tether))
        self.assertIs(self.tether.own(), False)

    def test_delete_of_a_proxy_takes_its_ownership(self):
        proxy = Lumatie.Lumatie()
        _Lumatie.delete_Lumatie(proxy)
        self.assertIs(proxy.thisown, False)

    def test_delete_ends_the_session(self):
        self.assertEqual(_Lumatie.Lumatie_Init(self.tether, "Virtual EOS", self.folder, None), 1)
        self.camera.wait_for_calls("EdsSetCapacity")
        _Lumatie.delete_Lumatie(self.tether)
        self.assertEqual(self.camera.calls("EdsTerminateSDK"), 1)
        self.assertFalse(self.camera.session_open())

    def test_the_last_reference_to_a_proxy_ends_the_session(self):
        proxy = Lumatie.Lumatie()
        self.assertEqual(proxy.Init("Virtual EOS", self.folder, None), 1)
        self.camera.wait_for_calls("EdsSetCapacity")
        del proxy
        self.assertEqual(self.camera.calls("EdsTerminateSDK"), 1)

    def test_a_disowned_object_outlives_its_proxy(self):
        proxy = Lumatie.Lumatie()
        self.assertEqual(proxy.Init("Virtual EOS", self.folder, None), 1)
        self.camera.wait_for_calls("EdsSetCapacity")
        wrapper = proxy.this
        proxy.thisown = False
        del proxy
        gc.collect()
        self.assertEqual(self.camera.calls("EdsTerminateSDK"), 0)
        _Lumatie.delete_Lumatie(wrapper)
        self.assertEqual(self.camera.calls("EdsTerminateSDK"), 1)

    def test_thisown_can_be_given_up_and_taken_back(self):
        proxy = Lumatie.Lumatie()
        found = [proxy.thisown]
        for value in (False, True):
            proxy.thisown = value
            found.append(proxy.thisown)
        self.assertEqual(found, [True, False, True])

    def test_a_wrapper_that_is_not_released_keeps_its_object_for_the_proxy(self):
        proxy = Lumatie.Lumatie()
        wrapper = proxy.this
        del proxy
        self.assertEqual(_Lumatie.Lumatie_Shoot(wrapper), 1)

    def test_failed_calls_keep_no_reference(self):
        callback = Host()
        watched = (callback, self.tether, "a text of its own")
        before = [sys.getrefcount(one) for one in watched]
        for _ in range(100):
            with self.assertRaises(TypeError):
                _Lumatie.Lumatie_Init(self.tether, watched[2], b"", callback)
            with self.assertRaises(TypeError):
                _Lumatie.Lumatie_Init(callback, callback, callback, callback)
            with self.assertRaises(OverflowError):
                _Lumatie.Lumatie_SetValue(self.tether, 3, 2**31)
        self.assertEqual([sys.getrefcount(one) for one in watched], before)

    def test_an_ended_session_keeps_no_reference_to_the_callable(self):
        class Callable:
            def __call__(self, *arguments):
                pass

        callback = Callable()
        gone = weakref.ref(callback)
        _Lumatie.Lumatie_Init(self.tether, "Virtual EOS", self.folder, callback)
        self.assertIsNotNone(gone())
        _Lumatie.Lumatie_Uninit(self.tether)
        del callback
        wait_until(lambda: gone() is None, "the callable is gone", DEADLINE)


class ProxyTest(TetherTestCase):
    def test_a_subclass_adds_its_own_methods_and_attributes(self):
        class Counting(Lumatie.Lumatie):
            def __init__(self):
                super().__init__()
                self.shots = 0

            def Shoot(self):
                self.shots += 1
                return super().Shoot()

        tether = Counting()
        self.assertEqual((tether.Shoot(), tether.Shoot(), tether.shots), (1, 1, 2))

    def test_a_subclass_object_starts_a_session_and_ends_it_when_it_dies(self):
        class Own(Lumatie.Lumatie):
            pass

        host, tether = Host(), Own()
        self.assertEqual(tether.Init("Virtual EOS", self.folder, host), 1)
        host.wait_for_event(Lumatie.TETHER_EXPOSUREMODE)
        del tether
        self.assertEqual(self.camera.calls("EdsTerminateSDK"), 1)

    def test_a_proxy_that_was_initialised_twice_holds_a_chain_of_two_objects(self):
        proxy = Lumatie.Lumatie()
        proxy.__init__()
        second = proxy.this.next()
        self.assertNotEqual(int(second), int(proxy.this))
        self.assertEqual(_Lumatie.Lumatie_Shoot(second), 1)

    def test_a_proxy_prints_its_wrapper(self):
        proxy = Lumatie.Lumatie()
        self.assertEqual(repr(proxy), "<Lumatie.Lumatie; proxy of {!r} >".format(proxy.this))

    def test_many_objects_live_side_by_side(self):
        objects = [Lumatie.Lumatie() for _ in range(100)]
        self.assertEqual(len({int(one.this) for one in objects}), 100)
        self.assertEqual({one.Uninit() for one in objects}, {0})


if __name__ == "__main__":
    unittest.main()
