"""The steps on the gateway link, and what makes one."""

import base64
import json
import os
import subprocess

from .screen import filled
from .traffic import call, is_message, require


def device_is_described(tour):
    """The device, as the platform describes it"""
    state = call("qzcapd.emulator", "state")
    tour.device = state["devinfo"]
    names = ("vendor", "model", "sn", "mac", "swversion", "mode", "wireless", "devtype")
    tour.screen.json({name: tour.device.get(name) for name in names})
    hosts = state.get("laninfo", {})
    hosts = list(hosts.values()) if isinstance(hosts, dict) else hosts
    tour.screen.note(f"{len(hosts)} hosts known, {sum(1 for host in hosts if host.get('active'))} of them active")


def agent_connects(tour):
    """The agent connects to the gateway"""
    address = f"{os.environ['GATEWAY_ADDR']}:32768"
    tour.screen.line("      " + tour.log_line(f'connect "{address}"'))
    tour.screen.note("(1): this is the built-in address; (0) would be one that was found, or given with -g")
    tour.link.from_ap("keyngreq")
    peer = call("lab.gateway", "peer")
    require(peer["address"].startswith(os.environ["AP_ADDR"] + ":"), f"the connection comes from {peer['address']}")
    tour.screen.note(f"the gateway sees a connection from {peer['address']}")


def key_is_asked_for(tour):
    """It asks for a key"""
    frame = tour.link.from_ap("keyngreq")
    tour.screen.message(frame)
    require(frame["message"]["sequence"] == 0, "the first message of a connection has sequence 0")


def key_mode_is_agreed(tour):
    """The gateway chooses the key agreement"""
    tour.screen.message(tour.link.from_gateway("keyngack"))


def agent_offers_its_value(tour):
    """The agent sends a fresh group and its public value"""
    frame = tour.link.from_ap("dh")
    tour.screen.message(frame)
    tour.dh = frame["message"]["data"]
    prime = int.from_bytes(base64.b64decode(tour.dh["dh_p"]), "big")
    require(prime.bit_length() == 128, f"the prime has {prime.bit_length()} bits instead of 128")
    tour.screen.note(f"the prime is {prime:#x}")


def gateway_answers_with_its_value(tour):
    """The gateway answers with its own; both sides now have the key"""
    frame = tour.link.from_gateway("dh")
    tour.screen.message(frame)
    tour.screen.note(f"the key is {call('lab.gateway', 'peer')['key']}, and everything from here on is encrypted")


def agent_registers(tour):
    """The agent registers the device, encrypted"""
    frame = tour.registration = tour.link.from_ap("dev_reg")
    tour.screen.message(frame)
    require(frame["encrypted"], "the registration came in plain text")
    data = frame["message"]["data"]
    for name in ("vendor", "model", "sn"):
        require(data[name] == tour.device[name], f"it names {name} {data[name]}, the device {tour.device[name]}")
    gateway = arp_table().get(os.environ["GATEWAY_ADDR"])
    require(gateway, "the ARP table of the access point lacks the gateway")
    require(
        frame["message"]["link_mac"] == gateway.replace(":", "").upper(),
        f"link_mac is {frame['message']['link_mac']}, but the gateway's MAC is {gateway}",
    )
    tour.screen.note(f"link_mac is the gateway's MAC as the access point's ARP table has it: {gateway}")


def arp_table():
    """IP address -> MAC on the host ap."""
    lines = subprocess.run(["lab-ap", "cat", "/proc/net/arp"], capture_output=True, text=True, check=True).stdout
    rows = [line.split() for line in lines.splitlines()[1:]]
    return {row[0]: row[3] for row in rows}


def registration_is_acknowledged(tour):
    """The gateway acknowledges the registration"""
    tour.screen.message(tour.link.acknowledgement(tour.registration))


def first_reports_arrive(tour):
    """The agent reports its WAN state and its LAN hosts"""
    for kind in ("wan_report", "dev_report"):
        frame = tour.link.from_ap(kind, after=tour.registration)
        tour.screen.message(frame)
        require(frame["encrypted"], f"{kind} came in plain text")
        tour.screen.message(tour.link.acknowledgement(frame))


def link_is_kept_alive(tour):
    """The link is kept alive, every five seconds"""
    frame = tour.registration
    for _ in range(2):
        frame = tour.link.from_ap("keepalive", after=frame)
        tour.screen.message(frame)
        tour.screen.message(tour.link.acknowledgement(frame))
    require(call("lab.gateway", "peer")["state"] == "linked", "the gateway does not count the link as up")


ITEMS = """wifi wifitimer ledswitch wifiswitch wpsswitch syncswitch bandsupport diaginfo cpurate cputemp memoryuserate
    flashusage flashfree uploadspeed downloadspeed wlanstats channel onlineTime terminalNum load real_devinfo arvokstat
    neighborinfo networktype workmode webServer netstatPorts flashStat mapInfo mapTopology ethWanPortIndex
    ethLanPortIndex channelQuality capability blacklist whitelist waninfo""".split()


def exchange(tour, message):
    """Sends a request from the gateway; returns its frame and that of the reply."""
    reply = call("lab.gateway", "request", message)
    number = lambda frame: frame["message"].get("sequence") == reply["sequence"]
    sent = tour.link.wait_for("the request", lambda frame: is_message("tx", message["type"])(frame) and number(frame))
    answer = tour.link.from_ap(reply["type"], after=sent)
    require(answer["message"] == reply, "the frame of the reply holds something else than the reply")
    return sent, answer


def status_of(tour, name):
    return exchange(tour, {"type": "get_status", "get": [{"name": name}]})[1]["message"]["status"][name]


def acknowledged(tour, message):
    """Sends a request that must be acknowledged without an error, and shows both."""
    sent, answer = exchange(tour, message)
    tour.screen.message(sent)
    tour.screen.message(answer)
    reply = answer["message"]
    require(reply["type"] == "ack" and reply["errcode"] == 0, f"the request failed: {reply['errmsg']}")


def status_is_queried(tour):
    """The gateway asks for all 37 status items"""
    sent, answer = exchange(tour, {"type": "get_status", "get": [{"name": name} for name in ITEMS]})
    status = answer["message"]["status"]
    tour.screen.heading(sent)
    tour.screen.heading(answer)
    require(list(status) == ITEMS, "the answer has other items than the request")
    for name, value in status.items():
        for number, line in enumerate(filled(value, tour.screen.width - 23)):
            tour.screen.line(f"      {'' if number else name:<16} {line}")
    failed = [name for name, value in status.items() if isinstance(value, dict) and "errmsg" in value]
    require(failed == ["blacklist", "whitelist"], f"these items failed: {failed}")
    tour.screen.note("the two access lists are not part of this version of the protocol")


def wifi_is_changed(tour):
    """The gateway changes the 2.4 GHz channel and the network's name, and reads them back"""
    wanted = {"radio": {"mode": "2.4G", "channel": 11}, "ap": [{"apidx": 0, "ssid": "Tour"}]}
    acknowledged(tour, {"type": "cfg", "set": {"wifi": [wanted]}})
    band = status_of(tour, "wifi")[0]
    tour.screen.note("the device now has:")
    tour.screen.json(band["radio"])
    tour.screen.json(band["ap"][0])
    require(band["radio"]["channel"] == 11 and band["ap"][0]["ssid"] == "Tour", "the device did not take the change")


def host_goes_offline(tour):
    """A host leaves, and the gateway, which subscribed to that event, is told"""
    acknowledged(tour, {"type": "cfg", "set": {"eventsub": ["online", "offline", "vsie", "rolechange"]}})
    last = tour.link.from_ap("keepalive")
    mac = next(mac for mac, host in call("qzcapd.emulator", "state")["laninfo"].items() if host["active"])
    call("qzcapd.emulator", "patch", {"patch": {"laninfo": {mac: {"active": 0}}}})
    event = tour.link.from_ap("event", after=last)
    tour.screen.message(event)
    require(event["message"]["data"] == [{"event": "offline", "mac": mac}], "the event tells something else")
    report = tour.link.from_ap("dev_report", after=event)
    tour.screen.message(report)
    require(mac not in [host["mac"] for host in report["message"]["dev"]], "the report still lists the host")


def vendor_element_makes_the_round(tour):
    """A vendor-specific element is sent in beacons, one is received, and the first is stopped"""
    element = base64.b64encode(b"dd05506f9a1c").decode()
    acknowledged(tour, {"type": "control", "data": [
        {"command": "sendvsie", "id": "tour", "band": "2.4G", "data": element, "persist": 60}]})
    last = tour.link.from_ap("dev_report")
    received = {"band": 1, "mac": "02C0FFEE0003", "vsie": [221, 5, 80, 111, 154, 28]}
    call("qzcapd.emulator", "notify", {"object": 30, "method": "vsie", "message": received})
    event = tour.link.wait_for("the event of the element", lambda frame: is_message("rx", "event")(frame)
                               and frame["message"]["data"][0]["event"] == "vsie", after=last)
    tour.screen.message(event)
    require(base64.b64decode(event["message"]["data"][0]["data"]) == b"dd05506f9a1c", "the element came back changed")
    acknowledged(tour, {"type": "control", "data": [{"command": "stopvsie", "id": "tour"}]})
    calls = [entry["call"] for entry in call("qzcapd.emulator", "calls")["calls"] if "vsie" in entry["call"]]
    tour.screen.note("calls of the platform: " + ", ".join(calls))


def device_is_set_up(tour):
    """One message sets up the access list, roaming, the mesh role, the television ports and a host"""
    state = lambda: call("qzcapd.emulator", "state")
    mac = next(mac for mac, host in state()["laninfo"].items() if host["active"] and host["connecttype"] == 1)
    port = tour.device["lanports"][-1]
    rows = {"roaming_set": {"enable": "ON", "rssi2G": -72, "rssi5G": -68, "interval": 15},
            "map_roaming_set": {"interval": 20},
            "blacklist": {"enable": "ON", "mac": ["02C0FFEE00FF"]},
            "real_devinfo": [{"mac": mac, "hostname": "kitchen", "internetaccess": 1}],
            "setMapRole": "auto",
            "iptv": {"enable": "ON", "vlan": 85, "ports": [port]},
            "speedlimit": [{"mac": mac, "uplimit": 512, "downlimit": 4096}]}
    acknowledged(tour, {"type": "cfg", "set": rows})
    device = state()
    host = device["laninfo"][mac]
    for what, now, wanted in (
            ("roaming", {key: device["roaming"][key] for key in ("enable", "rssi_2g", "rssi_5g", "interval")},
             {"enable": "yes", "rssi_2g": -72, "rssi_5g": -68, "interval": 15}),
            ("mesh_roaming", device["mesh_roaming"]["interval"], 20),
            ("blacklist", device["blacklist"], {"enable": "yes", "macs": ["02C0FFEE00FF"]}),
            ("host", {key: host[key] for key in ("hostname", "internetaccess", "uplimit", "downlimit")},
             {"hostname": "kitchen", "internetaccess": 1, "uplimit": 512, "downlimit": 4096}),
            ("role", device["mesh"]["role"], "auto"),
            ("iptv", device["iptv"], {"enable": "yes", "vlan": 85, "ports": [port]})):
        require(now == wanted, f"the device has {what} {now} instead of {wanted}")
        tour.screen.note(f"the device now has {what} {json.dumps(now)}")


def software_is_ordered(tour):
    """The gateway orders firmware, a package of the agent itself that is not there, and `save`, which does nothing"""
    software = {"downurl": "http://192.168.1.1/ax30-2.4.2.bin", "fileSize": "7340032", "chksum": "5d41402a"}
    package = {"downurl": "http://100.64.0.9/none.ipk", "fileSize": 40960, "chksum": "0"}
    acknowledged(tour, {"type": "cfg", "set": {"upgrade": software, "upgrade_client": package,
                                               "ctrlcommand": "save"}})
    calls = call("qzcapd.emulator", "calls")["calls"]
    for name in ("qzcap_upgrade", "qzcap_install_app"):
        entry = next((entry for entry in calls if entry["call"] == name), None)
        require(entry, f"the platform was not called: {name}")
        tour.screen.note(f"the platform was called: {name} {json.dumps(entry['args'])}")
    tour.screen.line("      " + tour.log_line("client upgrade failed"))
    version = call("qzcapd.emulator", "state")["devinfo"]["swversion"]
    require(version == "2.4.2", f"the device runs {version}")
    tour.screen.note(f"the device has restarted with firmware {version}")


def stations_are_steered(tour):
    """The gateway hears how stations are received, has one measured, moves it and sends it away"""
    sent, answer = exchange(tour, {"type": "getrssiinfo"})
    tour.screen.message(sent)
    tour.screen.message(answer)
    require(answer["message"]["data"], "there is no wireless station")
    station = answer["message"]["data"][0]
    mac = station["mac"]
    acknowledged(tour, {"type": "startaprssiquery", "data": {"mac": mac, "band": station["band"], "duration": 1}})
    report = tour.link.from_ap("aprssi", after=answer)
    tour.screen.message(report)
    require(report["message"]["data"] == {"mac": mac, "rssi": station["rssi"]}, "the report tells something else")
    acknowledged(tour, {"type": "startstabsstransitionrequest",
                        "data": {"mac": mac, "bssid": "02:5A:10:00:01:01", "band": "2.4G", "channel": 11}})
    report = tour.link.from_ap("cfg", after=report)
    tour.screen.message(report)
    roamed = report["message"]["roaming_report"][0]
    channel = call("qzcapd.emulator", "state")["wifiinfo"]["2.4G"]["current_channel"]
    require((roamed["mac"], roamed["channel"]) == (mac, channel), "another station is said to roam, or elsewhere")
    acknowledged(tour, {"type": "deassociation", "data": {"mac": [mac]}})
    gone = tour.link.from_ap("event", after=report)
    tour.screen.message(gone)
    require(gone["message"]["data"] == [{"event": "offline", "mac": mac}], "the station is still there")
    call("qzcapd.emulator", "patch", {"patch": {"laninfo": {mac: {"active": 1}}}})  # it comes back
    require(tour.link.from_ap("event", after=gone)["message"]["data"][0]["event"] == "online", "it did not come back")


STEPS = [
    device_is_described,
    agent_connects,
    key_is_asked_for,
    key_mode_is_agreed,
    agent_offers_its_value,
    gateway_answers_with_its_value,
    agent_registers,
    registration_is_acknowledged,
    first_reports_arrive,
    link_is_kept_alive,
    status_is_queried,
    wifi_is_changed,
    host_goes_offline,
    vendor_element_makes_the_round,
    device_is_set_up,
    software_is_ordered,
    stations_are_steered,
]
