#!/usr/bin/env python3
"""Makes the seeds of the fuzz targets from what passes in a home:

    lab/home -- fuzz/seeds.py [FOLDER]

The tour is made, then the exchanges below. The seeds are taken from the agent's log, which has every message that it
received, and from the files that the device has in the end; without a FOLDER they replace those of this repository.
"""

import base64
import json
import os
import re
import shutil
import socket
import struct
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
TOUR = os.path.join(os.path.dirname(HERE), "lab", "tour")

WIFI = [{"radio": {"mode": "5G", "enable": "ON", "channel": 44, "txpower": "80", "bandwidth": "80", "wifimode": "a/n/ac"},
         "ap": [{"apidx": 0, "enable": "ON", "ssid": "Five", "key": "quiet-river", "auth": "wpa2psk", "encrypt": "aes"}]}]
PAYLOAD = base64.b64encode(b"dd05506f9a1c").decode()

GATEWAY = [
    {"type": "cfg", "set": {"wifi": WIFI, "mode": "set"}},
    {"type": "cfg", "set": {"wifitimer": [{"weekday": "1", "time": "06:30", "enable": "1"}],
                            "ledswitch": {"status": "OFF"}, "wifiswitch": {"status": "ON"}}},
    {"type": "cfg", "set": {"wpsswitch": {"status": "ON"}, "syncswitch": {"status": "ON"}, "whitelist": {}, "iptv": {}}},
    {"type": "cfg", "set": {"upgrade_client": {"downurl": "http://100.64.0.9/none", "fileSize": "5", "chksum": "0"},
                            "ctrlcommand": "save",
                            "roaming_set": {"enable": "ON", "rssi2G": -72, "rssi5G": -70, "interval": 5},
                            "map_roaming_set": {"enable": "OFF"}}},
    {"type": "cfg", "set": {"blacklist": {"enable": "ON", "mac": ["02C0FFEE0004", "02:C0:FF:EE:00:05"]},
                            "real_devinfo": [{"mac": "02C0FFEE0003", "hostname": "tablet", "internetaccess": 2}],
                            "speedlimit": [{"mac": "02C0FFEE0003", "uplimit": 1024, "downlimit": 0}]}},
    {"type": "cfg", "set": {"setMapRole": "agent", "iptv": {"enable": "ON", "vlan": 85, "ports": [1]}}},
    {"type": "getrssiinfo", "data": {"mac": ["02C0FFEE0002", "02C0FFEE0004"]}},
    {"type": "getrssiinfo"},
    {"type": "startaprssiquery", "data": {"mac": "02C0FFEE0002", "band": "5G", "duration": 1}},
    {"type": "startstabsstransitionrequest",
     "data": {"mac": "02C0FFEE0002", "bssid": "02:5A:10:00:01:01", "band": "2.4G", "channel": 6}},
    {"type": "control", "data": [{"command": "deassociation", "mac": ["02C0FFEE0003", "02C0FFEE0004"]},
                                 {"command": "deassociation", "mac": "02C0FFEE0003"}, {"command": "channelscan"},
                                 {"command": "save"}, {"command": "stopvsie", "id": "none"}]},
    {"type": "control", "data": [{"command": "proberesp", "id": "p", "band": "5G", "mac": "02C0FFEE0003",
                                  "data": PAYLOAD}]},
    {"type": "ubus_call", "object": "qzcapd.wan", "method": "get", "message": {}},
    {"type": "ubus_call", "data": [{"object": "qzcapd.mesh", "method": "get", "message": {}}]},
    {"type": "ubus_subscribe", "object": "qzcapd.wan", "enable": 1},
    {"type": "ubus_subscribe", "object": "qzcapd.wan", "enable": 0},
]
CLOUD = [
    {"RPCMethod": "SetPluginParams", "Plugin_Name": "com.marobelvinta.all.smartap.weather_ipq5018x", "Version": "0.3.2",
     "Parameter": base64.b64encode(b'{"Ask":"sky"}').decode()},
    {"RPCMethod": "RestorePlugin", "Plugin_Name": "com.marobelvinta.all.smartap.weather_ipq5018x", "Version": "0.3.2"},
    {"RPCMethod": "Uninstall", "Plugin_Name": "com.marobelvinta.all.smartap.weather_ipq5018x", "Version": "0.3.2"},
    {"RPCMethod": "RequestConnectBSS", "Server": "100.64.0.1", "Port": "8088"},
]
NOTIFICATIONS = [
    (5, "newdevice", {"mac": "02C0FFEE0003"}),
    (5, "devicestatus", {"mac": "02C0FFEE0003", "active": 1}),
    (5, "devicestatus", {"mac": "02C0FFEE0003", "active": 0}),
    (6, "wan", {"ipaddr": "192.168.1.2", "status": "up"}),
    (7, "wifi", {"arvoksync": "on"}),
]
COMMANDS = [
    {"CmdType": "GET_LANHOST_INFO", "SequenceId": "1", "OprType": "2"},
    {"CmdType": "SET_LANHOST_TIMER", "SequenceId": "2", "MAC": "02C0FFEE0003", "Info": [
        {"ContinueID": "c1", "GroupID": "g1", "Mode": "0", "StartTime": "22:00", "EndTime": "6:00", "Enable": "1"},
        {"ContinueID": "c2", "GroupID": "g1", "Mode": "6", "StartTime": "7:30", "EndTime": "24:00", "Enable": "1"}]},
    {"CmdType": "GET_LANHOST_TIMER", "SequenceId": "3", "MAC": "02C0FFEE0003"},
    {"CmdType": "SET_LANHOST_INTERNET", "Info": [{"MAC": "02C0FFEE0004", "InternetAccess": "0"}]},
    {"CmdType": "GET_LANHOST_INTERNET"},
    {"CmdType": "SET_LANHOST_BANDWIDTH", "Info": [
        {"MAC": "02C0FFEE0004", "MaxUSBandwidth": "2048", "MaxDSBandwidth": "2147483648"}]},
    {"CmdType": "GET_LANHOST_BANDWIDTH"},
    {"CmdType": "DELETE_GUEST_WIFI"},
    {"CmdType": "SET_GUEST_WIFI", "Info": [
        {"SSID": "Visitors", "PWD": "come-in!", "ENCRYPT": "5", "Enable": "1", "SSIDHide": "0"}]},
    {"CmdType": "GET_GUEST_WIFI"},
    {"CmdType": "SET_GUEST_WIFI_CLOSE_TIMER", "Info": [{"LastTime": "60", "Enable": "1"}]},
    {"CmdType": "EXTCC_DUMP"},
    {"CmdType": "GET_STATUS", "SequenceId": "9"},
]
OPTIONS = ["-d", "-g\n192.168.1.1", "--gw-addr=10.0.0.1\n--debug", "-b\nbss.arvok.example:8088", "-b\n100.64.0.1:8088\n-p\n8000",
           "--bss-server\nbss:0", "-p\n65536", "-h", "--version", "-L\nx\n-e", "-g", "stray\n-d"]
# Every exchange of a fuzzed agent has the same prime and private value (machine.cpp).
GROUP = {"dh_p": "/WWSd+tQK8djBHm/gUNepw==", "dh_g": "Ag=="}
STAGE_OF = {"Boot": 1, "GetChallengeCode": 2, "Activate": 3, "Connect": 4}


def call(path, method, message):
    done = subprocess.run(["ubus", "-S", "call", path, method, json.dumps(message)], capture_output=True, text=True)
    return json.loads(done.stdout) if done.returncode == 0 and done.stdout.strip() else None


def log_path():
    return os.path.join(os.environ["LAB_DIR"], "agent.log")


def wait_for(what, holds):
    end = time.monotonic() + 20
    while not holds():
        if time.monotonic() > end:
            sys.exit(f"seeds: {what} did not happen")
        time.sleep(0.05)


def frame(text):
    return struct.pack(">I", len(text)) + text


def compact(value):
    return json.dumps(value, separators=(",", ":")).encode()


def local_request(message):
    with socket.create_connection((os.environ["AP_ADDR"], 17998), 10) as client:
        client.sendall(frame(compact(message)))
        client.recv(65536)


def blob(name, value):
    """A blobmsg attribute."""
    if isinstance(value, dict):
        kind, data = 2, b"".join(blob(*member) for member in value.items())
    elif isinstance(value, list):
        kind, data = 1, b"".join(blob("", member) for member in value)
    elif isinstance(value, int):
        kind, data = 5, struct.pack(">i", value)
    else:
        kind, data = 3, value.encode() + b"\0"
    head = struct.pack(">H", len(name)) + name.encode() + b"\0"
    head += bytes(-len(head) % 4)
    size = 4 + len(head) + len(data)
    return struct.pack(">I", 1 << 31 | kind << 24 | size) + head + data + bytes(-size % 4)


def exchange():
    """Lets pass what the tour has not."""
    if subprocess.run([sys.executable, TOUR], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL).returncode != 0:
        sys.exit("seeds: the tour failed")
    with open(log_path(), "ab") as log:  # the tour has ended its agent
        agent = subprocess.Popen(["lab-agent"], stdout=log, stderr=log, stdin=subprocess.DEVNULL)
    wait_for("the link", lambda: call("lab.gateway", "peer", {})["state"] == "linked")
    wait_for("the cloud", lambda: call("lab.cloud", "request", {"message": {"RPCMethod": "ListPlugin"}}))
    for message in GATEWAY:
        call("lab.gateway", "request", {"message": message})
    for number, method, message in NOTIFICATIONS:
        call("qzcapd.emulator", "notify", {"object": number, "method": method, "message": message})
    for message in COMMANDS:
        if call("qzapp.arvokclt", "postmsg", message) is None:
            sys.exit(f"seeds: no answer to {message}")
    for parameter in (b'{"CmdType":"GET_SN_INFO","SequenceId":"7"}', b'{"CmdType":"GET_SN_INFO"}', b'{"CmdType":"X"}', b"["):
        local_request({"RPCMethod": "Post1", "ID": 2, "Parameter": base64.b64encode(parameter).decode()})
    local_request({"RPCMethod": "Post2", "ID": 3})
    for message in CLOUD:
        call("lab.cloud", "request", {"message": message})
    agent.terminate()
    agent.wait()


class Seeds:
    def __init__(self, folder):
        self.folder = folder
        self.written = set()

    def write(self, target, name, *lines):
        content = b"\n".join(line if isinstance(line, bytes) else line.encode() for line in lines)
        if (target, content) in self.written:
            return
        self.written.add((target, content))
        folder = os.path.join(self.folder, target)
        os.makedirs(folder, exist_ok=True)
        number = len(os.listdir(folder)) + 1
        with open(os.path.join(folder, f"{number:02d}-{name}"), "wb") as seed:
            seed.write(content)


def shape(message):
    """What makes two messages the same for a seed: their members, not what these say."""
    if isinstance(message, dict):
        kind = message.get("type") or message.get("RPCMethod") or message.get("Ack") or message.get("command")
        return str(kind) + "{" + ",".join(f"{key}:{shape(value)}" for key, value in sorted(message.items())) + "}"
    if isinstance(message, list):
        return "[" + ",".join(sorted({shape(value) for value in message})) + "]"
    return ""


def received(log, who, key=shape):
    """The messages that the agent logged, of those with the same key the first."""
    seen = set()
    for text in re.findall(rf"\({who}\) <- (.*) \(\d+\)$", log, re.M):
        try:
            message = json.loads(text)
        except ValueError:
            continue
        if key(message) not in seen:
            seen.add(key(message))
            yield message, text


def make(seeds, log):
    messages = list(received(log, "arvok"))
    opening = []
    for message, _ in messages:
        if message["type"] in ("keyngack", "dh"):
            if "data" in message:
                message["data"].update(GROUP)
            opening.append(compact(message).decode())
    acknowledged = [text for message, text in messages if message["type"] == "ack"][:1]
    seeds.write("gateway", "opening", "0", *opening, *acknowledged, "!0", "+5", "!0")
    framed = b"".join(struct.pack(">I", 0x3F721FB5) + frame(text.encode()) for text in opening)
    for piece in (0, 7, 200):
        seeds.write("gateway", f"opening-in-{piece}", "0", "@", bytes([piece]) + framed)
    for message, text in messages:
        if message["type"] not in ("keyngack", "dh"):
            seeds.write("gateway", message["type"], "1", text)
    seeds.write("gateway", "all", "1", *[text for message, text in received(log, "arvok", compact)
                                         if message["type"] not in ("ack", "get_status", "keyngack", "dh")])
    requests = [text for message, text in messages if message["type"] in ("cfg", "control")]
    seeds.write("gateway", "refused", "1", "~.f.f", *requests[:3], "~nnn", *requests[:3], "~rl", *requests[:3],
                "~hm", *requests[:3])
    kept_alive = json.loads(acknowledged[0])
    kept_alive["sequence"] = 3  # the keepalive that the first timer sends; the log leaves them out
    seeds.write("gateway", "kept-alive", "1", "!0", compact(kept_alive), "!0", "+20", "!0")
    seeds.write("gateway", "untaken", "1", "%", "*9", max((t for m, t in messages if m["type"] == "get_status"), key=len))

    acks = {message["Ack"]: text for message, text in received(log, "cloud") if "Ack" in message}
    acks["Heartbeat"] = '{"Ack":"Heartbeat","Result":0}'  # the log leaves them out
    enrolment = [acks[name] for name in ("GetChallengeCode", "Activate", "GetChallengeCode", "Connect", "Heartbeat")]
    seeds.write("cloud", "enrolment", "1", acks["Boot"], "!0", *enrolment, "!0", acks["Heartbeat"])
    seeds.write("cloud", "resumption", "2known", *enrolment[2:], "!0")
    seeds.write("cloud", "unknown", "4", acks["Connect"].replace('"Result":0', '"Result":-2'), "!0")
    for message, text in received(log, "cloud"):
        name = message.get("Ack") or message["RPCMethod"]
        seeds.write("cloud", name, str(STAGE_OF.get(message.get("Ack"), 5)), text, "!0")
        if name == "Install":
            outcome = {"result": 0, "failreason": "", "name": "radio", "version": "2.0"}
            seeds.write("cloud", "installed", "5", text, "$" + json.dumps(outcome), text, "$")
        if name == "GetChallengeCode":
            body = base64.b64encode(text.encode()) + b"\r\n"
            for piece in (0, 5):
                seeds.write("cloud", f"raw-in-{piece}", "2", "@", bytes([piece]) + (b"QZSGWMP2" + frame(body)) * 2)
    seeds.write("cloud", "all", "5", *[text for message, text in received(log, "cloud") if "RPCMethod" in message], "!0")
    seeds.write("cloud", "retried", "1", "-", *["!0", "-"] * 12)

    for message, text in received(log, "local", compact):
        seeds.write("local", message["RPCMethod"], text)
        if "Parameter" in message:
            seeds.write("local", "command", "=" + base64.b64decode(message["Parameter"]).decode())
            seeds.write("local", "raw", "@", b"\x03" + frame(text.encode()) * 2)
    seeds.write("local", "clients", "&", "&", "{}", "-", "&", "{}")

    objects = {"dev": 0, "wan": 1, "wifi": 2, "roaming": 3, "map": 4, "vsie": 5}
    seen = set()
    notifications = re.findall(r"(\w+)_event_cb: method (\S+), json: (.*)$", log, re.M)
    seeds.write("events", "all", *[f"{objects[name]} {method} {text}" for name, method, text in notifications])
    for name, method, text in notifications:
        message = json.loads(text)
        if (name, method, shape(message)) in seen:
            continue
        seen.add((name, method, shape(message)))
        seeds.write("events", f"{name}-{method}", f"{objects[name]} {method} {text}", f"6 {method} {text}", "!0")
        seeds.write("events", f"{name}-{method}-raw", "@",
                    bytes([objects[name], 0]) + b"".join(blob(*member) for member in message.items()))

    for command in COMMANDS:
        seeds.write("app", command["CmdType"], compact(command), "!0")
        if "Info" in command:
            seeds.write("app", command["CmdType"] + "-raw", "@", b"".join(blob(*m) for m in command.items()))
    seeds.write("app", "guest", *[b"~" + b"g" * 9 + b"\n" + compact(c) for c in COMMANDS if "GUEST" in c["CmdType"]])
    seeds.write("app", "guest-refused", *[b"~.fff\n" + compact(c) for c in COMMANDS if "GUEST" in c["CmdType"]])
    seeds.write("app", "all", *[compact(command) for command in COMMANDS], "!0", "!1", "+3600", "!0", "!2")


def read(*path):
    try:
        with open(os.path.join(os.environ["LAB_DIR"], "qzcap", *path), "rb") as file:
            return file.read()
    except OSError:
        return b""


def make_from_files(seeds):
    files = [read("apps", "arvokclt", f"extcc-{name}.cfg") for name in ("lht", "lhpc", "gst-idx", "gst-tmr")]
    for name, script in (("evening", b"+43200\n!0"), ("week", b"*7\n+86400\n!0"), ("refused", b"~f.f.f\n!0\n!1\n!2"),
                         ("dump", compact(COMMANDS[-2]))):
        seeds.write("rules", name, b"\f".join([script, *files]))
    for number in range(len(files)):
        seeds.write("rules", f"only-{number}", b"\f".join([b"!0", *[f if i == number else b"" for i, f in enumerate(files)]]))
    for command in COMMANDS[1:]:
        seeds.write("rules", command["CmdType"], b"\f".join([compact(command), *files]))

    info = os.path.join("apps", "qzcap", "apps", "opkg", "info")
    for file in sorted(os.listdir(os.path.join(os.environ["LAB_DIR"], "qzcap", info))):
        name = file[:-len(".control")]
        control = read(info, file)
        version = re.search(rb"^Version: *(\S+)", control, re.M)
        for parameter in (b'{"Ask":"sky"}', compact(COMMANDS[0]), compact(GATEWAY[5])):
            seeds.write("packages", name, b"\f".join(
                [f"com.marobelvinta.all.smartap.{name}_ipq5018x".encode(), version.group(1) if version else b"", parameter,
                 control]))

    stored = call("qzcapd.emulator", "state", {})["serverinfo"]
    servers = "\n".join([stored["bss"], stored["devtoken"], stored["devid"], *filter(None, [stored.get("abi")]),
                         *stored["abi_list"]])
    for number, arguments in enumerate(OPTIONS):
        seeds.write("options", "arguments", "\f".join([arguments, ("", "192.168.7.1\n", "192.168.7.1")[number % 3], servers]))


def main():
    if "LAB_DIR" not in os.environ:
        sys.exit(__doc__)
    folder = sys.argv[1] if len(sys.argv) > 1 else os.path.join(HERE, "corpus")
    exchange()
    shutil.rmtree(folder, ignore_errors=True)
    seeds = Seeds(folder)
    with open(log_path(), encoding="utf-8") as log:
        make(seeds, log.read())
    make_from_files(seeds)
    print(f"{len(seeds.written)} seeds")


if __name__ == "__main__":
    main()
