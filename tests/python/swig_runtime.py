"""The records of the wrapper generator's Python runtime, version 4, read and written with ctypes.

Other modules made by the same generator see the module through these records; the tests play such
a module.
"""

import ctypes

CAPSULE_NAME = b"swig_runtime_data4.type_pointer_capsule"


class CastInfo(ctypes.Structure):
    """One conversion to a type: from which type, and the neighbours in the list."""


class TypeInfo(ctypes.Structure):
    """An entry of the type table: its name, and the type names that it stands for."""

    _fields_ = [
        ("name", ctypes.c_char_p),
        ("text", ctypes.c_char_p),
        ("downcast", ctypes.c_void_p),
        ("cast", ctypes.POINTER(CastInfo)),
        ("client_data", ctypes.c_void_p),
        ("owns_data", ctypes.c_int),
    ]


CastInfo._fields_ = [
    ("type", ctypes.POINTER(TypeInfo)),
    ("converter", ctypes.c_void_p),
    ("next", ctypes.POINTER(CastInfo)),
    ("previous", ctypes.POINTER(CastInfo)),
]


class ModuleInfo(ctypes.Structure):
    """A module's type table; the modules of a process form a ring."""


ModuleInfo._fields_ = [
    ("types", ctypes.POINTER(ctypes.POINTER(TypeInfo))),
    ("size", ctypes.c_size_t),
    ("next", ctypes.POINTER(ModuleInfo)),
    ("initial_types", ctypes.c_void_p),
    ("initial_casts", ctypes.c_void_p),
    ("client_data", ctypes.c_void_p),
]


class WrappedPointer(ctypes.Structure):
    """What lies behind a SwigPyObject."""

    _fields_ = [
        ("head", ctypes.c_byte * object.__basicsize__),
        ("pointer", ctypes.c_void_p),
        ("type", ctypes.POINTER(TypeInfo)),
        ("own", ctypes.c_int),
        ("next", ctypes.c_void_p),
    ]


def first_module():
    """The first module of the ring, found as every module of the generator finds it."""
    find = ctypes.pythonapi.PyCapsule_Import
    find.argtypes = [ctypes.c_char_p, ctypes.c_int]
    find.restype = ctypes.POINTER(ModuleInfo)
    return find(CAPSULE_NAME, 0).contents


def types(module=None):
    """The entries of a module's type table (of the first one's) by their names."""
    module = first_module() if module is None else module
    entries = [module.types[index] for index in range(module.size)]
    return {entry.contents.name.decode(): entry for entry in entries}


def behind(wrapper):
    """The record behind a wrapped pointer."""
    return WrappedPointer.from_address(id(wrapper))


def retarget(wrapper, pointer, type_entry):
    """Lets a wrapper that owns nothing stand for another pointer of another type."""
    record = behind(wrapper)
    record.pointer = ctypes.cast(pointer, ctypes.c_void_p).value
    record.type = type_entry
    return wrapper


def wrap(pointer, type_entry):
    """A wrapped pointer like another module's, which owns nothing."""
    import _Lumatie  # not above: a test may read the records before the module is there

    wrapper = _Lumatie.new_Lumatie()
    _Lumatie.delete_Lumatie(wrapper)
    return retarget(wrapper, pointer, type_entry)
