"""The homes of a fleet: who builds, starts and ends them.

A home is one access point: its agent, its bus daemon and its emulated platform, in a network namespace with one cable to the
operator's side and a mount namespace with its own /run and /qzcap. The namespaces are there for as long as the fleet; the
processes end and start again with the power.
"""

import json
import os
import resource
import signal
import subprocess
import time

from . import isolation, processes
from .failure import Bus, Failure
from .home import Home

AT_ONCE = 24  # homes on their way up
PLATFORM_TIMEOUT_MS = 3000  # of the platform library
PATIENCE = 60  # seconds for one step of a home
RUN = "/run"
MODEL = os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "home.json")


def speed_library():
    return os.path.join(os.path.dirname(os.environ["ARVOK_BIN"]), "lib", "liblab_speed.so")


def check_programs(speed):
    """Whether all is built that nobody else looks at: without its library, an agent would just run at speed 1."""
    for path in (os.path.join(os.environ["ARVOK_BIN"], "arvokclt"), *[speed_library()] * (speed > 1)):
        if not os.path.exists(path):
            raise Failure(f"{path} is missing: build it first (make), or set ARVOK_BIN")


class Homes:
    """All of them, and who starts and ends them."""

    def __init__(self, count, speed, start_ns, logs):
        self.speed, self.logs = speed, logs
        base = os.path.join(os.environ["LAB_DIR"], "homes")
        self.homes = [Home(number, os.path.join(base, str(number))) for number in range(count)]
        # Two namespaces of each home are held open; who is started gets the machine's own limit.
        self.files = resource.getrlimit(resource.RLIMIT_NOFILE)
        resource.setrlimit(resource.RLIMIT_NOFILE, (self.files[1], self.files[1]))
        self.by_pid, self.rising, self.waiting, self.ended_badly = {}, [], [], []
        self.ending = False
        with open(MODEL, encoding="utf-8") as file:
            self.model = json.load(file)
        self.programs = {"bus": ["ubusd", "-s", RUN + "/ubus/ubus.sock"], "platform": ["qzcapd", "-f", ""],
                         "agent": ["arvokclt"]}
        self.environment = {name: value for name, value in os.environ.items() if not name.startswith(("LAB_", "UBUS_"))}
        self.agent_environment = dict(self.environment)
        if speed > 1:
            # The platform is not faster than it is.
            self.agent_environment.update(LD_PRELOAD=speed_library(), LAB_SPEED="%d %d %d" % (speed, *start_ns),
                                          QZCAP_TIMEOUT=str(PLATFORM_TIMEOUT_MS * speed))
        self.agent_environment["ASAN_OPTIONS"] = os.environ.get("ASAN_OPTIONS", "") + ":verify_asan_link_order=0"

    def count(self, stage="on"):
        return sum(home.stage == stage for home in self.homes)

    # ---- processes ---------------------------------------------------------------------------------------------------

    def _exec(self, home, role):
        """In a new process: becomes the program."""
        program = list(self.programs[role])
        if role == "platform":
            program[-1] = os.path.join(home.folder, "state.json")
        kept = role != "agent" or self.logs
        log = os.open(home.log(role) if kept else os.devnull, os.O_WRONLY | os.O_CREAT | os.O_APPEND, 0o644)
        nothing = os.open(os.devnull, os.O_RDONLY)
        os.dup2(nothing, 0)
        os.dup2(log, 1)
        os.dup2(log, 2)
        os.setsid()
        os.chdir("/")
        resource.setrlimit(resource.RLIMIT_NOFILE, self.files)
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGPIPE):
            signal.signal(number, signal.SIG_DFL)
        os.execvpe(program[0], program, self.agent_environment if role == "agent" else self.environment)

    def _fork(self, home, role, prepare):
        pid = os.fork()
        if pid == 0:
            try:
                prepare()
                self._exec(home, role)
            except BaseException as error:  # nothing of the parent's may run here
                os.write(2, f"lab/fleet: home {home.number}, {role}: {error}\n".encode())
            os._exit(127)
        home.pids[role] = pid
        self.by_pid[pid] = home, role
        return pid

    def _spawn(self, home, role):
        def prepare():
            for namespace in home.namespaces:
                isolation.enter(namespace)
        self._fork(home, role, prepare)

    def reap(self):
        """Takes note of who has ended. A child that is no home's waits for whoever has started it."""
        while self.by_pid:
            ended = os.waitid(os.P_ALL, 0, os.WEXITED | os.WNOHANG | os.WNOWAIT)
            if not ended or ended.si_pid not in self.by_pid:
                return
            _, status = os.waitpid(ended.si_pid, 0)
            home, role = self.by_pid.pop(ended.si_pid)
            del home.pids[role]
            if home.stage != "off" and not self.ending or self.ending and status != 0:
                self.ended_badly.append((home.number, role, os.waitstatus_to_exitcode(status)))

    # ---- up ----------------------------------------------------------------------------------------------------------

    def _build(self, homes):
        """Namespaces and cables; the first process in them becomes the bus daemon."""
        ready, go = list(os.pipe()), list(os.pipe())
        try:
            for home in homes:
                home.furnish(self.model)
                self._fork(home, "bus", lambda home=home: self._settle(home, ready, go))
            os.close(ready.pop())
            self._wait_for(ready[0], len(homes))
            for home in homes:
                home.namespaces = [os.open(f"/proc/{home.pids['bus']}/ns/{kind}", os.O_RDONLY | os.O_CLOEXEC)
                                   for kind in ("net", "mnt")]
            cables = "".join(home.cable() for home in homes)
            if subprocess.run(["ip", "-batch", "-"], input=cables, text=True, check=False).returncode != 0:
                raise Failure("the homes' cables cannot be made")
            os.write(go[1], bytes(len(homes)))
        finally:
            for end in (*ready, *go):
                os.close(end)

    @staticmethod
    def _settle(home, ready, go):
        """In the home's first process: everything that is the home's own. Its cable is made from outside meanwhile."""
        isolation.leave_for_new(isolation.NEWNS | isolation.NEWNET)
        isolation.keep_mounts_private()
        isolation.show_at(os.path.join(home.folder, "run"), RUN)
        if not os.path.samefile(RUN, "/var/run"):
            isolation.show_at(os.path.join(home.folder, "run"), "/var/run")
        isolation.show_at(os.path.join(home.folder, "qzcap"), "/qzcap")
        with open("/proc/sys/net/ipv6/conf/all/disable_ipv6", "w", encoding="ascii") as file:
            file.write("1")
        os.write(ready[1], b"+")
        os.close(go[1])
        if not os.read(go[0], 1):
            raise Failure("no cable")
        if os.spawnlp(os.P_WAIT, "ip", "ip", "-batch", os.path.join(home.folder, "network")) != 0:
            raise Failure("no network")

    @staticmethod
    def _wait_for(pipe, count):
        while count > 0:
            if not processes.readable(pipe, PATIENCE):
                raise Failure("the namespaces of the homes take too long")
            told = os.read(pipe, count)
            if not told:
                raise Failure("the namespaces of the homes cannot be made")
            count -= len(told)

    def power_on(self, homes):
        """Queues the homes; `rise` brings them up."""
        self.waiting += homes

    def rise(self):
        """Goes on with the homes on their way up; false when all are there."""
        self.reap()
        wave = self.waiting[:max(0, AT_ONCE - len(self.rising))]
        del self.waiting[:len(wave)]
        new = [home for home in wave if not home.namespaces]
        if new:
            self._build(new)
        for home in wave:
            if home not in new:
                self._spawn(home, "bus")
            self._enter(home, "bus")
        self.rising += wave
        self.rising = [home for home in self.rising if not self._step(home)]
        return bool(self.rising or self.waiting)

    def _enter(self, home, stage):
        home.stage, home.since = stage, time.monotonic()

    def _step(self, home):
        """One look at a home; true when it is up."""
        if home.stage == "bus" and processes.listens(home.socket):
            self._spawn(home, "platform")
            self._enter(home, "platform")
        elif home.stage == "platform" and "qzcapd: ready" in home.text("platform"):
            self._spawn(home, "agent")
            self._enter(home, "on")
            return True
        if home.stage not in home.pids or time.monotonic() - home.since > PATIENCE:
            raise Failure(f"home {home.number}: the {home.stage} does not start\n" + home.text(home.stage)[-2000:])
        return False

    # ---- down --------------------------------------------------------------------------------------------------------

    def power_off(self, homes):
        """All processes at once. What the device keeps for good, the platform's state, is kept."""
        for home in homes:
            state = Bus(home.socket).call("qzcapd.emulator", "state", {}, 10)
            with open(os.path.join(home.folder, "state.json"), "w", encoding="utf-8") as file:
                json.dump(state, file)
        for home in homes:
            home.stage = "off"
            for pid in home.pids.values():
                os.kill(pid, signal.SIGKILL)
        while any(home.pids for home in homes):
            time.sleep(0.01)
            self.reap()
        for home in homes:
            os.unlink(home.socket)
            os.unlink(home.log("platform"))

    def end(self):
        """Ends all in order, the agents first; what does not end is killed, and told."""
        self.ending = True
        for role in ("agent", "platform", "bus"):
            deadline = time.monotonic() + PATIENCE
            asked = set()
            while any(role in home.pids for home in self.homes):
                for home in self.homes:
                    pid = home.pids.get(role)
                    if pid and pid not in asked and processes.takes_end(pid):
                        os.kill(pid, signal.SIGTERM)
                        asked.add(pid)
                    elif pid and time.monotonic() > deadline:
                        os.kill(pid, signal.SIGKILL)
                time.sleep(0.05)
                self.reap()
        for home in self.homes:
            if processes.sanitizer_reported(home.text("agent")):
                self.ended_badly.append((home.number, "agent", "a sanitizer's report"))

    # ---- figures -----------------------------------------------------------------------------------------------------

    def agents(self):
        return [home.pids["agent"] for home in self.homes if home.stage == "on" and "agent" in home.pids]

    def agent_seconds(self):
        """Processor time of all agents that run: their loop threads."""
        return sum(processes.processor_ns(pid) for pid in self.agents()) / 1e9

    def anonymous_kib(self):
        """Anonymous memory of each agent."""
        return [processes.anonymous_kib(pid) for pid in self.agents()]
