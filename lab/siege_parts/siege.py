"""One attack after the other: who plays, what is looked at, and what is said of it."""

import os
import subprocess
import sys
import time

from . import bounds, bus, clients, cloud, device, gateway, messages, peers, watch

PLAYS = {**gateway.PLAYS, **cloud.PLAYS, **device.PLAYS, **clients.PLAYS}
TOGETHER = "together"
SHIFT = 5  # seconds for one gateway, one platform, one state of the device's platform, when all play together
AGAIN = 4  # seconds from the attack's second begin to SIGTERM: the agent is with a hostile peer by then
SETTLED = 2  # seconds from registration and enrolment to the idle value
LEAST = {"platform-silent": 2 * round(bounds.STALL_SILENT)}  # seconds: of what shows later than others
UNPROVED = ("cloud-keyless", "cloud-early")  # whose requests must have no effect
COLUMNS = "{:<20} {:>10} {:>7} {:>7} {:>7} {:>7}  {}"
ROW = "| {:<19} | {:>10} | {:>7} | {:>7} | {:>7} | {:>8} | {:>7} |"


def sanitized():
    with open(os.path.join(os.environ["ARVOK_BIN"], "arvokclt"), "rb") as program:
        return b"__asan_init" in program.read()


class Broken(Exception):
    """What must not happen and leaves nothing to go on with."""


class Siege:
    def __init__(self, hosts):
        self.hosts, self.sanitized, self.rows = hosts, sanitized(), []
        self.slower = bounds.SANITIZED_SLOWER if self.sanitized else 1
        self.client = watch.Client()

    # ---- who plays -----------------------------------------------------------------------------------------------

    def hostile(self, name):
        """Which peers an attack takes the place of."""
        return {"gateway", "cloud"} if name == TOGETHER else {name.partition("-")[0]} & {"gateway", "cloud"}

    def be_friends(self, *roles):
        """Has gateway and platform as they should be, and the agent called to those that are new."""
        for role in ("gateway", "cloud"):
            if (role in roles) == (role in self.friends):
                continue
            if role in roles:
                self.friends[role] = (peers.Gateway if role == "gateway" else peers.Cloud)()
                self.questions[role] = watch.Question(self.agent.pid, self.friends[role].ask)
            else:
                self.questions.pop(role).open = False
                self.friends.pop(role).close()

    def await_friends(self, seconds, under_attack=None):
        """What was asked during an attack may be answered only behind it."""
        end = time.monotonic() + seconds
        for role, friend in self.friends.items():
            patience = peers.SOON
            while not friend.wait(min(time.monotonic() + patience * self.slower, end)):
                if under_attack:
                    self.look(under_attack)
                if time.monotonic() >= end:
                    raise Broken(f"the agent did not find back to the {role} within {seconds:.0f} s")
                (bus.recall_gateway if role == "gateway" else bus.recall_cloud)()
                patience = peers.PATIENCE

    def play(self, name):
        if name not in self.plays:
            self.plays[name] = subprocess.Popen([sys.executable, "-B", sys.argv[0], "--play", name], stderr=self.plays_log)

    def stop_plays(self, *names):
        for name in names:
            process = self.plays.pop(name)
            if process.poll() is not None:
                with open(self.plays_log.name, errors="replace") as log:
                    raise Broken(f"the attack {name} failed by itself: {log.read()[-200:]!r}")
            process.kill()
            process.wait()
            if name.startswith("platform-"):
                device.let_go()

    def attack(self, name, seconds, each_second):
        """The attack is on for so long; "together" takes turns where only one can play at a time."""
        self.be_friends(*({"gateway", "cloud"} - self.hostile(name)))
        if "gateway" in self.friends and name.startswith("platform-"):
            self.friends["gateway"].items = messages.ITEMS
        shifts = ([*gateway.PLAYS], [*cloud.PLAYS], ["platform-noisy", "platform-silent", "platform-noisy", "platform-slow"])
        steady = [n for n in PLAYS if not n.startswith(("gateway-", "cloud-", "platform-"))] if name == TOGETHER else [name]
        for each in steady:
            self.play(each)
        for second in range(max(round(seconds), LEAST.get(name, 1))):
            if name == TOGETHER and second % SHIFT == 0:
                self.stop_plays(*(set(self.plays) - set(steady)))
                for shift in shifts:
                    self.play(shift[second // SHIFT % len(shift)])
            if "gateway" in self.friends and name.startswith("objects") and second % 5 == 1:
                for noise in device.NOISY if name == "objects-noisy" else device.GUESTS:
                    self.friends["gateway"].send({"type": "ubus_subscribe", "object": noise, "enable": 1})
            time.sleep(1)
            each_second()

    # ---- one attack ----------------------------------------------------------------------------------------------

    @staticmethod
    def line(*columns):
        print(COLUMNS.format(*columns), flush=True)

    def start(self):
        bus.client.call("qzcapd.system", "reset")
        path = os.path.join(os.environ["LAB_DIR"], "siege-agent.log")
        with open(path, "wb") as log:
            log.truncate(0)
        with open(path, "ab") as log:
            self.agent = subprocess.Popen(["lab-agent", "-g", os.environ["GATEWAY_ADDR"]], stdout=log, stderr=log,
                                          stdin=subprocess.DEVNULL)
        self.log = watch.Log(path)
        self.friends, self.questions, self.plays = {}, {}, {}
        self.plays_log = open(os.path.join(os.environ["LAB_DIR"], "siege.log"), "ab")
        self.be_friends("gateway", "cloud")
        self.await_friends(bounds.BACK * self.slower)
        self.questions["client"] = watch.Question(self.agent.pid, self.client.ask)
        time.sleep(SETTLED)
        self.memory = watch.Memory(self.agent.pid)
        time.sleep(0.2)
        self.idle, self.descriptors = self.memory.take(), watch.descriptors(self.agent.pid)

    def is_silent(self):
        """Whether the platform is silent or slow, or was so lately that somebody may still wait for it."""
        now = time.monotonic()
        if any(name in self.plays for name in ("platform-silent", "platform-slow")):
            self.silent_until = now + bounds.STALL_SILENT * self.slower
        return now < self.silent_until

    def look(self, name):
        """One second's figures."""
        if self.agent.poll() is not None:
            self.log.read()
            raise Broken(f"the agent ended by itself with status {self.agent.returncode}")
        memory = self.memory.take() - self.idle
        waits = {role: question.take() for role, question in self.questions.items()}
        refused = self.log.read()
        longest, silent = max(waits.values()), self.is_silent()
        self.peak = max(self.peak, memory)
        self.stall[silent] = max(self.stall[silent] or 0, longest)
        self.line(name, f"{memory} KiB", f"{longest:.2f} s", "silent" if silent else "", "", refused,
                  " ".join(f"{role} {wait:.2f}" for role, wait in waits.items()))
        if name in UNPROVED:
            for call in (bus.emulator("calls", clear=True) or {"calls": []})["calls"]:
                if call["call"] in messages.DEEDS:
                    self.deeds.add(call["call"])

    def run(self, name, seconds):
        """One attack; its row of the table."""
        self.peak, self.stall, self.silent_until, self.deeds = 0, {False: None, True: None}, 0.0, set()
        rest, end, silent_end, faults = None, None, False, []
        try:
            self.start()
            bus.emulator("calls", clear=True)
            self.attack(name, seconds, lambda: self.look(name))
            self.stop_plays(*self.plays)
            self.be_friends("gateway", "cloud")
            self.await_friends(bounds.BACK * self.slower, name)
            quiet = time.monotonic() + bounds.REST_AFTER
            kept = lambda: watch.descriptors(self.agent.pid) - self.descriptors - bounds.HEARD.get(name, 0)
            while time.monotonic() < quiet and (kept() > 0 or not self.sanitized):  # there memory does not count
                time.sleep(1)
                self.look(name)
            rest = self.memory.last - self.idle
            if (left := kept()) > 0:
                faults.append(f"{left} descriptors too many kept")
            self.attack(name, 1 if self.sanitized else AGAIN, lambda: self.look(name))
            silent_end, began = self.is_silent(), time.monotonic()
            self.agent.terminate()
            try:
                status = self.agent.wait(120)
                end = time.monotonic() - began
                if status != 0:
                    faults.append(f"ended with status {status}")
            except subprocess.TimeoutExpired:
                faults.append("did not end within 120 s")
        except Broken as fault:
            faults.append(str(fault))
        finally:
            self.finish()
        faults += self.judge(name, rest, end, silent_end)
        self.report(name, rest, end, faults)
        return not faults

    def finish(self):
        """Leaves nothing behind, whatever has happened."""
        for question in self.questions.values():
            question.open = False
        try:
            self.stop_plays(*self.plays)
        except Broken:
            pass
        for process in self.plays.values():
            process.kill()
        device.let_go()
        if self.agent.poll() is None:
            self.agent.kill()
        self.agent.wait()
        for friend in self.friends.values():
            friend.close()
        self.log.read()
        self.plays_log.close()

    # ---- what is said of it --------------------------------------------------------------------------------------

    def judge(self, name, rest, end, silent_end):
        most = bounds.PEAK_MANY if self.hosts > bounds.FEW_HOSTS or name in ("hosts", TOGETHER) else bounds.PEAK_FEW
        stalls = {False: bounds.STALL * self.slower, True: bounds.STALL_SILENT * self.slower}
        faults = [f"sanitizer: {line.decode(errors='replace')}" for line in self.log.sanitizer]
        if not self.sanitized and self.peak > most:
            faults.append(f"memory beyond {most} KiB")
        if not self.sanitized and rest is not None and rest > bounds.REST:
            faults.append(f"more than {bounds.REST} KiB kept")
        for silent, stall in self.stall.items():
            if stall and stall > stalls[silent]:
                faults.append(f"a question waited longer than {stalls[silent]:.0f} s" + " with a silent platform" * silent)
        if end is not None and end > stalls[silent_end]:
            faults.append("the end took too long")
        if self.deeds:
            faults.append("done for a server that had not proved itself: " + ", ".join(sorted(self.deeds)))
        return faults

    def report(self, name, rest, end, faults):
        refused = sum(self.log.refused.values())
        most = ", ".join(f"{count} x {what}" for what, count in self.log.refused.most_common(3))
        seconds = lambda time: "-" if time is None else f"{time:.2f} s"
        row = ROW.format(name, f"{self.peak} KiB", *map(seconds, (self.stall[False], self.stall[True], end)),
                         "-" if rest is None else f"{rest} KiB", refused)
        self.line(name, "", "", "", "", "", "refused: " + (most or "nothing"))
        self.rows.append((row, faults, {"attack": name, "peak": self.peak, "stall": self.stall[False], "silent": self.stall[True]}))
        for fault in faults:
            self.line(name, "BROKEN", "", "", "", "", fault)
        if self.agent.returncode != 0:
            self.line("", "", "", "", "", "", "the end of its log: " + self.log.end[-1000:].decode(errors="replace"))

    def table(self):
        print(f"\n{self.hosts} hosts; when idle {self.idle} KiB\n")
        print(ROW.format("attack", "peak", "stall", "silent", "end", "after", "refused"))
        print("|---" * 7 + "|")
        for row, faults, _ in self.rows:
            print(row)
            for fault in faults:
                print("  BROKEN: " + fault)
