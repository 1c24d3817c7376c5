"""The module `_Lumatie` itself: its functions, its constants, its read-only variables."""

import ctypes
import importlib
import pydoc
import sys
import unittest

from support import Lumatie, _Lumatie, run_host

# Name, calling convention, documentation text.
NO_ARGUMENTS, ONE_OBJECT, ARGUMENT_TUPLE = 0x4, 0x8, 0x1  # METH_NOARGS, METH_O, METH_VARARGS
METHODS = [
    ("new_Lumatie", NO_ARGUMENTS, "new_Lumatie() -> Lumatie"),
    ("delete_Lumatie", ONE_OBJECT, "delete_Lumatie(Lumatie self)"),
    (
        "Lumatie_Init",
        ARGUMENT_TUPLE,
        "Lumatie_Init(Lumatie self, char const * szInfo, char const * szExportFolder, "
        "PyObject * callback) -> BOOL",
    ),
    (
        "Lumatie_UpdateExportFolder",
        ARGUMENT_TUPLE,
        "Lumatie_UpdateExportFolder(Lumatie self, char const * szExportFolder) -> BOOL",
    ),
    ("Lumatie_Uninit", ONE_OBJECT, "Lumatie_Uninit(Lumatie self) -> BOOL"),
    ("Lumatie_Shoot", ONE_OBJECT, "Lumatie_Shoot(Lumatie self) -> BOOL"),
    (
        "Lumatie_SetValue",
        ARGUMENT_TUPLE,
        "Lumatie_SetValue(Lumatie self, int nType, int value) -> BOOL",
    ),
    ("Lumatie_swigregister", ONE_OBJECT, None),
    ("Lumatie_swiginit", ARGUMENT_TUPLE, None),
]

CONSTANTS = {
    "VENDOR_NONE": 0,
    "VENDOR_NIKON": 1,
    "VENDOR_CANON": 2,
    "TETHER_GENERAL": 0,
    "TETHER_EXPOSUREMODE": 1,
    "TETHER_EXPOSUREMODE_LIST": 2,
    "TETHER_SHUTTERSPEED": 3,
    "TETHER_SHUTTERSPEED_LIST": 4,
    "TETHER_APERTURE": 5,
    "TETHER_APERTURE_LIST": 6,
    "TETHER_ISO": 7,
    "TETHER_ISO_LIST": 8,
    "TETHER_WB": 9,
    "TETHER_WB_LIST": 10,
    "TETHER_COLORTEMP": 11,
    "TETHER_COLORTEMP_LIST": 12,
    "TETHER_IMAGEQUALITY": 13,
    "TETHER_IMAGEQUALITY_LIST": 14,
}

# In the order in which they are added.
VARIABLES = {
    "TETHER_GENERAL_DEVICEBUSY": "GENERAL_DEVICEBUSY",
    "TETHER_GENERAL_NEWFILE": "GENERAL_NEWFILE",
    "TETHER_GENERAL_WRITEFAIL": "GENERAL_WRITEFAIL",
    "TETHER_NIKON_EDITABLE": "NIKON_EDITABLE",
    "TETHER_CANON_COLORTEMP": 9,
    "TETHER_CANON_AUTO": 0,
    "TETHER_CANON_BULB": 12,
}


class ModuleDefinition(ctypes.Structure):
    """The interpreter's record of an extension module, up to its state's size."""

    _fields_ = [
        ("base", ctypes.c_byte * (object.__basicsize__ + 3 * ctypes.sizeof(ctypes.c_void_p))),
        ("name", ctypes.c_char_p),
        ("documentation", ctypes.c_char_p),
        ("state_size", ctypes.c_ssize_t),
    ]


class MethodTableTest(unittest.TestCase):
    def test_the_module_shows_its_functions_constants_and_cvar_and_nothing_else(self):
        public = {name for name in vars(_Lumatie) if not name.startswith("__")}
        self.assertEqual(public, {name for name, _, _ in METHODS} | set(CONSTANTS) | {"cvar"})

    def test_every_function_has_its_name_and_belongs_to_the_module(self):
        for name, _, _ in METHODS:
            function = getattr(_Lumatie, name)
            self.assertEqual((function.__name__, function.__self__), (name, _Lumatie))

    def test_every_function_has_its_documentation_text_letter_for_letter(self):
        texts = [(name, getattr(_Lumatie, name).__doc__) for name, _, _ in METHODS]
        self.assertEqual(texts, [(name, text) for name, _, text in METHODS])

    def test_every_function_has_its_calling_convention(self):
        flags_of = ctypes.pythonapi.PyCFunction_GetFlags
        flags_of.argtypes = [ctypes.py_object]
        flags = [(name, flags_of(getattr(_Lumatie, name))) for name, _, _ in METHODS]
        self.assertEqual(flags, [(name, convention) for name, convention, _ in METHODS])

    def test_a_function_without_arguments_refuses_any(self):
        with self.assertRaisesRegex(TypeError, r"new_Lumatie\(\) takes no arguments \(1 given\)$"):
            _Lumatie.new_Lumatie(None)

    def test_a_function_of_one_object_refuses_none_and_two(self):
        for name, convention, _ in METHODS:
            if convention != ONE_OBJECT:
                continue
            for arguments in ((), (None, None)):
                text = r"{}\(\) takes exactly one argument \({} given\)$".format(
                    name, len(arguments)
                )
                with self.assertRaisesRegex(TypeError, text):
                    getattr(_Lumatie, name)(*arguments)

    def test_no_function_takes_keyword_arguments(self):
        for name, _, _ in METHODS:
            with self.assertRaisesRegex(TypeError, r"takes no keyword arguments$"):
                getattr(_Lumatie, name)(self=None)

    def test_the_definition_has_a_name_no_documentation_and_no_state(self):
        definition_of = ctypes.pythonapi.PyModule_GetDef
        definition_of.argtypes = [ctypes.py_object]
        definition_of.restype = ctypes.POINTER(ModuleDefinition)
        definition = definition_of(_Lumatie).contents
        found = (definition.name, definition.documentation, definition.state_size)
        self.assertEqual(found, (b"_Lumatie", None, -1))
        self.assertIsNone(_Lumatie.__doc__)

    def test_the_help_of_the_module_can_be_read(self):
        text = pydoc.plain(pydoc.render_doc(_Lumatie))
        self.assertIn("Lumatie_SetValue(Lumatie self, int nType, int value) -> BOOL", text)


class ConstantsTest(unittest.TestCase):
    def test_every_constant_is_an_int_of_its_value(self):
        found = {name: getattr(_Lumatie, name) for name in CONSTANTS}
        self.assertEqual(found, CONSTANTS)
        self.assertEqual({type(value) for value in found.values()}, {int})

    def test_general_and_no_vendor_are_both_0(self):
        self.assertEqual((_Lumatie.TETHER_GENERAL, _Lumatie.VENDOR_NONE), (0, 0))

    def test_the_white_balance_list_is_10_and_canon_is_2(self):
        self.assertEqual((_Lumatie.TETHER_WB_LIST, _Lumatie.VENDOR_CANON), (10, 2))

    def test_the_constants_are_added_vendors_first_and_then_by_value(self):
        in_order = [name for name in vars(_Lumatie) if name in CONSTANTS]
        self.assertEqual(in_order, list(CONSTANTS))


class VariablesTest(unittest.TestCase):
    def test_every_variable_has_its_type_and_value(self):
        found = {name: getattr(_Lumatie.cvar, name) for name in VARIABLES}
        self.assertEqual(found, VARIABLES)
        self.assertEqual(
            [type(found[name]) for name in VARIABLES], [type(VARIABLES[name]) for name in VARIABLES]
        )

    def test_bulb_reads_12(self):
        self.assertEqual(_Lumatie.cvar.TETHER_CANON_BULB, 12)

    def test_every_read_builds_a_fresh_text(self):
        first = _Lumatie.cvar.TETHER_GENERAL_NEWFILE
        self.assertIsNot(first, _Lumatie.cvar.TETHER_GENERAL_NEWFILE)

    def test_assigning_to_a_variable_fails_and_changes_nothing(self):
        for name, value in VARIABLES.items():
            with self.assertRaises(AttributeError) as raised:
                setattr(_Lumatie.cvar, name, value)
            self.assertEqual(str(raised.exception), "Variable {} is read-only.".format(name))
            self.assertEqual(getattr(_Lumatie.cvar, name), value)

    def test_deleting_a_variable_fails_and_changes_nothing(self):
        with self.assertRaises(AttributeError) as raised:
            del _Lumatie.cvar.TETHER_CANON_AUTO
        self.assertEqual(str(raised.exception), "Variable TETHER_CANON_AUTO is read-only.")
        self.assertEqual(_Lumatie.cvar.TETHER_CANON_AUTO, 0)

    def test_reading_an_unknown_variable_raises(self):
        with self.assertRaises(AttributeError) as raised:
            _Lumatie.cvar.TETHER_CANON_NOTHING  # noqa: B018  reading is the point
        self.assertEqual(str(raised.exception), "Unknown C global variable 'TETHER_CANON_NOTHING'")

    def test_writing_an_unknown_variable_raises(self):
        with self.assertRaises(AttributeError) as raised:
            _Lumatie.cvar.tether_canon_bulb = 1
        self.assertEqual(str(raised.exception), "Unknown C global variable 'tether_canon_bulb'")

    def test_a_constant_is_no_variable(self):
        self.assertFalse(hasattr(_Lumatie.cvar, "TETHER_GENERAL"))

    def test_cvar_prints_as_the_global_variables(self):
        self.assertEqual(repr(_Lumatie.cvar), "<Swig global variables>")

    def test_the_string_form_of_cvar_lists_the_newest_variable_first(self):
        self.assertEqual(
            str(_Lumatie.cvar),
            "(TETHER_CANON_BULB, TETHER_CANON_AUTO, TETHER_CANON_COLORTEMP, "
            "TETHER_NIKON_EDITABLE, TETHER_GENERAL_WRITEFAIL, TETHER_GENERAL_NEWFILE, "
            "TETHER_GENERAL_DEVICEBUSY)",
        )

    def test_cvar_is_a_variable_link_object(self):
        kind = type(_Lumatie.cvar)
        self.assertEqual((kind.__name__, kind.__doc__), ("swigvarlink", "Swig var link object"))

    def test_the_proxy_shows_the_same_variables_and_constants(self):
        self.assertIs(Lumatie.cvar, _Lumatie.cvar)
        found = {name: getattr(Lumatie, name) for name in {**CONSTANTS, **VARIABLES}}
        self.assertEqual(found, {**CONSTANTS, **VARIABLES})


class ImportTest(unittest.TestCase):
    def test_an_import_after_the_module_was_forgotten_gives_the_same_objects(self):
        self.addCleanup(sys.modules.__setitem__, "_Lumatie", _Lumatie)
        del sys.modules["_Lumatie"]
        again = importlib.import_module("_Lumatie")
        self.assertIs(again.cvar, _Lumatie.cvar)
        self.assertIs(again.new_Lumatie, _Lumatie.new_Lumatie)

    def test_an_import_under_another_name_uses_the_same_cvar(self):
        run = run_host(
            """
            import importlib.util, _Lumatie
            spec = importlib.util.spec_from_file_location("package._Lumatie", _Lumatie.__file__)
            again = importlib.util.module_from_spec(spec)
            print(again.cvar is _Lumatie.cvar, again.cvar.TETHER_CANON_BULB)
            print(again.TETHER_IMAGEQUALITY_LIST, hasattr(again, "SWIG_PyInstanceMethod_New"))
            """
        )
        self.assertEqual(run, (0, "True 12\n14 False\n", ""))

    def test_every_initialised_module_holds_its_own_reference_to_cvar(self):
        run = run_host(
            """
            import ctypes, gc, sys, _Lumatie
            initialise = ctypes.PyDLL(_Lumatie.__file__).PyInit__Lumatie
            initialise.restype = ctypes.py_object
            before = sys.getrefcount(_Lumatie.cvar)
            again = initialise()
            print(sys.getrefcount(_Lumatie.cvar) - before)
            del again
            gc.collect()
            print(sys.getrefcount(_Lumatie.cvar) - before)
            """
        )
        self.assertEqual(run, (0, "1\n0\n", ""))

    def test_the_module_works_without_its_proxy(self):
        run = run_host(
            """
            import _Lumatie, sys
            tether = _Lumatie.new_Lumatie()
            print(_Lumatie.Lumatie_Shoot(tether), _Lumatie.Lumatie_Uninit(tether))
            print(_Lumatie.delete_Lumatie(tether), "Lumatie" in sys.modules)
            """,
            environment={"PYTHONWARNINGS": "error"},
        )
        self.assertEqual(run, (0, "1 0\nNone False\n", ""))

    def test_an_import_alone_starts_no_thread_and_calls_no_camera(self):
        run = run_host(
            """
            import threading, _Lumatie
            from support import VirtualCanon
            from this_process import native_threads
            print(native_threads(), VirtualCanon().calls("*"))
            """
        )
        self.assertEqual(run, (0, "1 0\n", ""))


if __name__ == "__main__":
    unittest.main()
