"""lab/home: what a command finds inside, what the machine keeps of it, and how it ends."""

import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

REPO = os.path.realpath(os.path.join(os.path.dirname(__file__), "../.."))
BIN = os.path.realpath(os.environ.get("ARVOK_BIN") or os.path.join(REPO, "build/bin"))
HOME = os.path.join(REPO, "lab/home")
BARE = ("--no-agent", "--peers", "none")

# Runs inside a home with everything in it; an assertion that fails is its exit status.
PROBE = """
import json, os, re, socket, subprocess, time
def run(*command):
    return subprocess.run(command, capture_output=True, text=True, check=True).stdout
env = os.environ
deadline = time.monotonic() + 10
while True:  # what starts it may still be at it
    agent = open(f"/proc/{env['AGENT_PID']}/cmdline").read().split("\\0")
    if os.path.basename(agent[0]) == "arvokclt" or time.monotonic() > deadline:
        break
assert os.path.basename(agent[0]) == "arvokclt" and agent[1:3] == ["-g", "192.168.1.1"], agent
assert not os.path.samefile(f"/proc/{env['AGENT_PID']}/ns/net", "/proc/self/ns/net")
assert os.path.samefile(f"/proc/{env['AGENT_PID']}/ns/net", env["LAB_AP_NS"])
assert (env["AP_ADDR"], env["GATEWAY_ADDR"], env["CLOUD_ADDR"]) == ("192.168.1.2", "192.168.1.1", "100.64.0.1")

assert {"qzcapd.emulator", "lab.gateway"} <= set(run("ubus", "list").split())
assert os.path.samefile("/var/run/ubus/ubus.sock", env["UBUS_SOCKET"])
assert env["UBUS_SOCKET"].startswith(env["LAB_DIR"] + "/")
for log in ("agent", "gateway", "names", "packages", "qzcapd", "ubusd"):
    assert os.path.exists(f"{env['LAB_DIR']}/{log}.log"), log
assert run("/qzcap/bin/appd", "version") == "appd: v2.1.3 (build 5)\\n"
assert os.path.samefile("/qzcap/apps/arvokclt", env["LAB_DIR"] + "/qzcap/apps/arvokclt")

def addresses(text):
    return {a["local"] for link in json.loads(text) for a in link["addr_info"] if a["family"] == "inet"}
cloud = {f"100.64.0.{n}" for n in range(1, 10)}
assert addresses(run("ip", "-j", "address")) == {"127.0.0.1", "192.168.1.1"} | cloud
ap = run("lab-ap", "ip", "-j", "address")
assert addresses(ap) == {"127.0.0.1", "192.168.1.2"}
assert {link["ifname"] for link in json.loads(ap)} == {"lo", PORT}, ap
with socket.create_server(("100.64.0.9", 8088)) as server:
    reach = "import socket; socket.create_connection(('100.64.0.9', 8088), 5)"
    run("lab-ap", "python3", "-c", reach)
    assert server.accept()[1][0] == "192.168.1.2"

assert os.listdir("/proc").count("1") and re.search("home", open("/proc/1/cmdline").read())
for path in ("/qzcap/apps/arvokclt/rule", "/run/mark", "/var/run/mark2", "/tmp/arvokclt_test_mode", "/tmp/new"):
    assert not os.path.exists(path), path
    open(path, "w").close()
"""

# What the host ap gets for the names, mode by mode.
NAMES = """
import os, subprocess
def run(*command, **options):
    return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=30, **options)
def asked(name):
    return subprocess.Popen(["lab-ap", "getent", "ahostsv4", name + ".arvok.example"], stdout=subprocess.PIPE, text=True)
def told(process):
    return {line.split()[0] for line in process.communicate(timeout=30)[0].splitlines()}
def names(*arguments):
    assert run("lab-names", *arguments).returncode == 0, arguments
servers = {"bss": "100.64.0.1", **{f"abi{n}": f"100.64.0.{n + 1}" for n in range(1, 6)}}
for name, address in servers.items():
    assert told(asked(name)) == {address}, name
names("reserved")
reserved = told(asked("bss"))
assert {"10.0.0.1", "172.16.0.1", "192.168.7.7"} <= reserved and "100.64.0.1" not in reserved, reserved
names("mixed")
assert told(asked("abi5")) == reserved | {"100.64.0.6"}
names("fail")
assert [told(asked(name)) for name in ("bss", "abi1")] == [set(), set()]
names("add", "bss.arvok.example", "1.2.3.4", "1.2.3.5")
assert told(asked("bss")) == {"1.2.3.4", "1.2.3.5"} and told(asked("abi1")) == set()
names("hang")
waiting = asked("abi2"), asked("nobody")
with open("/proc/%s/stat" % open(os.environ["LAB_DIR"] + "/names/pid").read().strip()) as stat:
    assert stat.read().split()[2] == "T"
names("add", "abi2.arvok.example", "1.2.3.6")
names("answer")
assert [told(process) for process in waiting] == [{"100.64.0.3"}, set()]
names("hang")  # the home ends nevertheless
assert run("lab-names").returncode == run("lab-names", "sulk").returncode == 2
assert run("lab-names", "add", "bss.arvok.example", "no;address").returncode == 1
with open(os.environ["LAB_DIR"] + "/packages/app", "w") as package:
    package.write("a package")
fetch = "import urllib.request; print(urllib.request.urlopen('http://100.64.0.9/app').read().decode())"
assert run("lab-ap", "python3", "-c", fetch).stdout == "a package\\n"
assert "GET /app" in open(os.environ["LAB_DIR"] + "/packages.log").read()
"""


def home(*arguments, **options):
    options = {"stdin": subprocess.DEVNULL, "capture_output": True, "text": True, "timeout": 60, **options}
    return subprocess.run([HOME, *arguments], **options)


def process_tree(lab_dir):
    """Processes of the home, as (pid namespace, pids)."""
    with open(os.path.join(lab_dir, ".pid"), encoding="ascii") as file:
        namespace = os.readlink(f"/proc/{file.read().strip()}/ns/pid")
    return namespace, in_namespace(namespace)


def in_namespace(namespace):
    pids = []
    for pid in filter(str.isdigit, os.listdir("/proc")):
        try:
            if os.readlink(f"/proc/{pid}/ns/pid") == namespace:
                pids.append(int(pid))
        except OSError:
            pass
    return pids


class HomeTest(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.mkdtemp()
        os.chmod(self.folder, 0o755)
        self.addCleanup(shutil.rmtree, self.folder, ignore_errors=True)
        self.labs = os.path.join(self.folder, "labs")
        os.mkdir(self.labs)
        os.chmod(self.labs, 0o1777)
        self.env = {**os.environ, "ARVOK_BIN": BIN, "TMPDIR": self.labs}

    def programs(self, **replaced):
        """A folder of programs in which some are scripts of ours."""
        folder = tempfile.mkdtemp(dir=self.folder)
        for name in ("ubusd", "ubus", "qzcapd", "lab-gateway", "arvokclt"):
            path = os.path.join(folder, name)
            script = replaced.get(name.replace("-", "_"), path)
            if script == path:
                os.symlink(os.path.join(BIN, name), path)
            elif script:
                with open(path, "w", encoding="ascii") as file:
                    file.write("#!/bin/sh\n" + script + "\n")
                os.chmod(path, 0o755)
        return {**self.env, "ARVOK_BIN": folder}

    def begin(self, *arguments, **options):
        """A home in the background, as soon as it says that it is up."""
        process = subprocess.Popen([HOME, *arguments], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE, text=True, env=self.env, **options)
        self.addCleanup(process.communicate)
        self.addCleanup(process.kill)
        self.assertIn("up", process.stdout.readline())
        (name,) = os.listdir(self.labs)
        return process, os.path.join(self.labs, name)

    def gone(self, namespace):
        deadline = time.monotonic() + 30
        while in_namespace(namespace) and time.monotonic() < deadline:
            time.sleep(0.02)
        return not in_namespace(namespace)

    # ---- inside ------------------------------------------------------------------------------------------------

    def test_what_a_command_finds_and_what_the_machine_keeps(self):
        def machine():
            with open("/proc/self/mountinfo", encoding="ascii") as mounts:
                links = subprocess.run(["ip", "-o", "link"], capture_output=True, check=True).stdout
                names = [os.stat(path).st_mtime_ns for path in ("/etc", "/etc/resolv.conf") if os.path.exists(path)]
                return mounts.read(), links, names, os.listdir("/"), os.listdir("/run"), os.path.exists("/tmp/new")

        router = os.path.join(self.folder, "router.json")
        with open(os.path.join(REPO, "lab/home.json"), encoding="utf-8") as bridge, open(router, "w", encoding="utf-8") as file:
            file.write(bridge.read().replace('"mode": "bridge"', '"mode": "router"', 1))
        before = machine()
        for arguments, port in (((), "br-lan"), (("--state", router), "wan0")):
            probe = f"PORT = {port!r}\n{PROBE}"
            done = home(*arguments, "--agent-args", " -g 192.168.1.1 ", "--", sys.executable, "-c", probe, env=self.env)
            self.assertEqual(done.returncode, 0, done.stderr)
        self.assertEqual(machine(), before)
        self.assertEqual(os.listdir(self.labs), [], "LAB_DIR was left")

    def test_exit_status_and_kept_logs(self):
        for command, status in ((["true"], 0), (["sh", "-c", "exit 7"], 7), (["/nonexistent/absent"], 127),
                                (["sh", "-c", "kill -9 $$"], 137)):
            with self.subTest(command=command):
                done = home(*BARE, "--", *command, env=self.env)
                self.assertEqual(done.returncode, status, done.stderr)
                self.assertEqual(len(os.listdir(self.labs)), 0 if status == 0 else 1)
                for name in os.listdir(self.labs):
                    self.assertIn(os.path.join(self.labs, name), done.stderr)
                    shutil.rmtree(os.path.join(self.labs, name))
        home(*BARE, "--keep", "--", "true", env=self.env)
        self.assertEqual(len(os.listdir(self.labs)), 1)

    def test_ordinary_user(self):
        user = ["setpriv", "--reuid", "65534", "--regid", "65534", "--clear-groups"] if os.geteuid() == 0 else []
        namespaces = subprocess.run([*user, "unshare", "-Urmpn", "--fork", "true"], capture_output=True)
        if namespaces.returncode != 0:
            self.skipTest("the kernel gives ordinary users no namespaces: " + namespaces.stderr.decode())
        # In a place of its own, because the checkout may be somebody's private one.
        for name in ("bin", "lib", "lab"):
            os.mkdir(os.path.join(self.folder, name))
        libraries = os.path.join(os.path.dirname(BIN), "lib")
        for source in [os.path.join(BIN, name) for name in ("ubusd", "ubus", "qzcapd", "lab-gateway", "arvokclt")] + [
            os.path.join(libraries, name) for name in os.listdir(libraries) if ".so" in name
        ]:
            shutil.copy(source, os.path.join(self.folder, "lib" if ".so" in source else "bin"))
        for name in ("home", "home.json", "names"):
            shutil.copy(os.path.join(REPO, "lab", name), os.path.join(self.folder, "lab"))
        env = {**self.env, "ARVOK_BIN": os.path.join(self.folder, "bin"), "LD_LIBRARY_PATH": os.path.join(self.folder, "lib")}
        probe = f"PORT = 'br-lan'\n{PROBE}"
        command = [*user, os.path.join(self.folder, "lab/home"), "--agent-args", "-g 192.168.1.1", "--"]
        done = subprocess.run([*command, "/usr/bin/python3", "-c", probe], capture_output=True, text=True, env=env,
                              cwd="/", timeout=60)
        self.assertEqual(done.returncode, 0, done.stderr)

    def test_two_homes_side_by_side(self):
        first, lab = self.begin("--", "sh", "-c", "echo up; read line; ubus call lab.gateway peer >peer.txt",
                                cwd=self.folder)
        second = home("--", "sh", "-c", "ubus call lab.gateway send '{\"type\":\"x\"}'; ubus call lab.gateway misbehave "
                      "'{\"fault\":\"silent\"}' && echo $LAB_DIR", env=self.env)
        self.assertEqual(second.returncode, 0, second.stderr)
        self.assertNotIn(lab, second.stdout)
        first.communicate("\n", timeout=30)
        self.assertEqual(first.returncode, 0)
        with open(os.path.join(self.folder, "peer.txt"), encoding="ascii") as peer:
            self.assertIn('"faults": "none"', peer.read())

    # ---- names and packages ------------------------------------------------------------------------------------

    def test_names_and_packages(self):
        done = home(*BARE, "--", sys.executable, "-c", NAMES, env=self.env)
        self.assertEqual(done.returncode, 0, done.stderr)

    # ---- endings -----------------------------------------------------------------------------------------------

    def test_signals_end_everything(self):
        for number, status in ((signal.SIGTERM, 0), (signal.SIGINT, 0), (signal.SIGHUP, 0), (signal.SIGKILL, -9)):
            with self.subTest(signal=number):
                process, lab = self.begin()
                namespace, pids = process_tree(lab)
                self.assertGreaterEqual(len(pids), 5)
                process.send_signal(number)
                self.assertEqual(process.wait(30), status)
                self.assertTrue(self.gone(namespace), f"processes of the home are left: {in_namespace(namespace)}")
                if number == signal.SIGKILL:
                    shutil.rmtree(lab)
                self.assertEqual(os.listdir(self.labs), [])

    def test_agent_that_fails(self):
        last = "trap 'exit %d' TERM; echo %s; while :; do sleep 0.02; done"
        for script, options, status, text in (
            (last % (0, "fine"), (), 0, ""),
            (last % (4, "late"), (), 99, "the agent ended with status 4"),
            (last % (4, "late"), ("--agent-may-fail",), 0, ""),
            (last % (0, "'x.cpp:1:2: runtime error: overflow'"), (), 99, "agent: the sanitizer reported an error"),
        ):
            with self.subTest(script=script, options=options):
                done = home("--peers", "none", *options, "--", "true", env=self.programs(arvokclt=script))
                self.assertEqual(done.returncode, status, done.stderr)
                self.assertIn(text, done.stderr)

    def test_daemon_that_ends_too_early(self):
        kill = "pkill -SEGV -x lab-gateway; while pgrep -x lab-gateway >/dev/null; do :; done"
        done = home("--no-agent", "--", "sh", "-c", kill, env=self.env)
        self.assertEqual(done.returncode, 99, done.stderr)
        self.assertIn("gateway ended before the home did", done.stderr)

    def test_tour_with_a_step_that_does_not_happen(self):
        script = """
            ubus call lab.gateway misbehave '{"fault":"drop","on":"dev_reg"}'
            lab-ap arvokclt -g 192.168.1.1 >$LAB_DIR/agent.log 2>&1 &
            """ + os.path.join(REPO, "lab/tour") + " --deadline 2"
        done = home("--no-agent", "--", "sh", "-c", script, env=self.env)
        self.assertEqual(done.returncode, 1, done.stderr)
        for text in ("FAILED: the acknowledgement of sequence 2 did not come within 2 s", '-> {"type":"dev_reg"',
                     " steps happened"):
            self.assertIn(text, done.stdout)

    def test_start_that_fails(self):
        for arguments, env, status, text in (
            ((), self.programs(lab_gateway="echo boom; exit 1"), 1, "gateway: ended at once; the end of its log:\nboom"),
            ((), self.programs(arvokclt=None), 1, "arvokclt is missing"),
            (("--peers", "gateway,moon"), self.env, 2, "unknown peer: moon"),
            (("--verbose",), self.env, 2, "unknown option: --verbose"),
        ):
            with self.subTest(arguments=arguments, text=text):
                done = home(*arguments, "--", "true", env=env)
                self.assertEqual(done.returncode, status, done.stderr)
                self.assertIn(text, done.stderr)

    def test_kernel_without_namespaces(self):
        forbid = "echo 0 >/proc/sys/user/max_net_namespaces && exec " + HOME + " -- true"
        done = subprocess.run(["unshare", "--user", "--map-root-user", "sh", "-c", forbid], capture_output=True,
                              text=True, env=self.env, timeout=60)
        self.assertEqual(done.returncode, 77, done.stderr)
        self.assertEqual(len(done.stderr.splitlines()), 1)
        self.assertEqual(os.listdir(self.labs), [])


if __name__ == "__main__":
    if home(*BARE, "--", "true").returncode == 77:
        print("NOT TESTED: the kernel allows no namespaces here", file=sys.stderr)
        sys.exit(77)
    unittest.main()
