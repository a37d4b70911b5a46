"""Messages as the rows of a picture: what repeats itself is one row, and long waits are marked."""

import dataclasses

ORDER = ("gateway", "device", "platform", "apps", "clients")
REPEATED = 3  # from how many on, equal messages are folded
WAIT = 5 * 10**8
SOON = 10**8


@dataclasses.dataclass
class Row:
    messages: list  # one, or equal ones
    waited: int = 0  # since the row before, in nanoseconds

    @property
    def first(self):
        return self.messages[0]

    @property
    def label(self):
        count, message = len(self.messages), self.first
        if count == 1:
            return message.label
        detail = f" · {message.detail}" if message.detail else ""
        took = self.messages[-1].time - message.time
        return f"{message.name}{detail} × {count}" + (f" in {duration(took)}" if took >= SOON else "")


def duration(nanoseconds):
    seconds = nanoseconds / 1e9
    if seconds >= 600:
        return f"{seconds / 60:.0f} min"
    return f"{seconds:.1f} s" if seconds >= 0.1 else f"{seconds * 1000:.0f} ms"


def sort_of(message):
    """What messages have in common that a reader need not see one by one."""
    return (message.lane, message.peer, message.from_device, message.name, message.detail, message.cipher, message.fault,
            message.event)


def repetitions(sorts, at, period):
    """How many times the `period` messages from `at` on are there, one time after the other."""
    count = 1
    while sorts[at + count * period:at + (count + 1) * period] == sorts[at:at + period]:
        count += 1
    return count


def fold(messages):
    """Rows: equal messages in a run are one, and so are those of a question and an answer that alternate."""
    sorts, rows, at = [sort_of(message) for message in messages], [], 0
    while at < len(messages):
        found = [(period, repetitions(sorts, at, period)) for period in (1, 2)]
        period, count = max(found, key=lambda run: run[0] * run[1])
        if count < REPEATED or messages[at].event:
            period = count = 1
        for part in range(period):
            rows.append(Row(messages[at + part:at + period * count:period]))
        at += period * count
    last = None
    for row in rows:
        row.waited = max(0, row.first.time - last) if last else 0
        last = max(last or 0, row.messages[-1].time)
    return rows


def lanes_of(messages):
    """The lanes that have messages, in the order of the picture, and who is on them."""
    peers = {lane: [] for lane in ORDER}
    for message in messages:
        peers[message.lane].append(message.peer.rsplit(":", 1)[0])
    return {lane: list(dict.fromkeys(found)) for lane, found in peers.items() if found or lane == "device"}


def open_before(messages, time):
    """The connections that are there at a time, as (lane, connection)."""
    found = set()
    for message in messages:
        if message.time >= time:
            break
        if message.event == "open":
            found.add((message.lane, message.connection))
        elif message.event == "end":
            found.discard((message.lane, message.connection))
        elif message.connection:
            found.add((message.lane, message.connection))
    return found
