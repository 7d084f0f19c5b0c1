"""A store behind Sentinel: its master is found, followed when it changes, and what a replica did not have is put right."""

import socket
import threading

import pytest

import harness
import stores
from witness import codec

NS = 1_700_000_000_000_000_000


@pytest.fixture
def replicated(bare_site):
    bare_site.redis = stores.FailoverStore(bare_site.folder)
    try:
        bare_site.redis.start()
        bare_site.broker.start()
        yield bare_site
    finally:
        for sentinel in bare_site.redis.sentinels:
            if not sentinel.running():
                print(sentinel.said())


def as_user(site, user):
    return {"PVSS_STORE": site.redis.url_of(user)}


def apply(site):
    plant = site.write("plant.yaml", 'elements: {A.x: int, A.y: text, A.z: int, O.y: int}\n'
                       f'lists: {{clients: {harness.LIST}, publications: {harness.PUBLICATIONS}}}\n'
                       'subscribe: {p: {v: A.x, w: A.y}, late: {v: A.z}}\npublish: {q: {fields: {v: O.y}}}\n')
    site.done("apply", plant, env=as_user(site, "tools"))


def reading(site, element="A.x"):
    (found,) = site.json("dp", "get", element, env=as_user(site, "watcher"))["elements"]
    return found


def value(site, element="A.x"):
    return reading(site, element)["value"]


def publish(site, number):
    site.broker.publish("p", codec.encode({"v": ("int", number), "w": ("string", f"text {number}")}, time_ns=NS + number * 1_000_000))


def counters(site):
    (manager,) = site.json("status", env=as_user(site, "watcher"))["managers"]
    return manager["counters"]


def published(listener):
    return [codec.Record(payload).fields.get("v") for *_, payload in listener.messages if payload]


def test_a_failover_to_a_replica_that_lags_ends_with_the_newest_values_and_the_loss_counted(replicated):
    site = replicated
    apply(site)
    listener = site.broker.subscribe(site.broker.topic("q"))
    site.processes.append(listener.process)
    gateway = site.gateway(env=as_user(site, "gateway"))
    gateway.wait_for("the mappings", lambda: sum("Created client mapping" in line for line in gateway.out) == 3)
    gateway.wait_for("the word that nobody publishes it yet", lambda: site.log_of("A.z"))
    site.done("dp", "set", "O.y", "1", env=as_user(site, "tools"))
    # By somebody whose clock is years ahead of the publisher's: what counts afterwards is what came last all the same.
    site.done("dp", "set", "A.z", "98", env=as_user(site, "tools"))
    for number in range(1, 6):
        publish(site, number)
    gateway.wait_for("the values", lambda: value(site) == 5)
    gateway.wait_for("the publication", lambda: ("int", 1) in published(listener))
    harness.wait_until("the replica to have them", site.redis.follows)

    # What comes now is confirmed by the master and unknown to the replica.
    site.redis.let_the_replica_fall_behind()
    for number in range(6, 31):
        publish(site, number)
    site.broker.publish("late", codec.encode({"v": ("int", 99)}, time_ns=NS))
    gateway.wait_for("the values", lambda: (value(site), value(site, "A.z")) == (30, 99))
    site.done("dp", "set", "O.y", "2", env=as_user(site, "tools"))
    gateway.wait_for("the publication", lambda: published(listener)[-1] == ("int", 2))
    gateway.wait_for("everything confirmed", lambda: counters(site)["pending"] == 0)
    before = counters(site)
    assert before["restored"] == 0
    replica = site.redis.servers[1]
    assert replica.command("HGET", "dp:d:A.x", "v") == b"5" and replica.command("HGET", "dp:d:A.z", "v") == b"98"

    site.redis.kill_master()
    # While nobody is the master values go on coming, but not for everything.
    publish(site, 31)
    gateway.wait_for("the line about the master", lambda: any("the master is now" in line for line in gateway.err))
    harness.wait_until("every sentinel to say so", site.redis.agreed)
    gateway.wait_for("the newest values", lambda: (value(site), value(site, "A.z"), value(site, "A.y")) == (31, 99, "text 31"))
    for element, stime in (("A.x", 31), ("A.y", 31), ("A.z", 0)):
        assert (reading(site, element)["stimeMs"], reading(site, element)["invalid"]) == (NS // 1_000_000 + stime, False)

    # What somebody else had written is lost with the master; the gateway is told what the value is now.
    assert value(site, "O.y") == 1
    gateway.wait_for("the publication of the older value", lambda: published(listener)[-1] == ("int", 1))
    site.done("dp", "set", "O.y", "3", env=as_user(site, "tools"))
    publish(site, 32)
    gateway.wait_for("what comes afterwards", lambda: value(site) == 32 and published(listener)[-1] == ("int", 3))

    gateway.wait_for("the counters", lambda: counters(site)["pending"] == 0 and counters(site)["restored"] > 0)
    after = counters(site)
    assert after["queued"] == after["confirmed"] + after["coalesced"] + after["dropped"] + after["rejected"] + after["pending"]
    assert after["coalesced"] == after["dropped"] == after["rejected"] == 0
    # 25 records with two elements and one with one, four attributes each, and a flag cleared when that one's publication
    # came; of all these only the one element has nothing newer in the backlog.
    assert (after["lost"], after["restored"]) == (25 * 8 + 4 + 1, 4)
    assert site.json("status", "--ledger", env=as_user(site, "watcher"))["store"]["balanced"]
    told = [line for line in gateway.err if " store " in line or "newest values are written again" in line]
    assert sum("the master is now" in line for line in told) == 1, gateway.said()
    (line,) = [line for line in told if "the master is now" in line]
    assert f"127.0.0.1:{site.redis.ports[1]}, it was 127.0.0.1:{site.redis.ports[0]}" in line
    assert sum("newest values are written again" in line for line in told) == 1, gateway.said()
    assert len(told) <= 8, gateway.said()


def test_a_planned_change_of_the_master_is_followed_without_loss(replicated):
    site = replicated
    apply(site)
    gateway = site.gateway(env=as_user(site, "gateway"))
    for number in range(1, 6):
        publish(site, number)
    gateway.wait_for("the values", lambda: value(site) == 5)
    harness.wait_until("the replica to have them", site.redis.follows)
    site.redis._sentinel(site.redis.sentinel_ports[0], "SENTINEL", "FAILOVER", site.redis.NAME)
    for number in range(6, 26):
        publish(site, number)
    gateway.wait_for("the new master", lambda: any("the master is now" in line for line in gateway.err))
    harness.wait_until("every sentinel to say so", site.redis.agreed)
    publish(site, 26)
    gateway.wait_for("the newest value", lambda: value(site) == 26 and value(site, "A.y") == "text 26")
    harness.wait_until("the old master to follow",
                       lambda: site.redis.servers[0].command("ROLE")[0] == b"slave" and
                       site.redis.servers[0].command("HGET", "dp:d:A.x", "v") == b"26", 40)
    after = counters(site)
    assert after["coalesced"] == after["dropped"] == after["rejected"] == 0


def test_everything_over_tls(bare_site, folder):
    """Sentinels, master and replica speak nothing else; the certificates name the addresses that the sentinels announce."""
    site = bare_site
    certificates = stores.Certificates(folder)
    certificates.issue("server", "DNS:localhost,IP:127.0.0.1")
    site.redis = stores.FailoverStore(site.folder, certificates=certificates)
    site.redis.start()
    site.broker.start()
    apply(site)
    gateway = site.gateway(env=as_user(site, "gateway"))
    publish(site, 1)
    gateway.wait_for("the value", lambda: value(site) == 1)
    harness.wait_until("the replica to have it", site.redis.follows)
    site.redis.kill_master()
    publish(site, 2)
    gateway.wait_for("the line about the master", lambda: any("the master is now" in line for line in gateway.err))
    harness.wait_until("every sentinel to say so", site.redis.agreed)
    gateway.wait_for("the newest value", lambda: value(site) == 2)
    # Without the authority neither a sentinel nor the server is believed, and plain text gets nowhere.
    url = site.redis.url_of("watcher")
    for wrong, code, reason in ((url.replace("ca=", "ca=/dev/null&cert=") + "&key=x", 3, "/dev/null"),
                                (url[:url.index("&ca=")], 2, "rediss+sentinel:// needs ca=FILE"),
                                (url[:url.index("&ca=")].replace("rediss+", "redis+"), 3, "it speaks TLS on this port")):
        ended, _, err = site.tool("dp", "get", "A.x", env={"PVSS_STORE": wrong})
        assert ended == code and reason in err and err.count("\n") == 1, err


def test_sentinels_that_are_dead_are_passed_over_and_all_dead_is_one_line(replicated):
    site = replicated
    apply(site)
    # Nobody asks the sentinels while the link holds.
    gateway = site.gateway(env=as_user(site, "gateway"))
    publish(site, 1)
    gateway.wait_for("the value", lambda: value(site) == 1)
    for sentinel in site.redis.sentinels[:2]:
        sentinel.kill()
    publish(site, 2)
    gateway.wait_for("the value", lambda: value(site) == 2)
    site.redis.sentinels[2].kill()
    lines = len(gateway.err)
    publish(site, 3)
    harness.wait_until("the value", lambda: site.redis.servers[0].command("HGET", "dp:d:A.x", "v") == b"3")
    assert len(gateway.err) == lines, gateway.said()
    code, _, err = site.tool("dp", "get", "A.x", env=as_user(site, "watcher"))
    assert code == 3 and err.count("\n") == 1
    assert "no sentinel says where the master 'plant' is (" in err
    for port in site.redis.sentinel_ports:
        assert f"127.0.0.1:{port}: Connection refused" in err


class ScriptedSentinel:
    """Names a master that the test chooses; nothing else of a sentinel."""

    def __init__(self, answer):
        self.answer = answer
        self.asked = 0
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        threading.Thread(target=self._serve, daemon=True).start()

    def _serve(self):
        while True:
            try:
                link, _ = self.listener.accept()
            except OSError:
                return
            with link:
                link.settimeout(20)
                data = b""
                while b"get-master-addr-by-name" not in data or not data.endswith(b"\r\n"):
                    piece = link.recv(4096)
                    if not piece:
                        break
                    data += piece
                else:
                    self.asked += 1
                    link.sendall(self.answer)

    def close(self):
        self.listener.close()


def address(port, host="127.0.0.1"):
    return f"*2\r\n${len(host)}\r\n{host}\r\n${len(str(port))}\r\n{port}\r\n".encode()


@pytest.mark.parametrize("answer, reason", [
    (lambda port: address(port), "it is a replica, though a sentinel named it: asking the sentinels again"),
    (lambda port: b"*-1\r\n", "it does not know this name"),
    (lambda port: b"-ERR unknown command 'SENTINEL'\r\n", "it is no sentinel"),
    (lambda port: address(port, "a;b %s"), "its answer is no address"),
    (lambda port: address(0), "its answer is no address"),
    (lambda port: address("99999"), "its answer is no address"),
    (lambda port: b"+OK\r\n", "it does not know this name"),
    (lambda port: b"HTTP/1.1 400 no\r\n\r\n", "it does not speak the Redis protocol"),
    (lambda port: b"", "the sentinel closed the connection"),
    (lambda port: b"\x15\x03\x01\x00\x02\x02\x46", "it speaks TLS on this port: use rediss+sentinel://"),
], ids=range(10))
def test_what_a_sentinel_says_is_not_taken_on_trust(bare_site, answer, reason):
    site = bare_site
    port = harness.free_port()
    site.redis.settings = ("--bind", "127.0.0.1", "--port", str(port), "--replicaof", "127.0.0.1", str(harness.free_port()))
    site.redis.start()
    sentinel = ScriptedSentinel(answer(port))
    url = f"redis+sentinel://127.0.0.1:{sentinel.port}/plant"
    try:
        gateway = site.gateway(env={"PVSS_STORE": url})
        told = gateway.wait_for("the line", lambda: [line for line in gateway.err if reason in line])[0]
        assert f"store {url}: " in told
        harness.wait_until("another try", lambda: sentinel.asked > 2)
        harness.holds_for("no flood", lambda: len([line for line in gateway.err if " store " in line]) == 1 and gateway.running(), 1)
    finally:
        sentinel.close()


def test_a_replica_named_by_one_sentinel_is_left_for_what_another_says(bare_site):
    site = bare_site
    ports = harness.free_port(), harness.free_port()
    site.redis.settings = ("--bind", "127.0.0.1", "--port", str(ports[0]))
    site.redis.start()
    replica = harness.Redis(stores.os.path.join(site.folder, "replica"), "--bind", "127.0.0.1", "--port", str(ports[1]),
                            "--replicaof", "127.0.0.1", str(ports[0]))
    stores.os.makedirs(replica.folder)
    replica.start()
    sentinels = [ScriptedSentinel(address(ports[1])), ScriptedSentinel(address(ports[0]))]
    try:
        url = f"redis+sentinel://127.0.0.1:{sentinels[0].port},127.0.0.1:{sentinels[1].port}/plant"
        gateway = site.gateway(env={"PVSS_STORE": url})
        gateway.wait_for("the master", lambda: any("run kelgw apply" in line for line in gateway.err))
        assert sum("it is a replica" in line for line in gateway.err) == 1, gateway.said()
        assert replica.command("ROLE")[0] == b"slave" and replica.command("DBSIZE") == 0
    finally:
        replica.stop()
        for sentinel in sentinels:
            sentinel.close()
