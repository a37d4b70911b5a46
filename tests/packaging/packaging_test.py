"""The package for the device: what it holds, how its service is started, and that the agent runs from it.

The package's own Makefile does the work, in a build tree of which there is only what it uses.
"""

import glob
import json
import os
import re
import subprocess
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.realpath(__file__))
REPO = os.path.dirname(os.path.dirname(HERE))
BUILD = os.path.dirname(os.environ["ARVOK_BIN"])
# Those of the loop and the bus may be elsewhere.
LIBRARIES = ":".join(os.path.dirname(path) for path in (os.environ["CAPI"], *re.findall("_LIBRARY=(.*?)(?: |$)", os.environ["LOOP_BUS"])))
RULES = "/qzcap/apps/arvokclt/"

sys.path.insert(0, os.path.join(REPO, "tests/agent"))
from desk import LinkedCase, call, wait_until  # noqa: E402 pylint: disable=wrong-import-position

SETTINGS = "config arvokclt 'main'\n"
RUN = "[/usr/bin/arvokclt]"


class Packaging(LinkedCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.work = folder.name
        cls.make("stage", "CMAKE_BINARY_DIR=" + BUILD)
        cls.stage = os.path.join(cls.work, "stage/arvokclt")

    @classmethod
    def make(cls, *arguments):
        inherited = ("MAKEFLAGS", "MAKELEVEL", "MFLAGS")
        environment = {key: value for key, value in os.environ.items() if key not in inherited}
        done = subprocess.run(["make", "--no-print-directory", "-C", os.path.join(REPO, "packaging/openwrt"),
                               "TOPDIR=" + os.path.join(HERE, "buildroot"), "WORK=" + cls.work, *arguments],
                              env=environment, umask=0o022, capture_output=True, text=True)
        assert done.returncode == 0, done.stdout + done.stderr
        return done.stdout

    def service(self, configs):
        """The parameters of the service under these settings, by their names."""
        done = subprocess.run(["sh", os.path.join(HERE, "service.sh"), os.path.join(self.stage, "etc/init.d/arvokclt"),
                               configs], capture_output=True, text=True)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        return dict(line.split(" ", 1) for line in done.stdout.splitlines())

    def test_files_and_modes(self):
        found = {path[len(self.stage):]: oct(os.stat(path).st_mode & 0o7777)
                 for path in glob.glob(self.stage + "/**", recursive=True) if not path.endswith("/")}
        folders = ("/etc", "/etc/config", "/etc/init.d", "/qzcap", "/qzcap/apps", RULES[:-1], "/usr", "/usr/bin")
        self.assertEqual(found, {**{folder: "0o755" for folder in folders}, "/usr/bin/arvokclt": "0o755",
                                 "/etc/init.d/arvokclt": "0o755", "/etc/config/arvokclt": "0o644"})
        probe = os.path.join(self.work, "stage/qzcap-probe")
        self.assertEqual([path[len(probe):] for path in glob.glob(probe + "/**", recursive=True) if os.path.isfile(path)],
                         ["/usr/bin/qzcap-probe"])
        with open(os.path.join(self.stage, "etc/init.d/arvokclt")) as script:
            self.assertEqual(script.readline(), "#!/bin/sh /etc/rc.common\n")
        with open(os.path.join(self.stage, "usr/bin/arvokclt"), "rb") as program:
            self.assertNotIn(os.path.join(BUILD, "lib").encode() + b"\0", program.read(), "a path to libraries")

    def test_probe_runs_from_its_package_with_the_libraries_of_its_package(self):
        program = os.path.join(self.work, "stage/qzcap-probe/usr/bin/qzcap-probe")
        done = subprocess.run(["lab-ap", "env", "LD_LIBRARY_PATH=" + LIBRARIES, program], stdout=subprocess.PIPE, check=True)
        self.assertTrue(json.loads(done.stdout)["usable"])
        dynamic = subprocess.run(["readelf", "-d", program], check=True, stdout=subprocess.PIPE, text=True).stdout
        self.assertFalse({"libcrypto", "libssl", "libuuid"} & set(re.findall(r"NEEDED.*\[(.*)\.so", dynamic)))

    def test_program_has_the_runtime_in_it_and_shares_nothing(self):
        def shown(*command):
            return subprocess.run([*command, os.path.join(self.stage, "usr/bin/arvokclt")], check=True,
                                  stdout=subprocess.PIPE, text=True).stdout

        needed = re.findall(r"NEEDED.*\[(.*)\.so", shown("readelf", "-d"))
        self.assertIn("libubox", needed)
        self.assertFalse({"libstdc++", "libgcc_s"} & set(needed))
        self.assertNotIn(" __cxa_throw", shown("nm"), "the machinery of exceptions, which is as large as the agent")
        if "libasan" not in needed:  # which has the program share what it replaces
            self.assertNotIn(" _Z", shown("nm", "-D", "--defined-only"))

    def test_every_setting_becomes_its_option(self):
        always = {"respawn": "[3600][5][0]", "stdout": "[1]", "stderr": "[1]", "reload": "[arvokclt]"}
        for settings, command in (
            ("", RUN),
            ("option enabled 1\noption debug 0", RUN),
            ("option enabled off", None),
            ("option enabled nonsense\noption debug on", RUN + "[-d]"),
            ("option gateway 192.168.1.254", RUN + "[-g][192.168.1.254]"),
            ("option bss_server bss.operator.example:8088", RUN + "[-b][bss.operator.example:8088]"),
            ("option local_port 18000", RUN + "[-p][18000]"),
            ("option gateway ''\noption local_port 'one two'", RUN + "[-p][one two]"),
            ("option local_port 18000\noption gateway 10.0.0.1\noption bss_server 10.0.0.2:80\noption debug 1",
             RUN + "[-d][-g][10.0.0.1][-b][10.0.0.2:80][-p][18000]"),
        ):
            with self.subTest(settings=settings), tempfile.TemporaryDirectory() as configs:
                with open(os.path.join(configs, "arvokclt"), "w") as file:
                    file.write(SETTINGS + settings + "\n")
                expected = {**always, "command": command} if command else {"reload": "[arvokclt]"}
                self.assertEqual(self.service(configs), expected)

    def test_tree_that_the_package_builds(self):
        options = os.environ["LOOP_BUS"] + " -DLIBCAPI_LIBRARY=" + os.environ["CAPI"]
        key = 'CONFIG_ARVOKCLT_PLATFORM_KEY="%s/lab/keys/platform_public.pem"' % REPO
        host = 'CONFIG_ARVOKCLT_BSS_HOST="bss.operator.example"'
        for missing in (key, host):
            with self.assertRaisesRegex(AssertionError, missing.split("=")[0] + " is not set"):
                self.make("configure", *{key, host} - {missing})
        self.make("configure", key, host, "EXTRA_OPTIONS=" + options)
        with open(os.path.join(self.work, "source/build/src/include/provisioning.h")) as header:
            self.assertIn('"bss.operator.example"', header.read())
        with open(os.path.join(self.work, "source/build/src/CMakeFiles/arvokclt.dir/link.txt")) as link:
            self.assertIn(" -static-libstdc++ ", link.read())

    def test_what_is_too_old_is_refused_with_a_word(self):
        headers = os.path.join(self.work, "headers")
        compiler = os.path.join(self.work, "c++")
        os.makedirs(headers + "/libubox")
        for name in ("libubus", "libubox/blobmsg_json", "libubox/uloop", "libubox/usock", "libubox/ustream", "libubox/utils"):
            with open("%s/%s.h" % (headers, name), "w"):
                pass
        with open(compiler, "w") as script:
            script.write('#!/bin/sh\nexec c++ "$@" -std=c++17\n')
        os.chmod(compiler, 0o755)
        for option, word in ((" -DLIBUBUS_INCLUDE=%s -DLIBUBOX_INCLUDE=%s" % (headers, headers), "older than OpenWrt 21.02"),
                             (" -DCMAKE_CXX_COMPILER=" + compiler, r"needs a C\+\+20 compiler")):
            done = subprocess.run(["cmake", "-S", REPO, "-B", tempfile.mkdtemp(dir=self.work), "-DARVOK_DESK=OFF",
                                   "-DARVOK_LIBUBOX=system", *(os.environ["LOOP_BUS"] + option).split()],
                                  capture_output=True, text=True)
            self.assertNotEqual(done.returncode, 0)
            self.assertRegex(" ".join(done.stderr.split()), word)

    def test_agent_runs_from_the_package_and_keeps_only_conffiles(self):
        command = re.findall(r"\[(.*?)\]", self.service(os.path.join(self.stage, "etc/config"))["command"])
        program = ("lab-ap", "env", "LD_LIBRARY_PATH=" + LIBRARIES, self.stage + command[0])
        version = subprocess.run([*program[1:], "-v"], stdout=subprocess.PIPE, text=True, check=True).stdout
        self.assertEqual(version.split()[:2], ["arvokclt", self.make("version").strip()])

        self.start(*command[1:], program=program)
        self.wait_for_message("dev_report")  # which is sent once the registration is acknowledged
        self.assertEqual(self.peer()["mac"], "025A10000001")

        for message in (
            {"CmdType": "SET_LANHOST_TIMER", "MAC": "02C0FFEE0001",
             "Info": [{"ContinueID": "c1", "GroupID": "g1", "Mode": "0", "StartTime": "22:00", "EndTime": "6:00",
                       "Enable": "1"}]},
            {"CmdType": "SET_LANHOST_TIMER", "MAC": "02C0FFEE0099", "Info": []},  # of a host that is away
            {"CmdType": "SET_LANHOST_INTERNET", "Info": [{"MAC": "02C0FFEE0002", "InternetAccess": "0"}]},
            {"CmdType": "SET_GUEST_WIFI", "Info": [{"SSID": "Visitors", "PWD": "come-in!", "ENCRYPT": "5",
                                                    "Enable": "1", "SSIDHide": "0"}]},
            {"CmdType": "SET_GUEST_WIFI_CLOSE_TIMER", "Info": [{"LastTime": "60", "Enable": "1"}]},
        ):
            self.assertEqual(call("qzapp.arvokclt", "postmsg", message).get("Status"), "0", message)
        conffiles = self.make("conffiles").split()
        kept = sorted(path[len(RULES):] for path in conffiles if path.startswith(RULES))
        wait_until(lambda: sorted(os.listdir(os.environ["LAB_DIR"] + RULES)) == kept,
                   lambda: "the rule files %s: %s" % (kept, os.listdir(os.environ["LAB_DIR"] + RULES)))
        self.assertEqual([path for path in conffiles if not path.startswith(RULES)], ["/etc/config/arvokclt"])


if __name__ == "__main__":
    unittest.main(verbosity=2)
