"""What the agent's retry policy lets one expect of very many devices, on a grid of seconds.

The policy, as docs/cloud-link.md has it: after a failure the same server is tried five times more, each after a delay drawn evenly
from a range of its own; then the next server's turn comes at once. When all have failed, there is a rest, and another round.

All of it is for devices whose lists are whole. A server counts as tried from its turn on, also when it was connected to since: to a
device that earlier outages have moved down its list the rest comes sooner: to one at its last server, after the tries there.
"""

DELAYS_S = ((0, 90), (90, 180), (180, 360), (360, 720), (720, 1440))
REST_S = 150 * 60
SERVERS, ROUNDS = 5, 3


def delayed(density, low, high):
    """The density of moments, each put off by low to high whole seconds, all equally likely."""
    sums = [0.0]
    for value in density:
        sums.append(sums[-1] + value)
    end = len(density)
    return [(sums[min(max(at - low + 1, 0), end)] - sums[min(max(at - high, 0), end)]) / (high - low + 1)
            for at in range(end)]


def after_outage(outage_s, horizon_s):
    """Share of the devices that come back in each second since all servers went, which were away for `outage_s`."""
    away = round(outage_s)
    returned = [0.0] * horizon_s
    failed = [1.0] + [0.0] * (horizon_s - 1)
    for attempt in range(SERVERS * ROUNDS * len(DELAYS_S)):
        server, delay = divmod(attempt, len(DELAYS_S))
        if delay == 0 and server and server % SERVERS == 0:
            failed = delayed(failed, REST_S, REST_S)
            failed = _part(failed, returned, away)
        failed = _part(delayed(failed, *DELAYS_S[delay]), returned, away)
        if sum(failed) < 1e-9:
            break
    return returned


def _part(tried, returned, away):
    """Adds to `returned` who finds a server; the rest has failed."""
    for at in range(away, len(tried)):
        returned[at] += tried[at]
    return tried[:away] + [0.0] * (len(tried) - away)


def after_lost_server(horizon_s):
    """The same for the devices of one server that stays away while the others are there, and have another one left in their lists."""
    failed = [1.0] + [0.0] * (horizon_s - 1)
    for low, high in DELAYS_S:
        failed = delayed(failed, low, high)
    return failed


def time_until(density, share, since=0):
    """Seconds after `since` until that share of those who come at all is there."""
    wanted, there = share * sum(density[since:]), 0.0
    for at in range(since, len(density)):
        there += density[at]
        if there >= wanted - 1e-9:
            return at - since
    return None


def peak(density, window_s, since=0):
    """The most per second, as a mean over `window_s`."""
    return max(sum(density[at:at + window_s]) for at in range(since, len(density))) / window_s
