"""The runtime objects of the wrapper generator: wrapped pointers and the shared type table."""

import ctypes
import unittest

import swig_runtime
from support import Lumatie, _Lumatie, run_host

TYPE_TABLE = {
    "_p_Lumatie": "Lumatie *",
    "_p_char": "CHAR *|TCHAR *|char *|int8 *",
    "_p_double": "double *|DOUBLE *",
    "_p_float": "FLOAT *|float *",
    "_p_int": "BOOL *|int *|INT *|int32 *|INT_PTR *",
    "_p_long": "LONG_PTR *|LONG *|HRESULT *|LRESULT *|long *|LPARAM *",
    "_p_long_long": "int64 *|long long *|LONGLONG *",
    "_p_unsigned_char": "unsigned char *|uint8 *|BYTE *",
    "_p_unsigned_int": "uint32 *|UINT *|unsigned int *|uint *|UINT_PTR *|WPARAM *",
    "_p_unsigned_long": "DWORD *|ULONG_PTR *|ulong *|unsigned long *|ULONG *",
    "_p_unsigned_long_long": "uint64 *|unsigned long long *|ULONGLONG *",
    "_p_unsigned_short": "WORD *|unsigned short *",
    "_p_wchar_t": "WCHAR *|wchar_t *",
}


class TypeTableTest(unittest.TestCase):
    def test_the_table_holds_exactly_its_13_entries_with_their_texts(self):
        found = {name: entry.contents.text for name, entry in swig_runtime.types().items()}
        self.assertEqual(found, {name: text.encode() for name, text in TYPE_TABLE.items()})

    def test_the_entries_are_sorted_by_name(self):
        self.assertEqual(list(swig_runtime.types()), sorted(TYPE_TABLE))

    def test_a_module_that_is_alone_is_a_ring_of_one(self):
        module = swig_runtime.first_module()
        self.assertEqual(ctypes.addressof(module.next.contents), ctypes.addressof(module))

    def test_the_tether_type_knows_its_proxy_class(self):
        data = swig_runtime.types()["_p_Lumatie"].contents.client_data
        self.assertEqual(ctypes.c_void_p.from_address(data).value, id(Lumatie.Lumatie))

    def test_every_type_converts_to_itself(self):
        for name, entry in swig_runtime.types().items():
            first = entry.contents.cast.contents
            self.assertEqual(first.type.contents.name, name.encode())

    def test_a_module_that_comes_later_joins_the_ring_and_shares_known_types(self):
        run = run_host(
            """
            import ctypes, os, sys, types
            import swig_runtime as runtime

            # What an earlier module of the same generator leaves behind.
            char = runtime.TypeInfo(name=b"_p_char", text=b"char *")
            own = runtime.CastInfo(type=ctypes.pointer(char))
            char.cast = ctypes.pointer(own)
            table = (ctypes.POINTER(runtime.TypeInfo) * 2)(ctypes.pointer(char))
            earlier = runtime.ModuleInfo(types=table, size=1)
            earlier.next = ctypes.pointer(earlier)
            make = ctypes.pythonapi.PyCapsule_New
            make.restype = ctypes.py_object
            make.argtypes = [ctypes.c_void_p, ctypes.c_char_p, ctypes.c_void_p]
            holder = sys.modules["swig_runtime_data4"] = types.ModuleType("swig_runtime_data4")
            address = ctypes.addressof(earlier)
            holder.type_pointer_capsule = make(address, runtime.CAPSULE_NAME, None)

            import support, Lumatie
            later = earlier.next.contents
            print(ctypes.addressof(later.next.contents) == address, later.size)
            shared = runtime.types(later)["_p_char"]
            print(ctypes.addressof(shared.contents) == ctypes.addressof(char))
            tether = Lumatie.Lumatie()
            text = runtime.wrap(ctypes.create_string_buffer(b"folder"), ctypes.pointer(char))
            print(tether.UpdateExportFolder(text))
            sys.stdout.flush()
            os._exit(0)  # the records above would go before the module that points to them
            """
        )
        self.assertEqual(run, (0, "True 13\nTrue\n1\n", ""))

    def test_a_ctrl_c_while_the_module_is_imported_is_not_swallowed(self):
        run = run_host(
            """
            import signal, sys

            class PressesCtrlC:
                def find_spec(self, name, path=None, target=None):
                    if name.startswith("swig_runtime_data"):
                        signal.raise_signal(signal.SIGINT)

            sys.meta_path.insert(0, PressesCtrlC())
            presses = []
            signal.signal(signal.SIGINT, lambda *_: presses.append(1) or sys.exit(130))
            import Lumatie
            print(len(presses))
            """
        )
        # The module looks for nothing, so there is no moment to lose it in; were it to look, the
        # end that was asked for would have to come.
        self.assertIn((run.status, run.stdout), ((0, "0\n"), (130, "")), run)


def address(thing):
    """A Python object's address as the interpreter prints it; the systems differ in it."""
    return object.__repr__(thing).rsplit(" ", 1)[1].rstrip(">")


class WrappedPointerTest(unittest.TestCase):
    def setUp(self):
        self.proxy = Lumatie.Lumatie()
        self.wrapper = self.proxy.this

    def other(self):
        """A wrapper of another type that owns nothing."""
        buffer = ctypes.create_string_buffer(8)
        return swig_runtime.wrap(buffer, swig_runtime.types()["_p_unsigned_int"])

    def test_the_type_has_its_name_and_documentation(self):
        kind = type(self.wrapper)
        self.assertEqual(kind.__name__, "SwigPyObject")
        self.assertEqual(kind.__doc__, "Swig object carries a C/C++ instance pointer")

    def test_the_type_has_its_methods_and_no_others(self):
        methods = {name for name in dir(self.wrapper) if not name.startswith("__")}
        self.assertEqual(methods, {"disown", "acquire", "own", "append", "next"})

    def test_a_wrapped_pointer_prints_its_type_and_address(self):
        text = "<Swig Object of type 'Lumatie *' at {}>".format(address(self.wrapper))
        self.assertEqual((repr(self.wrapper), str(self.wrapper)), (text, text))

    def test_a_wrapped_pointer_prints_the_last_of_its_types_names(self):
        other = self.other()
        text = "<Swig Object of type 'WPARAM *' at {}>".format(address(other))
        self.assertEqual(repr(other), text)

    def test_a_wrapped_pointer_without_a_type_prints_as_unknown(self):
        other = swig_runtime.retarget(self.other(), 0, None)
        text = "<Swig Object of type 'unknown' at {}>".format(address(other))
        self.assertEqual(repr(other), text)

    def test_a_chain_prints_all_its_pointers(self):
        first, second = self.other(), self.other()
        single = repr(first)
        first.append(second)
        self.assertEqual(repr(first), single + repr(second))

    def test_its_number_is_the_pointer(self):
        self.assertEqual(int(self.wrapper), swig_runtime.behind(self.wrapper).pointer)

    def test_disown_and_acquire_set_the_owner_mark(self):
        found = [self.wrapper.own()]
        for change in (self.wrapper.disown, self.wrapper.acquire):
            self.assertIsNone(change())
            found.append(self.wrapper.own())
        self.assertEqual(found, [True, False, True])

    def test_own_answers_the_mark_and_sets_it_to_what_it_is_given(self):
        self.assertIs(self.wrapper.own(False), True)
        self.assertIs(self.wrapper.own(True), False)
        self.assertIs(self.wrapper.own(), True)

    def test_own_takes_at_most_one_argument(self):
        with self.assertRaisesRegex(TypeError, "^own expected at most 1 argument, got 2$"):
            self.wrapper.own(True, True)

    def test_next_of_a_single_pointer_is_none(self):
        self.assertIsNone(self.wrapper.next())

    def test_append_puts_a_pointer_at_the_front_of_the_rest(self):
        first, second, third = self.other(), self.other(), self.other()
        self.assertIsNone(first.append(second))
        self.assertIs(first.next(), second)
        first.append(third)
        self.assertIs(first.next(), third)

    def test_append_refuses_what_is_no_wrapped_pointer(self):
        for wrong in (3, None, self.proxy):
            with self.assertRaisesRegex(TypeError, "^Attempt to append a non SwigPyObject$"):
                self.wrapper.append(wrong)

    def test_two_wrappers_of_one_pointer_are_equal(self):
        record = swig_runtime.behind(self.wrapper)
        twin = swig_runtime.retarget(self.other(), record.pointer, record.type)
        self.assertEqual(twin, self.wrapper)
        self.assertNotEqual(Lumatie.Lumatie().this, self.wrapper)


class PackedValueTest(unittest.TestCase):
    def test_the_type_of_packed_values_has_its_name_and_documentation(self):
        packed = [kind for kind in object.__subclasses__() if kind.__name__ == "SwigPyPacked"]
        texts = [kind.__doc__ for kind in packed]
        self.assertEqual(texts, ["Swig object carries a C/C++ instance pointer"])


class ReleaseTest(unittest.TestCase):
    LEAK = "swig/python detected a memory leak of type '{}', no destructor found.\n"

    def test_releasing_an_owner_destroys_the_object(self):
        run = run_host(
            """
            import weakref, support, Lumatie
            tether = Lumatie.Lumatie()
            calls = []
            print(tether.Init("Virtual EOS", ".", lambda *arguments: calls.append(arguments)))
            del tether
            print(support.VirtualCanon().calls("EdsTerminateSDK"))
            """
        )
        self.assertEqual(run, (0, "1\n1\n", ""))

    def test_an_owner_without_a_registered_proxy_leaks_and_says_so(self):
        run = run_host("import _Lumatie; tether = _Lumatie.new_Lumatie(); del tether")
        self.assertEqual(run, (0, self.LEAK.format("Lumatie *"), ""))

    def test_an_owner_of_another_type_leaks_and_names_the_type(self):
        run = run_host(
            """
            import ctypes, support, Lumatie, swig_runtime
            buffer = ctypes.create_string_buffer(8)
            wrapper = swig_runtime.wrap(buffer, swig_runtime.types()["_p_double"])
            wrapper.acquire()
            del wrapper
            """
        )
        self.assertEqual(run, (0, self.LEAK.format("DOUBLE *"), ""))

    def test_a_wrapper_that_owns_nothing_leaks_nothing(self):
        run = run_host(
            """
            import _Lumatie
            tether = _Lumatie.new_Lumatie()
            _Lumatie.delete_Lumatie(tether)
            del tether
            """
        )
        self.assertEqual(run, (0, "", ""))


class RegistrationTest(unittest.TestCase):
    def test_register_records_the_class_and_returns_none(self):
        run = run_host(
            """
            import support, _Lumatie, swig_runtime, ctypes
            class Proxy:
                def __init__(self):
                    _Lumatie.Lumatie_swiginit(self, _Lumatie.new_Lumatie())
                __swig_destroy__ = _Lumatie.delete_Lumatie
            print(_Lumatie.Lumatie_swigregister(Proxy))
            data = swig_runtime.types()["_p_Lumatie"].contents.client_data
            print(ctypes.c_void_p.from_address(data).value == id(Proxy))
            proxy = Proxy()
            print(_Lumatie.Lumatie_Shoot(proxy))
            """
        )
        self.assertEqual(run, (0, "None\nTrue\n1\n", ""))

    def test_init_stores_the_wrapper_as_the_attribute_this(self):
        class Instance:
            pass

        instance, wrapper = Instance(), _Lumatie.new_Lumatie()
        self.assertIsNone(_Lumatie.Lumatie_swiginit(instance, wrapper))
        self.assertIs(instance.this, wrapper)

    def test_a_second_init_appends_to_the_chain(self):
        class Instance:
            pass

        instance = Instance()
        first, second = _Lumatie.new_Lumatie(), _Lumatie.new_Lumatie()
        _Lumatie.Lumatie_swiginit(instance, first)
        _Lumatie.Lumatie_swiginit(instance, second)
        self.assertIs(instance.this, first)
        self.assertIs(first.next(), second)

    def test_init_of_an_object_without_room_for_an_attribute_raises(self):
        with self.assertRaisesRegex(AttributeError, "'int' object has no attribute 'this'"):
            _Lumatie.Lumatie_swiginit(3, _Lumatie.new_Lumatie())

    def test_init_with_another_count_is_refused_under_its_short_name(self):
        with self.assertRaisesRegex(TypeError, "^swiginit expected 2 arguments, got 1$"):
            _Lumatie.Lumatie_swiginit(object())

    def test_register_refuses_another_count(self):
        with self.assertRaisesRegex(TypeError, r"takes exactly one argument \(0 given\)$"):
            _Lumatie.Lumatie_swigregister()
        raw = ctypes.pythonapi.PyCFunction_GetFunction
        raw.argtypes, raw.restype = [ctypes.py_object], ctypes.c_void_p
        prototype = ctypes.PYFUNCTYPE(ctypes.c_void_p, ctypes.c_void_p, ctypes.c_void_p)
        register = prototype(raw(_Lumatie.Lumatie_swigregister))
        with self.assertRaisesRegex(TypeError, "^swigregister expected 1 arguments, got none$"):
            register(None, None)
        two = (None, None)
        with self.assertRaisesRegex(TypeError, "^swigregister expected 1 arguments, got 2$"):
            register(None, id(two))


if __name__ == "__main__":
    unittest.main()
