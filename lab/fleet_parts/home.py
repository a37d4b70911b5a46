"""One home of a fleet: its names and addresses, its folders and its cable."""

import copy
import json
import os

GATEWAY, GATEWAY_MAC = "192.168.1.1", "02:5A:0F:00:00:01"


class Home:
    """One access point. `stage` tells how far it is: off, bus, platform, on."""

    def __init__(self, number, folder):
        self.number, self.folder = number, folder
        self.address = f"192.168.{2 + number // 250}.{1 + number % 250}"
        self.mac = "02:5A:10:%02X:%02X:01" % divmod(number + 1, 256)
        self.pids, self.stage, self.since = {}, "off", 0
        self.namespaces = ()

    def state(self, model):
        """The platform's state: a device like the model's, with its own names and addresses."""
        state, plain = copy.deepcopy(model), self.mac.replace(":", "")
        state["devinfo"].update(mac=self.mac, sn=f"TRAX30B1{self.number:07d}", QZEI="QZ" + plain, lan_source=self.address,
                                url=f"http://{self.address}/", wepIp=self.address,
                                webUrl=f"http://{self.address}/index.html")
        state["waninfo"].update(ipaddr=self.address, gateway=GATEWAY, dns1=GATEWAY)
        state["mesh"].update(almac=self.mac)
        state["serverinfo"].update(bss="bss.arvok.example:8088")
        return state

    def furnish(self, model):
        for name in ("run/ubus", "qzcap/bin", "qzcap/apps/arvokclt"):
            os.makedirs(os.path.join(self.folder, name))
        os.symlink("ubus/ubus.sock", os.path.join(self.folder, "run/ubus.sock"))
        os.symlink(os.environ["LAB_DIR"] + "/qzcap/bin/appd", os.path.join(self.folder, "qzcap/bin/appd"))
        with open(os.path.join(self.folder, "state.json"), "w", encoding="utf-8") as file:
            json.dump(self.state(model), file)
        with open(os.path.join(self.folder, "network"), "w", encoding="utf-8") as file:
            file.write(f"link set lo up\naddress add {self.address}/16 dev br-lan\nlink set br-lan up\n"
                       f"neighbour add {GATEWAY} lladdr {GATEWAY_MAC} dev br-lan nud permanent\n"
                       f"route add default via {GATEWAY}\n")

    def cable(self):
        """What `ip` does on the operator's side. Both ends know each other, so that nobody has to ask."""
        pid, port = self.pids["bus"], f"home{self.number}"
        return (f"link add {port} address {GATEWAY_MAC} type veth peer name br-lan address {self.mac} netns {pid}\n"
                f"address add {GATEWAY} peer {self.address}/32 dev {port}\nlink set {port} up\n"
                f"neighbour add {self.address} lladdr {self.mac} dev {port} nud permanent\n")

    @property
    def socket(self):
        return os.path.join(self.folder, "run/ubus/ubus.sock")

    def log(self, role):
        return os.path.join(self.folder, role + ".log")

    def text(self, role):
        try:
            with open(self.log(role), encoding="utf-8", errors="replace") as file:
                return file.read()
        except FileNotFoundError:
            return ""
