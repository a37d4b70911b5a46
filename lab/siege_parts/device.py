"""The device around the agent: its bus, its platform, the hosts on its LAN."""

import itertools
import os
import signal
import time

from . import bus

FLOOD_OF_HOSTS = 1000
PATCH = 50  # hosts, what fits a bus message
# What the bus just carries, what is just passed on, what is just too long for it, and what is when it is written as JSON.
LARGE = "x" * 900_000, "x" * 500_000, "x" * 780_000, "\1" * 200_000
NOISY, GUESTS = ([f"siege.{kind}.{number}" for number in range(4)] for kind in ("noise", "guest"))  # objects


def make_noise(names=NOISY):
    """Objects that notify without end: long bursts of small ones, and the largest that the bus carries."""
    noise = bus.Noise()
    objects = [noise.add(name) for name in names]
    small = b"".join(noise.notification(number, "noise", {"n": n, "text": "x" * 100}) for n in range(200) for number in objects)
    large = [noise.notification(number, "noise", {"text": text}) for number, text in zip(itertools.cycle(objects), LARGE)]
    nested = noise.notification(objects[0], "noise", {"list": [{"a": [1, 2, 3], "b": {"c": "d"}}] * 5000})
    for turn in itertools.count():
        noise.send(small)
        if turn % 4 == 0:
            noise.send(large[turn // 4 % len(large)])
            noise.send(nested)
        time.sleep(0.05)


def objects_noisy():
    """Objects that gateway and cloud hear notify without end, up to a megabyte at once"""
    make_noise()


def platform_noisy():
    """The platform notifies of everything that it can, as fast as it can, and other apps talk without end"""
    station = {"mac": "02C0FFEE0001", "connecttime": 1, "rssi": -50, "channel": 6}
    for turn in itertools.count():
        mac = f"02AA{turn % 65536:08X}"
        bus.notify(5, "newdevice", mac=mac)
        bus.notify(5, "devicestatus", mac="02C0FFEE0001", active=turn % 2)
        bus.notify(5, "devicestatus", mac=mac, active=1)
        bus.notify(6, "wanstatus", ipaddr=f"10.0.0.{turn % 250}")
        bus.notify(7, "wpsswitch", wpsswitch="on")
        bus.notify(15, "mode", mode="agent")
        bus.notify(16, "roamingreport", roamingreport=[station] * (1 if turn % 50 else 4000))
        bus.notify(16, "aprssi", mac=mac, rssi=-40, text="x" * (1 if turn % 50 else 200_000))
        bus.notify(30, "vsie", band=0, mac=mac, vsie=[221] * (5 if turn % 50 else 20_000))
        if turn % 50 == 0:
            bus.client.call("qzapp.arvokclt", "postmsg", {"CmdType": "x" * 400_000, "SequenceId": "y" * 400_000}, 60)
            bus.client.call("qzapp.arvokclt", "postmsg", {"CmdType": "GET_LANHOST_INFO", "SequenceId": "1", "OprType": "0"}, 60)


def objects_come_and_go():
    """Objects that gateway and cloud hear leave the bus and come back, hundreds of times a second"""
    noise = bus.Noise()
    for turn in itertools.count():
        numbers = [noise.add(name) for name in GUESTS]
        noise.send(b"".join(noise.notification(number, "noise", {"turn": turn}) for number in numbers))
        if turn % 20 == 0:
            time.sleep(0.5)  # long enough to be found and heard
        for number in numbers:
            noise.remove(number)


def host(number, active):
    return {"index": number, "hostname": f"host-{number}", "ipaddr": f"192.168.{number // 250}.{number % 250}", "active": active,
            "connecttype": 1, "port": 1, "band": "5G", "vmac": f"02C0FFEE{number:04X}", "internetaccess": 2}


def set_hosts(first, last, active):
    for begin in range(first, last, PATCH):
        hosts = {f"02C0FFEE{number:04X}": host(number, active) for number in range(begin, min(begin + PATCH, last))}
        bus.emulator("patch", patch={"laninfo": hosts})


def hosts():
    """A thousand hosts come, and leave, at once, again and again"""
    for turn in itertools.count():
        set_hosts(0x1000, 0x1000 + FLOOD_OF_HOSTS, (turn + 1) % 2)
        time.sleep(1)


def platform_process():
    """The emulated platform's, in the home's own process table."""
    for entry in filter(str.isdigit, os.listdir("/proc")):
        try:
            with open(f"/proc/{entry}/comm") as name:
                if name.read() == "qzcapd\n":
                    return int(entry)
        except OSError:
            pass
    raise SystemExit("there is no qzcapd")


def let_go():
    """Undoes what a silent platform leaves when its play is ended."""
    os.kill(platform_process(), signal.SIGCONT)


def platform_silent():
    """The platform answers nothing, while it has much to tell, for half a minute at a time"""
    platform = platform_process()
    while True:
        for number in range(20):
            bus.notify(5, "devicestatus", mac=f"02C0FFEE{number + 1:04X}", active=1)
        os.kill(platform, signal.SIGSTOP)
        time.sleep(30)
        os.kill(platform, signal.SIGCONT)
        time.sleep(1)


def platform_slow():
    """The platform takes a tenth of a second for every answer"""
    platform = platform_process()
    while True:
        os.kill(platform, signal.SIGSTOP)
        time.sleep(0.1)
        os.kill(platform, signal.SIGCONT)
        time.sleep(0.002)


PLAYS = {"objects-noisy": objects_noisy, "objects-come-and-go": objects_come_and_go, "platform-noisy": platform_noisy, "hosts": hosts,
         "platform-silent": platform_silent, "platform-slow": platform_slow}
