"""The store over TLS, with client certificates and the users of the example: who gets in, and what is said to who does not."""

import pytest

import harness
import stores
from witness import codec

NS = 1_700_000_000_000_000_000


@pytest.fixture(scope="module")
def certificates(shared_folder):
    ours = stores.Certificates(shared_folder)
    ours.issue("server", "DNS:localhost,IP:127.0.0.1")
    ours.issue("elsewhere", "DNS:store.plant")
    ours.issue("gateway", "DNS:gateway")
    stores.Certificates(shared_folder, "other").issue("stranger", "DNS:gateway")
    return ours


class TlsSite:
    def __init__(self, site, certificates, server="server"):
        self.site, self.certificates = site, certificates
        self.port = harness.free_port()
        site.redis = stores.GuardedRedis(
            site.folder, "--bind", "127.0.0.1", "--tls-port", str(self.port), "--tls-cert-file", certificates.cert(server),
            "--tls-key-file", certificates.key(server), "--tls-ca-cert-file", certificates.cert("ca"), "--tls-auth-clients", "yes",
            "--appendfsync", "always")
        site.redis.start()

    def url(self, user, host="localhost", certificate="gateway", ca="ca", secret=None):
        url = f"rediss://{host}:{self.port}?user={user}&passfile={secret or self.site.redis.passwords[user]}"
        if ca:
            url += f"&ca={self.certificates.cert(ca)}"
        if certificate:
            url += f"&cert={self.certificates.cert(certificate)}&key={self.certificates.key(certificate)}"
        return url

    def env(self, user):
        return {"PVSS_STORE": self.url(user)}

    def apply(self):
        plant = self.site.write("plant.yaml", 'elements: {A.x: int, A.y: int}\n'
                                f'lists: {{clients: {harness.LIST}, publications: {harness.PUBLICATIONS}}}\n'
                                'subscribe: {p: {v: A.x}}\npublish: {q: {fields: {v: A.y}}}\n')
        self.site.done("apply", plant, env=self.env("tools"))

    def value(self, element="A.x"):
        return self.site.json("dp", "get", element, env=self.env("watcher"))["elements"][0]["value"]


def test_values_go_both_ways_with_certificates_and_users(bare_site, certificates):
    site = bare_site
    here = TlsSite(site, certificates)
    site.broker.start()
    here.apply()
    listener = site.broker.subscribe(site.broker.topic("q"))
    site.processes.append(listener.process)
    gateway = site.gateway(env=here.env("gateway"))
    for number in range(1, 6):
        site.broker.publish("p", codec.encode({"v": ("int", number)}, time_ns=NS + number * 1_000_000))
    gateway.wait_for("the value", lambda: here.value() == 5)
    site.done("dp", "set", "A.y", "7", env=here.env("tools"))
    gateway.wait_for("the publication", lambda: any(codec.Record(payload).fields.get("v") == ("int", 7)
                                                    for *_, payload in listener.messages if payload))
    # A server that is killed and restarted is found again, with everything.
    site.redis.kill()
    site.broker.publish("p", codec.encode({"v": ("int", 8)}, time_ns=NS + 8_000_000))
    site.redis.start()
    gateway.wait_for("the value written meanwhile", lambda: here.value() == 8)
    said = [line for line in gateway.err if " store " in line and f"localhost:{here.port}" in line]
    assert any("is back" in line for line in said), gateway.said()
    assert "password" not in "\n".join(gateway.err).replace("passfile", ""), gateway.said()


def contents(redis):
    return {key: redis.command("DUMP", key) for key in redis.command("KEYS", "*")}


# What is wrong: the address, and a part of the reason.
WRONG = {
    "no certificate": (lambda here: here.url("gateway", certificate=None), "the server wants a certificate of this side"),
    "a certificate of another authority": (lambda here: here.url("gateway", certificate="stranger"),
                                           "the server does not accept the certificate in"),
    "an authority that did not sign the server's": (lambda here: here.url("gateway", ca="other"), "is not signed by an authority in"),
    "no authority": (lambda here: here.url("gateway", ca=None), "an authority that this system does not know"),
    "the name of another server": (lambda here: here.url("gateway", host="localhost.localdomain")
                                   .replace("localhost.localdomain", "127.0.0.2"), "is not made for 127.0.0.2"),
    "a wrong password": (lambda here: here.url("gateway", secret=stores.secret_file(here.site.folder, "guess", "guess\n")),
                         "WRONGPASS"),
    "a user without the right": (lambda here: here.url("watcher"), "user, password or permission"),
    "plain text to a TLS port": (lambda here: f"redis://localhost:{here.port}", "perhaps the server speaks TLS on this port"),
}


@pytest.mark.parametrize("what", WRONG)
def test_who_should_not_get_in_is_told_why_and_writes_nothing(bare_site, certificates, what):
    site = bare_site
    here = TlsSite(site, certificates)
    if "127.0.0.2" in WRONG[what][1]:
        site.redis.stop()
        site.redis.settings = tuple("127.0.0.1 127.0.0.2" if word == "127.0.0.1" else word for word in site.redis.settings)
        site.redis.start()
    site.broker.start()
    here.apply()
    before = contents(site.redis)
    make, reason = WRONG[what]
    url = make(here)
    site.broker.publish("p", codec.encode({"v": ("int", 5)}, time_ns=NS))
    gateway = site.gateway(env={"PVSS_STORE": url})
    told = gateway.wait_for("a line about the store", lambda: [line for line in gateway.err if reason in line])[0]
    assert url.split("?", maxsplit=1)[0] in told and "trying again until it works" in told
    harness.holds_for("no flood", lambda: len([line for line in gateway.err if " store " in line]) == 1 and gateway.running(), 3)
    assert "guess" not in "\n".join(gateway.err).replace("/guess", "")
    code, _, err = site.tool("dp", "set", "A.x", "9", env={"PVSS_STORE": url})
    assert code == (1 if "right" in what else 3) and err.count("\n") == 1, err
    assert reason in err or "can't run this command" in err, err
    assert contents(site.redis) == before


def test_tls_to_a_plain_port_is_told_and_writes_nothing(bare_site, certificates):
    site = bare_site
    port = harness.free_port()
    site.redis.settings = ("--port", str(port), "--bind", "127.0.0.1")
    site.redis.start()
    url = f"rediss://127.0.0.1:{port}?ca={certificates.cert('ca')}"
    gateway = site.gateway(env={"PVSS_STORE": url})
    told = gateway.wait_for("a line about the store", lambda: [line for line in gateway.err if "TLS on this port" in line])[0]
    assert f"127.0.0.1:{port}" in told and "use redis:// for plain text" in told
    harness.holds_for("no flood", lambda: len([line for line in gateway.err if " store " in line]) == 1, 3)
    assert contents(site.redis) == {}
