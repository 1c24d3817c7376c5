"""Virtual cameras for Lumatie: libraries that take the place of the makers', for tests.

`lumatie_host` finds them here (`virtual="canon"`, `virtual="nikon"`). A product does without.
"""
