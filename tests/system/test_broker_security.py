"""The link to the broker when the broker trusts nobody without proof: certificates, passwords, access lists. Everything
runs under packaging/mosquitto-acl.example. Whoever is refused says so in one line, writes nothing, and takes up its work
by itself once it is let in."""

import base64
import glob
import hashlib
import json
import os
import re
import signal
import subprocess

import pytest

import harness

EXAMPLE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "packaging", "mosquitto-acl.example")
USERS = ("gateway", "boilerhouse", "watcher", "kelgw")
KEEP_ALIVE = 2  # who is refused asks again after twice that
FED = "plant/boilerhouse/t"
PUBLISHED = "control/pump1"


class Authority:
    """A certificate authority of this test alone."""

    def __init__(self, folder, name):
        self.folder, self.name = folder, name
        self.cert, self.key = self._path("pem"), self._path("key")
        self._openssl("req", "-x509", *self._new_key(self.key), "-out", self.cert, "-subj", f"/CN={name}", "-days", "2")

    def _path(self, kind):
        return os.path.join(self.folder, f"{self.name}.{kind}")

    @staticmethod
    def _new_key(path):
        return "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-keyout", path

    @staticmethod
    def _openssl(*arguments):
        subprocess.run(["openssl", *arguments], check=True, capture_output=True, timeout=60 * harness.PATIENCE)

    def issue(self, name, subject, alternative=""):
        """(certificate, key) as files."""
        cert, key = (os.path.join(self.folder, f"{self.name}-{name}.{kind}") for kind in ("pem", "key"))
        request, extensions = cert + ".csr", cert + ".ext"
        with open(extensions, "w", encoding="ascii") as file:
            file.write(f"subjectAltName={alternative}\n" if alternative else "")
        self._openssl("req", *self._new_key(key), "-out", request, "-subj", f"/CN={subject}")
        self._openssl("x509", "-req", "-in", request, "-CA", self.cert, "-CAkey", self.key, "-CAcreateserial", "-days", "2",
                      "-out", cert, "-extfile", extensions)
        os.chmod(key, 0o600)
        return cert, key


class GuardedBroker(harness.Broker):
    """mosquitto with one port for TLS, which wants certificates, and one without; a password and an access list on both."""

    def __init__(self, folder):
        super().__init__(folder)
        self.plain_port = harness.free_port()
        self.authority = Authority(folder, "ca")
        self.server = self.authority.issue("server", "localhost", "DNS:localhost")
        self.client = self.authority.issue("client", "client")
        self.users = os.path.join(folder, "users")
        open(self.users, "w", encoding="ascii").close()
        for user in USERS:
            subprocess.run(["mosquitto_passwd", "-b", self.users, user, self.password(user)], check=True, timeout=60)
            self.secret(user, self.password(user))
        with open(EXAMPLE, encoding="utf-8") as file:
            self.example = file.read().replace("kel/default/", f"kel/{harness.GROUP}/")
        self.acl = os.path.join(folder, "acl")
        self.plugin = []

    @staticmethod
    def password(user):
        return f"open sesame {user}"

    def secret(self, name, text, mode=0o600):
        path = os.path.join(self.folder, f"{name}.pass")
        with open(path, "w", encoding="utf-8") as file:
            file.write(text + "\n")
        os.chmod(path, mode)
        return path

    def allow(self, text=None, take_out=(), reload=True):
        """The example, or without these lines of the gateway; counts at once."""
        text = text if text is not None else self.example
        gateway = re.search(r"user gateway\n(?:topic .*\n)+", text).group()
        less = gateway
        for line, instead in take_out:
            assert line in less, f"{line} does not stand in the example for the gateway"
            less = less.replace(line, instead)
        with open(self.acl, "w", encoding="utf-8") as file:
            file.write(text.replace(gateway, less))
        if reload and self.process:
            self.process.send_signal(signal.SIGHUP)

    def start(self):
        if not os.path.exists(self.acl):
            self.allow()
        path = os.path.join(self.folder, "mosquitto.conf")
        access = self.plugin or [f"password_file {self.users}", f"acl_file {self.acl}"]
        lines = ["per_listener_settings false", "allow_anonymous false", "set_tcp_nodelay true", "max_queued_messages 100000",
                 *access, f"listener {self.plain_port} 127.0.0.1", f"listener {self.port} 127.0.0.1",
                 f"cafile {self.authority.cert}", f"certfile {self.server[0]}", f"keyfile {self.server[1]}",
                 "require_certificate true", *(["user root"] if os.geteuid() == 0 else [])]
        with open(path, "w", encoding="utf-8") as config:
            config.write("\n".join(lines) + "\n")
        self.process = harness.Process(["mosquitto", "-c", path])
        self.process.wait_for("mosquitto to start", self._answers)
        return self

    def address(self, user="gateway", **options):
        """An address with everything that is asked for; options replace parts, None leaves one out."""
        host, port = options.pop("host", "localhost"), options.pop("port", self.port)
        scheme = options.pop("scheme", "mqtts")
        parts = {"group": harness.GROUP, "keepAlive": KEEP_ALIVE, "user": user,
                 "passfile": os.path.join(self.folder, f"{user}.pass")}
        if scheme == "mqtts":
            parts |= {"ca": self.authority.cert, "cert": self.client[0], "key": self.client[1]}
        parts |= options
        query = "&".join(f"{name}={value}" for name, value in parts.items() if value is not None)
        return f"{scheme}://{host}:{port}?{query}"

    @property
    def url(self):
        return self.address()


class Guarded(harness.Site):
    def __init__(self):
        super().__init__()
        self.broker = GuardedBroker(self.folder)

    def prepare(self):
        self.apply({"A.in": "int", "A.out": "int"}, {FED: {"v": "A.in"}}, {PUBLISHED: {"bufferTime": 0, "fields": {"v": "A.out"}}})
        self.done("dp", "set", "A.out", "5")
        self.before = self.log()

    def as_user(self, user):
        return {"KEL_URL": self.broker.address(user)}

    def plant_publisher(self):
        return self.spawn("kelgw", "kel", "pub", FED, "v=int:7", "--publisher", "boilerhouse", "--repeat", "100000", "--rate", "5",
                          env=self.as_user("boilerhouse"))

    def watcher(self, pattern):
        """mosquitto_sub as the user that may only look: over the port without TLS."""
        process = harness.Process(["mosquitto_sub", "-V", "5", "-h", "127.0.0.1", "-p", self.broker.plain_port, "-u", "watcher",
                                   "-P", self.broker.password("watcher"), "-q", "1", "-t", pattern, "-F", "%t %l"])
        self.processes.append(process)
        return process

    def seen(self, what):
        """Of what the tool sees on the broker, which it reaches however busy the machine is."""
        return self.json("kel", "ls", "--limit", "30", env=self.as_user("kelgw"))[what]

    def received(self):
        (reading,) = self.get("A.in")["elements"]
        return reading["value"], reading["invalid"]

    def sent(self):
        """The gateway's publication as the tool sees it, or nothing."""
        found = [each for each in self.seen("publications") if each["name"] == PUBLISHED]
        return found[0] if found else None

    def flows_both_ways(self, gateway):
        harness.wait_until(lambda: "the value of the plant\n" + gateway.said(), lambda: self.received() == (7, False), 40)
        harness.wait_until(lambda: "the gateway's record\n" + gateway.said(),
                           lambda: (self.sent() or {}).get("state") == "alive", 40)

    def wrote_no_value(self):
        """Whoever is not let in knows only that nothing is current: A.in may have been marked invalid, and nothing else."""
        log = self.log()
        return (log[:len(self.before)] == self.before and self.received()[1]
                and all(written == {"A.in": ("i", None)} for _, _, _, written in log[len(self.before):]))


@pytest.fixture
def site(request):
    here = Guarded()
    try:
        here.start().prepare()
    except BaseException:
        here.close()
        raise
    yield here
    report = getattr(request.node, "report_call", None)
    if report is not None and report.failed:
        for process in [*here.processes, here.broker.process]:
            print(process.said())
    here.close()


def complaints(process):
    return [line for line in process.err if re.search(" kel (warn|error) ", line)]


def one_complaint(gateway, *parts, quiet=3):
    """Exactly one line, with all these parts, and none after it for a while."""
    harness.wait_until(lambda: f"a line with {parts}\n" + gateway.said(), lambda: complaints(gateway), 30)
    harness.holds_for(lambda: "one line, no flood\n" + gateway.said(), lambda: len(complaints(gateway)) == 1 and gateway.running(),
                      quiet)
    for part in parts:
        assert part in complaints(gateway)[0], complaints(gateway)[0]


def test_everybody_does_his_work_with_the_rights_of_the_example(site):
    watcher = site.watcher(f"kel/{harness.GROUP}/data/#")
    gateway = site.gateway()
    publisher = site.plant_publisher()
    site.flows_both_ways(gateway)
    record = json.loads(site.done("kel", "sub", PUBLISHED, "--count", "1", "--for", "20", "--json", env=site.as_user("kelgw"))
                        .splitlines()[-1])
    assert record["fields"] == {"v": {"type": "int", "value": 5}}, record
    harness.wait_until("the watcher to see both",
                       lambda: {line.split(" ")[0] for line in watcher.out}
                       >= {site.broker.topic(FED), site.broker.topic(PUBLISHED)})
    books = site.json("status", "--ledger", "--settle", "0", env=site.as_user("kelgw"))
    assert [row["publication"] for row in books["subscribe"] + books["publish"]] == [FED, PUBLISHED], books
    assert books["subscribe"][0]["publishedBy"] == "publisher", "the publisher shows its books too"
    assert not complaints(gateway), gateway.said()
    assert not complaints(publisher), publisher.said()


REFUSED_AT_THE_DOOR = {
    "no certificate": (lambda b: b.address(cert=None, key=None), "the broker wants a certificate of ours"),
    "a certificate of another authority": (lambda b: b.address(**dict(zip(("cert", "key"), b.strange))),
                                           "the broker does not accept our certificate"),
    "a key of another certificate": (lambda b: b.address(key=b.strange[1]), "does not belong to the certificate"),
    "another name than the certificate has": (lambda b: b.address(host="127.0.0.1"), "is not made out to 127.0.0.1"),
    "an unknown authority of the broker": (lambda b: b.address(ca=b.other.cert), "cannot be trusted by"),
    "a wrong password": (lambda b: b.address(passfile=b.secret("wrong", "open barley")),
                         "Not authorized (code 135); is user gateway known to it"),
    "an unknown user": (lambda b: b.address(user="nobody", passfile=b.secret("nobody", "x")), "is user nobody known to it"),
    "no user": (lambda b: b.address(user=None, passfile=None), "does it want a user and a password"),
    "a password open to others": (lambda b: b.address(passfile=b.secret("open", b.password("gateway"), 0o640)),
                                  "is open to others than its owner (mode 0640): chmod 600 it"),
    "plain text to the port for TLS": (lambda b: b.address(scheme="mqtt"), "if it wants TLS on port"),
    "TLS to the plain port": (lambda b: b.address(port=b.plain_port), "the broker does not speak it on port"),
}


@pytest.mark.parametrize("case", REFUSED_AT_THE_DOOR)
def test_who_is_refused_at_the_door_says_so_once_and_writes_nothing(site, case):
    broker = site.broker
    broker.other = Authority(site.folder, "other")
    broker.strange = broker.other.issue("client", "client")
    make, expected = REFUSED_AT_THE_DOOR[case]
    address = make(broker)
    watcher = site.watcher(site.broker.topic(FED))
    site.plant_publisher()
    harness.wait_until("the publisher", lambda: watcher.out)
    gateway = site.gateway(env={"KEL_URL": address})
    # The tool gives up after some seconds; the gateway is looked at for as long.
    tool = site.spawn("kelgw", "kel", "ls", env={"KEL_URL": address})
    scheme, place = re.match(r"(\w+)://([^?]*)", address).groups()
    one_complaint(gateway, f"{scheme}://{place} cannot be reached: ", expected)
    code = tool.wait(60)
    assert (code, tool.out, len(tool.err)) == (3, [], 1) and expected in tool.err[0], tool.said()
    assert len(complaints(gateway)) == 1 and gateway.running(), gateway.said()
    assert site.wrote_no_value()
    secrets = [broker.password("gateway"), "open barley"]
    assert not any(secret in line for line in [*gateway.err, *gateway.out, *tool.err] for secret in secrets)


@pytest.mark.parametrize("what", ["certificate", "authority", "password", "mode of the password", "mode of the key"])
def test_a_file_put_right_is_enough_to_be_let_in(site, what):
    broker = site.broker
    other = Authority(site.folder, "other")
    copies = {}
    for name, path in {"ca": broker.authority.cert, "cert": broker.client[0], "key": broker.client[1]}.items():
        copies[name] = os.path.join(site.folder, f"copy.{name}")
        with open(path, "rb") as source, open(copies[name], "wb") as copy:
            copy.write(source.read())
        os.chmod(copies[name], 0o600)
    good = {name: open(path, "rb").read() for name, path in copies.items()}
    passfile = broker.secret("copy", broker.password("gateway"))

    def spoil():
        if what == "certificate":
            for name, path in zip(("cert", "key"), other.issue("client", "client")):
                put(copies[name], open(path, "rb").read())
        elif what == "authority":
            put(copies["ca"], open(other.cert, "rb").read())
        elif what == "password":
            broker.secret("copy", "open barley")
        else:
            os.chmod(passfile if "password" in what else copies["key"], 0o644)

    def put(path, data):
        with open(path, "wb") as file:
            file.write(data)

    spoil()
    gateway = site.gateway(env={"KEL_URL": broker.address(passfile=passfile, **copies)})
    one_complaint(gateway, "cannot be reached", "trying again until it can", quiet=1)
    assert site.wrote_no_value()
    for name, data in good.items():
        put(copies[name], data)
    os.chmod(copies["key"], 0o600)
    broker.secret("copy", broker.password("gateway"))
    site.plant_publisher()
    site.flows_both_ways(gateway)
    assert len(complaints(gateway)) == 1, gateway.said()
    assert any("is back after" in line for line in gateway.err), gateway.said()


GROUP_TOPIC = f"kel/{harness.GROUP}"
# What is taken out of the gateway's list, what it says, and whether its publication / its element still work.
RIGHTS = {
    "to write its presence": ([(f"topic write {GROUP_TOPIC}/publisher/KelGateway/#\n", "")],
                              "the broker refused the presence of this publisher: Not authorized (code 135)",
                              f"the right to write {GROUP_TOPIC}/publisher/KelGateway/", False, True),
    "to read presences": ([(f"topic read {GROUP_TOPIC}/publisher/#\n", "")],
                          "takes the presence of this publisher and does not give it back",
                          f"the right to read {GROUP_TOPIC}/publisher/#?", False, False),
    "to write claims": ([(f"topic readwrite {GROUP_TOPIC}/claim/control/#\n", f"topic read {GROUP_TOPIC}/claim/control/#\n")],
                        f"the broker refused the claim on publication {PUBLISHED}: Not authorized (code 135)",
                        f"the right to write {GROUP_TOPIC}/claim/{PUBLISHED}?", False, True),
    "to read claims": ([(f"topic readwrite {GROUP_TOPIC}/claim/control/#\n", f"topic write {GROUP_TOPIC}/claim/control/#\n")],
                       f"the broker refused the claim on publication {PUBLISHED}: it was taken and does not come back",
                       f"the right to read {GROUP_TOPIC}/claim/{PUBLISHED}?", False, True),
    "to publish": ([(f"topic write {GROUP_TOPIC}/data/control/#\n", "")],
                   f"the broker refused a record of publication {PUBLISHED}: Not authorized (code 135)",
                   f"the right to write {GROUP_TOPIC}/data/{PUBLISHED}?", False, True),
}


@pytest.mark.parametrize("right", RIGHTS)
def test_a_right_that_is_missing_is_named_and_works_as_soon_as_it_is_granted(site, right):
    take_out, expected, named, publishes, receives = RIGHTS[right]
    site.broker.allow(take_out=take_out)
    site.plant_publisher()
    gateway = site.gateway()
    one_complaint(gateway, expected, named, f"Asking again every {2 * KEEP_ALIVE} s", quiet=5)
    assert ((site.sent() or {}).get("state") == "alive") == publishes
    if receives:
        harness.wait_until("the other direction", lambda: site.received() == (7, False))
    else:
        assert site.wrote_no_value(), "who is not sure who is alive takes nobody's word"
    site.broker.allow()
    site.flows_both_ways(gateway)
    assert len(complaints(gateway)) == 1, gateway.said()


def test_records_that_the_broker_refuses_are_counted(site):
    site.broker.allow(take_out=[(f"topic write {GROUP_TOPIC}/data/control/#\n", "")])
    gateway = site.gateway()
    one_complaint(gateway, "refused a record", quiet=1)
    for value in (6, 7, 8):
        site.done("dp", "set", "A.out", value)

    def counters():
        publishers = [each for each in site.seen("publishers") if each["name"] == "KelGateway"]
        return publishers[0]["counters"] if publishers else {}
    harness.wait_until(lambda: f"the counters, last {counters()}",
                       lambda: counters().get("refused", 0) >= 4 and counters().get("acknowledged") == 0)
    assert len(complaints(gateway)) == 1, gateway.said()


def test_what_mosquitto_withholds_without_a_word_is_never_shown_as_good(site):
    # Its access list file refuses no subscription: it only does not deliver. Nobody can tell that from a silent publisher.
    publisher = site.plant_publisher()
    site.broker.allow(take_out=[(f"topic read {GROUP_TOPIC}/data/plant/#\n", "")])
    gateway = site.gateway()
    harness.wait_until(lambda: "the gateway's record\n" + gateway.said(), lambda: (site.sent() or {}).get("state") == "alive")
    harness.holds_for("no value is written", site.wrote_no_value, 2)
    site.broker.allow()
    site.flows_both_ways(gateway)
    assert not complaints(gateway), gateway.said()
    assert publisher.running()


def test_a_subscription_that_the_broker_refuses_is_named_and_made_again(site):
    """mosquitto's plug-in for rights that change while it runs: it does refuse a subscription (SUBACK 0x87)."""
    library, = glob.glob("/usr/lib/*/mosquitto_dynamic_security.so")
    broker = site.broker
    broker.stop()
    rules = os.path.join(site.folder, "dynamic.json")
    with open(rules, "w", encoding="utf-8") as file:
        json.dump(dynamic_rules(broker), file)
    os.chmod(rules, 0o600)
    broker.plugin = [f"plugin {library}", f"plugin_opt_config_file {rules}"]
    broker.start()

    def command(*words):
        subprocess.run(["mosquitto_ctrl", "-h", "127.0.0.1", "-p", str(broker.plain_port), "-u", "watcher", "-P",
                        broker.password("watcher"), "dynsec", *words], check=True, capture_output=True, timeout=60)

    site.plant_publisher()
    gateway = site.gateway()
    one_complaint(gateway, f"the broker refused the subscription to {FED}: Not authorized (code 135)",
                  f"the right to read {GROUP_TOPIC}/data/{FED}?", quiet=5)
    assert site.wrote_no_value()
    command("removeRoleACL", "deaf", "subscribePattern", f"{GROUP_TOPIC}/data/plant/#")
    site.flows_both_ways(gateway)
    # The plug-in ends the link of whoever gets other rights.
    assert all("Administrative action" in line for line in complaints(gateway)[1:]), gateway.said()
    assert len(complaints(gateway)) <= 2, gateway.said()


def dynamic_rules(broker):
    def client(user):
        salt, rounds = os.urandom(12), 101
        digest = hashlib.pbkdf2_hmac("sha512", broker.password(user).encode(), salt, rounds)
        roles = [{"rolename": "admin"}] if user == "watcher" else []
        roles += [{"rolename": "all"}] + ([{"rolename": "deaf", "priority": 5}] if user == "gateway" else [])
        return {"username": user, "password": base64.b64encode(digest).decode(), "salt": base64.b64encode(salt).decode(),
                "iterations": rounds, "roles": roles}

    def rule(kind, topic, allow=True, priority=0):
        return {"acltype": kind, "topic": topic, "priority": priority, "allow": allow}

    everything = [rule(kind, "kel/#") for kind in ("publishClientSend", "publishClientReceive", "subscribePattern",
                                                   "unsubscribePattern")]
    control = [rule(kind, "$CONTROL/dynamic-security/#") for kind in ("publishClientSend", "publishClientReceive",
                                                                      "subscribePattern", "unsubscribePattern")]
    deaf = [rule("subscribePattern", f"{GROUP_TOPIC}/data/plant/#", False)]
    return {"defaultACLAccess": {"publishClientSend": False, "publishClientReceive": False, "subscribe": False,
                                 "unsubscribe": False},
            "clients": [client(user) for user in USERS],
            "roles": [{"rolename": "all", "acls": everything}, {"rolename": "admin", "acls": control},
                      {"rolename": "deaf", "acls": deaf}]}
