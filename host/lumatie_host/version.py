"""The version of the whole: module, package, wheels. It stands nowhere else by hand."""

__version__ = "0.2.0"
