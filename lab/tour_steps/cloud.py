"""The steps with the operator's cloud platform."""

import base64
import json
import os
import subprocess
import time

from .link import acknowledged
from .traffic import Failed, call, is_message, require

PLUGIN = "com.marobelvinta.all.smartap.radio_ipq5018x"


def told():
    """What the agent tells about its cloud connection."""
    return call("qzapp.arvokclt", "postmsg", {"CmdType": "GET_STATUS", "SequenceId": "tour"})["arvokclt"]


def request(tour, show=True, **message):
    """Sends a request of the platform; shows both sides and returns the reply, which must be a success."""
    last = tour.cloud.frames[-1] if tour.cloud.frames else None
    reply = call("lab.cloud", "request", message)
    sent = tour.cloud.wait_for(
        "the request", lambda f: f["direction"] == "tx" and f["message"].get("RPCMethod") == message["RPCMethod"],
        after=last)
    if show:
        tour.screen.message(sent)
        tour.screen.message(tour.cloud.acknowledgement(sent))
    require(reply["Result"] == 0, f"{message['RPCMethod']} failed: {reply}")
    return reply


def params(tour, parameter):
    """Hands a message to the agent inside SetPluginParams and returns the answer inside its reply."""
    text = base64.b64encode(json.dumps(parameter, separators=(",", ":")).encode()).decode()
    reply = request(tour, RPCMethod="SetPluginParams", Plugin_Name="ArvokAP", Version="1.0.7", Parameter=text)
    answer = json.loads(base64.b64decode(reply["return_Parameter"]))
    tour.screen.note("inside, the question and the answer:")
    tour.screen.json(parameter)
    tour.screen.json(answer)
    return answer


def show_exchange(tour, method, after, status=None):
    """Shows a message of the agent and the platform's answer; between the two, what the agent says it is doing."""
    sent = tour.cloud.from_ap(method, after=after)
    tour.screen.message(sent)
    if status:
        deadline = time.monotonic() + tour.cloud.deadline
        while told()["status"] != status:
            require(time.monotonic() < deadline, f"the agent does not say {status}")
        tour.screen.note(f"the agent says: {status}")
    tour.screen.message(tour.cloud.acknowledgement(sent))
    return sent


def device_enrols(tour):
    """Meanwhile the agent has enrolled the device at the operator's cloud platform"""
    frame = None
    for method in ("Boot", "GetChallengeCode", "Activate", "GetChallengeCode", "Connect", "Heartbeat"):
        frame = show_exchange(tour, method, frame)
    device = call("lab.cloud", "devices")["devices"][0]
    require(device["mac"] == tour.device["mac"].replace(":", "").upper(), "the platform knows another device")
    stored = call("qzcapd.emulator", "state")["serverinfo"]
    require(stored["devid"] == device["dev_id"], "the device has not stored the identity that it was given")
    status = told()
    require(status["status"] == "心跳保活中", f"the agent says {status['status']}")
    tour.screen.note(f"the agent says: {status['status']} ({status['addr']}); the device has stored:")
    tour.screen.json(stored)


def enrolment_is_watched(tour):
    """The platform sends the device through its enrolment again, slowly: what the agent says at each step"""
    last = tour.cloud.frames[-1]
    for method in ("Boot", "Activate", "Connect"):
        call("lab.cloud", "misbehave", {"fault": "delay", "on": method, "delay": 1000})
    call("lab.cloud", "misbehave", {"fault": "delay", "on": "GetChallengeCode", "delay": 1000, "times": 2})
    request(tour, RPCMethod="RequestConnectBSS")
    for method, status in (("Boot", "获取能力平台地址中"), ("GetChallengeCode", "获取挑战码中"), ("Activate", "激活中"),
                           ("GetChallengeCode", "获取挑战码中"), ("Connect", "连接中"), ("Heartbeat", "心跳保活中")):
        last = show_exchange(tour, method, last, status)


def restart_resumes(tour):
    """The agent is restarted, and resumes at the business server with the identity that it has"""
    last = tour.cloud.frames[-1]
    gateway_last = tour.link.frames[-1]
    tour.restart_agent()
    tour.link.from_ap("dev_report", after=gateway_last)
    before = last
    for method in ("GetChallengeCode", "Connect", "Heartbeat"):
        last = show_exchange(tour, method, last)
    methods = [f["message"].get("RPCMethod") for f in tour.cloud.frames if f["number"] > before["number"]]
    require("Boot" not in methods and "Activate" not in methods, "the device enrolled anew")


def plugins_are_listed(tour):
    """The platform lists the device's apps"""
    reply = request(tour, RPCMethod="ListPlugin")
    require(any(app["Plugin_Name"].endswith(".arvokclt_ipq5018x") for app in reply["Plugin"]),
            "the agent itself is not among them")


def running(name):
    apps = {app["Plugin_Name"]: app["Run"] for app in call("lab.cloud", "request", {"RPCMethod": "ListPlugin"})["Plugin"]}
    return apps.get(name)


def plugin_is_managed(tour):
    """The platform installs an app, starts it and stops it"""
    mkapp = os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "mkapp")
    built = subprocess.run([mkapp, "radio", "2.0"], capture_output=True, text=True)
    require(built.returncode == 0, f"the package cannot be built: {built.stderr}")
    last = tour.cloud.frames[-1]
    request(tour, RPCMethod="Install", Plugin_Name=PLUGIN, Version="2.0", Plugin_size="1000", NeedRun="0", OS="openwrt",
            upgrade_ID="tour-1", Download_url=f"http://100.64.0.9/{built.stdout.strip()}")
    done = tour.cloud.from_ap("InstallNotification", after=last)
    tour.screen.message(done)
    require(done["message"]["Result"] == 0, "the installation failed")
    require(running(PLUGIN) == 0, "the app is not installed and stopped")
    for method, state in (("Run", 1), ("Stop", 0)):
        request(tour, RPCMethod=method, Plugin_Name=PLUGIN, Version="2.0")
        require(running(PLUGIN) == state, f"after {method} the app runs: {running(PLUGIN)}")


def cloud_asks_as_the_gateway(tour):
    """The platform asks the agent what a gateway asks, and what an app asks"""
    answer = params(tour, {"type": "get_status", "sequence": 7, "get": [{"name": "cputemp"}, {"name": "workmode"}]})
    require(answer["type"] == "status" and answer["sequence"] == 7, "that is no status")
    answer = params(tour, {"CmdType": "GET_STATUS", "SequenceId": "8"})
    require(answer["arvokclt"]["status"] == "心跳保活中" and answer["SequenceId"] == "8", "that is another status")


def object_is_watched_by_both(tour):
    """Gateway and platform subscribe to an object of the device's bus, and both are notified"""
    wanted = {"type": "ubus_subscribe", "object": "qzcapd.laninfo", "enable": 1}
    acknowledged(tour, dict(wanted))
    require(params(tour, dict(wanted))["errcode"] == 0, "the platform's subscription failed")
    link_last, cloud_last = tour.link.frames[-1], tour.cloud.frames[-1]
    mac = next(mac for mac, host in call("qzcapd.emulator", "state")["laninfo"].items() if host["active"])
    call("qzcapd.emulator", "patch", {"patch": {"laninfo": {mac: {"active": 0}}}})
    notified = tour.link.wait_for("the gateway's notification", is_message("rx", "ubus_notify"), after=link_last)
    tour.screen.message(notified)
    sent = tour.cloud.from_ap("PluginNotification", after=cloud_last)
    tour.screen.message(sent)
    inside = json.loads(base64.b64decode(sent["message"]["Message"]))
    tour.screen.note("inside, for the platform:")
    tour.screen.json(inside)
    for message in (notified["message"], inside):
        if message["type"] != "ubus_notify" or message["data"].get("mac") != mac:
            raise Failed(f"this tells of something else: {message}")


STEPS = [
    device_enrols,
    enrolment_is_watched,
    restart_resumes,
    plugins_are_listed,
    plugin_is_managed,
    cloud_asks_as_the_gateway,
    object_is_watched_by_both,
]
