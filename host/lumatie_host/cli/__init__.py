"""The command `lumatie`: shooting tethered from a terminal or another program."""
