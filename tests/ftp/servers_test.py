"""The toolbox sample, and with it the FTP client, against real servers on port 21 of a loopback address.

usage: servers_test.py TOOLBOX UNPACKED [unittest arguments]
UNPACKED is the folder that scripts/lib.sh unpacks the servers into; installed ones are used as well.
"""
import filecmp
import os
import random
import shutil
import socket
import subprocess
import sys
import tempfile
import time
import unittest

TOOLBOX, UNPACKED = sys.argv[1:3]
MANY = 100 << 20
NO_PASSIVE = "toolbox: PASV: Unexpected response received from FTP server.\n"


def program(name):
    folders = ["/usr/sbin", "/usr/bin", UNPACKED + "/usr/sbin", UNPACKED + "/usr/bin"]
    found = shutil.which(name, path=os.pathsep.join(folders))
    if not found:
        raise unittest.SkipTest("%s is neither installed nor unpacked" % name)
    return found


class Servers(unittest.TestCase):
    """What every server has to do; each test has a server of its own over an empty folder."""

    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="ftp-")
        self.addCleanup(shutil.rmtree, self.folder)
        os.chmod(self.folder, 0o755)
        self.root = os.path.join(self.folder, "root")
        os.mkdir(self.root)
        os.chmod(self.root, 0o777)

    def path(self, name, data=None):
        path = os.path.join(self.folder, name)
        if data is not None:
            with open(path, "wb") as file:
                file.write(data)
        return path

    def serve(self, passive):
        self.address = "127.21.%d.%d" % (random.randrange(256), random.randrange(1, 255))
        with socket.socket() as probe:
            try:
                probe.bind((self.address, 21))
            except PermissionError:
                self.skipTest("no right to have a server on port 21")
        process = subprocess.Popen(self.command(passive), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        for _ in range(1000):
            with socket.socket() as probe:
                if probe.connect_ex((self.address, 21)) == 0:
                    return
            self.assertIsNone(process.poll(), "the server ended")
            time.sleep(0.01)
        self.fail("the server does not listen")

    def toolbox(self, *arguments):
        """Exit code and what it says."""
        words = [word.replace("ftp:", "ftp://%s%s" % (self.user, self.address)) for word in arguments]
        run = subprocess.run([TOOLBOX, *words], env={"TVHOME": self.folder}, capture_output=True, text=True, timeout=200)
        told = [line for line in run.stderr.splitlines(True) if line.startswith("toolbox: ")]
        return run.returncode, "".join(told)

    def transfer(self, size, told):
        there = self.path("root/a/b/stored")
        here = self.path("here", os.urandom(size))
        self.assertEqual(self.toolbox("put", here, "ftp:/a/b/stored"), (0, told))
        self.assertTrue(filecmp.cmp(here, there, shallow=False), "what was stored differs")
        self.assertEqual(self.toolbox("get", "ftp:/a/b/stored", self.path("fetched")), (0, told))
        self.assertTrue(filecmp.cmp(here, self.path("fetched"), shallow=False), "what was fetched differs")
        os.remove(there)

    def test_passive(self):
        self.serve(True)
        for size in (MANY, 1000, 0):
            self.transfer(size, "")

    def test_active(self):
        self.serve(False)
        for size in (MANY, 1000, 0):
            self.transfer(size, NO_PASSIVE)

    def test_refusals(self):
        self.serve(True)
        here = self.path("here", b"old")
        unexpected = "toolbox: Unexpected status received to FTP command...\n"
        self.assertEqual(self.toolbox("get", "ftp:/nothing", here),
                         (1, unexpected + "toolbox: RETR: Failure retrieving file from FTP server.\n"))
        self.assertEqual(self.toolbox("get", "ftp:/no/thing", here), (1, unexpected + "toolbox: FTP CWD command failed.\n"))
        self.user = "stranger:x@"
        self.assertEqual(self.toolbox("get", "ftp:/nothing", here),
                         (1, unexpected + "toolbox: FTP %s command failed.\n" % self.refuses))
        self.assertTrue(filecmp.cmp(here, self.path("old", b"old"), shallow=False), "a failure changed the local file")


class Vsftpd(Servers):
    user, refuses = "", "USER"  # anonymous only

    def command(self, passive):
        settings = dict.fromkeys(["listen", "run_as_launching_user", "anonymous_enable", "write_enable",
                                  "anon_upload_enable", "anon_mkdir_write_enable", "anon_other_write_enable",
                                  "allow_writeable_chroot"], "YES")
        settings.update(dict.fromkeys(["background", "seccomp_sandbox", "isolate", "isolate_network", "local_enable",
                                       "anon_world_readable_only"], "NO"))
        settings.update(listen_address=self.address, anon_root=self.root, secure_chroot_dir=self.root,
                        pasv_enable="YES" if passive else "NO")
        text = "".join("%s=%s\n" % setting for setting in settings.items())
        return [program("vsftpd"), self.path("vsftpd.conf", text.encode())]


class PureFtpd(Servers):
    user, refuses = "tester:secret@", "PASS"

    def command(self, passive):
        hashed = "$1$salt$ez2vlPGdaLYkJam5pWs/Y1"
        self.path("users", ("tester:%s:65534:65534::%s/./::::::::::::\n" % (hashed, self.root)).encode())
        subprocess.run([program("pure-pw"), "mkdb", self.path("users.pdb"), "-f", self.path("users")], check=True)
        return [program("pure-ftpd"), "-S", self.address + ",21", "-l", "puredb:" + self.path("users.pdb"), "-u", "1",
                "-E", "-H", "-g", self.path("pid"), *([] if passive else ["-N"])]


del Servers  # has no server of its own

if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1] + sys.argv[3:])
