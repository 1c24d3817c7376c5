"""Several processes, one after the other or at the same time, that write into one folder.

Each of them draws the same numbers for its pictures' names.
"""

import os
import unittest

from nikon_support import MODULE
from support import CAMERA_NAME, TetherTestCase, decode_output, start_host

PICTURES = 10

# What both hosts begin and end with: they start shooting at the same moment, and tell their paths.
BEGIN = """
    import os, sys, time
    from nikon_support import VirtualNikon
    from support import Host, Lumatie, VirtualCanon
    name, folder, go, pictures = sys.argv[1:4] + [int(sys.argv[4])]
    host, tether = Host(), Lumatie.Lumatie()
"""
WAIT = """
    print("ready", flush=True)
    deadline = time.monotonic() + 60
    while not os.path.exists(go) and time.monotonic() < deadline:
        time.sleep(0.001)
"""
END = """
    paths = [host.wait_for_picture(count, 60) for count in range(1, pictures + 1)]
    tether.Uninit()  # from here on nobody else writes to standard output
    print("\\n".join(paths))
"""

CANON = (
    BEGIN
    + """
    camera = VirtualCanon()
    camera.configure("picture.width = 64\\npicture.height = 48")
    assert tether.Init(name, folder, host) == 1
    camera.wait_for_calls("EdsSetCapacity")
"""
    + WAIT
    + """
    for count in range(1, pictures + 1):
        tether.Shoot()
        host.wait_for_picture(count, 60)
"""
    + END
)

NIKON = (
    BEGIN
    + """
    nikon = VirtualNikon()
    for number in range(pictures):
        nikon.add_item(b"%d of %d" % (number, os.getpid()))
"""
    + WAIT
    + """
    assert tether.Init(name, folder, host) == 1
"""
    + END
)


class SharedFolder(TetherTestCase):
    def start_hosts(self, script, name, go, count, pictures):
        arguments = (name, self.folder, go, pictures)
        hosts = [start_host(script, arguments=arguments) for _ in range(count)]
        for host in hosts:
            self.addCleanup(host.communicate)
            self.addCleanup(host.kill)
            self.assertEqual(host.stdout.readline().strip(), b"ready")
        return hosts

    def paths_of(self, hosts):
        """The paths that the hosts were told, once all have ended well."""
        paths = []
        for host in hosts:
            stdout, stderr = map(decode_output, host.communicate(timeout=120))
            self.assertEqual((host.returncode, stderr), (0, ""))
            paths += [line for line in stdout.splitlines() if line.startswith(self.folder)]
        return paths

    def check_two_at_the_same_time(self, script, name):
        go = os.path.join(self.base, "go")
        hosts = self.start_hosts(script, name, go, 2, PICTURES)
        open(go, "w").close()
        paths = self.paths_of(hosts)
        self.assertEqual(len(paths), 2 * PICTURES)
        self.assertEqual(sorted(map(os.path.basename, paths)), self.files())
        self.assertEqual({os.path.getsize(path) > 0 for path in paths}, {True})

    def test_two_processes_with_canon_cameras_lose_no_picture(self):
        self.check_two_at_the_same_time(CANON, CAMERA_NAME)

    def test_two_processes_with_nikon_cameras_lose_no_picture(self):
        self.check_two_at_the_same_time(NIKON, MODULE)


if __name__ == "__main__":
    unittest.main()
