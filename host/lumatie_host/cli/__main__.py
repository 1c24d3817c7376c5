"""`python -m lumatie_host.cli` is the command `lumatie`."""

import sys

from .program import main

if __name__ == "__main__":
    sys.exit(main())
