"""The steps with the commands of other apps: the guest network, and rules for the hosts on the LAN."""

import subprocess
import time

from .traffic import call, require


def command(tour, kind, show=True, **members):
    """Sends a command as another app does; shows both sides and returns the answer, which must be a success."""
    message = {"CmdType": kind, "SequenceId": "tour", **members}
    answer = call("qzapp.arvokclt", "postmsg", message)
    if show:
        tour.screen.json(message)
        tour.screen.json(answer)
    require(answer.get("Status", "0") == "0", f"{kind} failed: {answer}")
    return answer


def clock(tour, text):
    subprocess.run(["lab-clock", text], check=True)
    tour.screen.note(f"the agent's clock is set to {text}")


def host(mac):
    return call("qzcapd.emulator", "state")["laninfo"][mac]


def hosts(tour):
    return [entry["MAC"] for entry in command(tour, "GET_LANHOST_INFO", show=False, OprType="1")["Info"]]


def wait_for(tour, what, holds):
    deadline = time.monotonic() + tour.link.deadline
    while not holds():
        require(time.monotonic() < deadline, f"{what} did not happen")
        time.sleep(0.02)


def guest_network_lives_and_ends(tour):
    """An app opens a guest network for a minute, which the agent closes"""
    command(tour, "SET_GUEST_WIFI", Info=[{"SSID": "Guests", "PWD": "welcome-2026", "ENCRYPT": "5", "Enable": "1",
                                          "SSIDHide": "0"}])
    enabled = lambda: command(tour, "GET_GUEST_WIFI", show=False)["Info"][0]["SSIDEnable"]
    clock(tour, "2026-11-21 21:00:00")
    command(tour, "SET_GUEST_WIFI_CLOSE_TIMER", Info=[{"LastTime": "1", "Enable": "1"}])
    tour.log_line("extcc_guestssid_cb (")  # in 60 s, or 59 when a second has just passed
    require(enabled() == "1", "the guest network is not open")
    command(tour, "GET_GUEST_WIFI")
    clock(tour, "2026-11-21 21:00:59")
    command(tour, "SET_GUEST_WIFI_CLOSE_TIMER", Info=[])
    wait_for(tour, "the end of the guest network", lambda: enabled() == "0")
    tour.screen.note("a second later the guest network is closed")
    command(tour, "DELETE_GUEST_WIFI")
    require(command(tour, "GET_GUEST_WIFI", show=False)["Info"] == [], "the guest network is still there")


def host_follows_its_schedule(tour):
    """A host gets a schedule, and its access changes at the boundary"""
    mac = hosts(tour)[0]
    access = lambda: host(mac)["internetaccess"]
    clock(tour, "2026-11-21 21:59:58")
    command(tour, "SET_LANHOST_TIMER", MAC=mac, Info=[
        {"ContinueID": "1", "GroupID": "1", "Mode": "6", "StartTime": "22:00", "EndTime": "6:30", "Enable": "1"}])
    wait_for(tour, "the first evaluation", lambda: access() == 2)
    tour.screen.note(f"before 22:00 the platform has internetaccess {access()} for {mac}")
    wait_for(tour, "the boundary", lambda: access() == 1)
    tour.screen.note(f"from 22:00 on it has {access()}")
    command(tour, "GET_LANHOST_TIMER", MAC=mac)


def host_is_blocked_and_limited(tour):
    """Another host is blocked and limited in its rates"""
    mac = hosts(tour)[1]
    command(tour, "SET_LANHOST_INTERNET", Info=[{"MAC": mac, "InternetAccess": "0"}])
    command(tour, "SET_LANHOST_BANDWIDTH", Info=[{"MAC": mac, "MaxUSBandwidth": "1024", "MaxDSBandwidth": "8192"}])
    wanted = {"internetaccess": 0, "uplimit": 1024, "downlimit": 8192}
    wait_for(tour, "the application of the rules", lambda: wanted.items() <= host(mac).items())
    tour.screen.note(f"the platform now has for {mac}:")
    tour.screen.json({key: host(mac)[key] for key in wanted})
    command(tour, "GET_LANHOST_INTERNET")
    command(tour, "GET_LANHOST_BANDWIDTH")


def rules_are_dumped(tour):
    """All rules at a glance"""
    answer = command(tour, "EXTCC_DUMP")
    require(len(answer["TimeRules"]) == 1 and len(answer["ParentRules"]) == 1, "these are not the rules that were set")


STEPS = [
    guest_network_lives_and_ends,
    host_follows_its_schedule,
    host_is_blocked_and_limited,
    rules_are_dumped,
]
