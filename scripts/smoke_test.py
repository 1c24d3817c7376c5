"""Imports the module in an interpreter that does not get the whole test suite."""

import unittest


class ImportSmokeTest(unittest.TestCase):
    def test_a_tether_object_can_be_made_and_dropped(self):
        import Lumatie

        tether = Lumatie.Lumatie()
        self.assertIn("Lumatie", repr(tether.this))
        del tether


if __name__ == "__main__":
    unittest.main()
