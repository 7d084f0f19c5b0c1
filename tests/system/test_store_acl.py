"""packaging/redis-acl.example: each user can do what it must, nothing else, and needs every right that it has."""

import os

import pytest

import harness
import stores
from witness import codec

FUNCTIONS = os.path.join(os.path.dirname(__file__), "..", "..", "pvss", "src", "store", "redis", "functions.lua")
NS = 1_700_000_000_000_000_000


def library():
    with open(FUNCTIONS, encoding="utf-8") as file:
        return file.read()


@pytest.fixture
def guarded(bare_site):
    bare_site.redis = stores.GuardedRedis(bare_site.folder)
    bare_site.redis.start()
    return bare_site


def fcall(name, *arguments):
    return ("FCALL", name, "0", *arguments)


# What a server holds before a user's turn: an element, a writer silent for long, a counter that lost its place (the log
# goes on behind it), a log that is due to be cut.
def prepare(redis):
    redis.commands([
        ("FLUSHALL",), ("FUNCTION", "LOAD", "REPLACE", library()),
        fcall("dp_put", "test", "A.x", "float", "A.y", "float", "A.z", "float"),
        fcall("dp_set", "test", "", "1", "0", "100", "", "A.x", "v1"),
        fcall("dp_hello", "8.m", "8", "100000", "api", "here", "1", "v", "text"),
        ("HSET", "dp:cli", "old", "1 1"), ("ZADD", "dp:cli:use", "1", "old"),
        ("HSET", "dp:mgr:1", "@writer", "1.before"),
        ("XADD", "dp:log", "50", "s", "1 test", "A.x", "v1"), ("SET", "dp:log:bytes", str((1 << 22) - 10)),
        ("RPUSH", "dp:log:marks", "1 3000000"), ("HSET", "dp:cfg", "logBytes", "2000000")])


SIGN_ON = [("PING",), ("ROLE",), ("SELECT", "0")]
LOOK = [
    fcall("dp_version"), ("HGETALL", "dp:cat"), ("INFO", "server"), ("INFO", "memory"), ("GET", "dp:seq"), ("MULTI",),
    ("HGET", "dp:cat", "A.x"), ("HMGET", "dp:d:A.x", "v", "i"), ("EXEC",), ("HMGET", "dp:cat", "A.x"), ("HLEN", "dp:cat"),
    ("HGETALL", "dp:cli"), ("ZRANGE", "dp:cli:use", "0", "-1", "WITHSCORES"), ("XLEN", "dp:log"), ("GET", "dp:log:bytes"),
    ("GET", "dp:log:dropped"), ("HGET", "dp:cfg", "logBytes"), ("XRANGE", "dp:log", "-", "+", "COUNT", "1"),
    ("XREAD", "COUNT", "10", "STREAMS", "dp:log", "0"), fcall("dp_managers")]
DUTIES = {
    "gateway": [
        *SIGN_ON, fcall("dp_version"), fcall("dp_hello", "1.a", "1", "100000", "api", "here", "1", "v", "text"),
        fcall("dp_hello", "1.b", "1", "100000", "api", "here", "1", "v", "text"), fcall("dp_cat"),
        fcall("dp_set", "1.a", "1:1", "1", "0", "200", "", "A.x", "i0v2", "A.y", "v3"),
        fcall("dp_set", "1.a", "1:1", "2", "1", "200", "r", "A.y", "v4"), fcall("dp_snap", "A.x", "A.y"),
        fcall("dp_since", "50"), fcall("dp_beat", "1.a", "1:1", "100000", "state", "running"),
        ("XREAD", "COUNT", "10", "STREAMS", "dp:log", "0"), fcall("dp_bye", "1.a", "1")],
    "tools": [
        *SIGN_ON, *LOOK, ("FUNCTION", "LIST", "LIBRARYNAME", "kelgw", "WITHCODE"), ("FUNCTION", "LOAD", "REPLACE", library()),
        fcall("dp_put", "kelgw.1", "A.x", "int", "B.x", "int"), fcall("dp_del", "kelgw.1", "A.z"),
        fcall("dp_set", "kelgw.1", "", "1", "0", "", "", "B.x", "v5"), ("HSET", "dp:cfg", "logBytes", "268435456")],
    "watcher": [*SIGN_ON, *LOOK],
}


# A right that is missing inside a function has other words than one that is missing outside.
DENIALS = ("NOPERM", "EXECABORT", "can't run this command", "can't access at least one of the keys")


def refused(redis, user, words):
    """Runs one command as the user; the error if it was refused for want of a right, else None."""
    try:
        redis.command(*words, user=user, secret=stores.password(user))
        return None
    except RuntimeError as error:
        assert any(words in str(error) for words in DENIALS), error
        return str(error)


@pytest.mark.parametrize("user", sorted(DUTIES))
def test_every_right_of_a_user_is_needed_and_together_they_are_enough(guarded, user):
    redis = guarded.redis
    rights = stores.example_users()[user]

    def work(words):
        prepare(redis)
        redis.command("ACL", "SETUSER", user, "reset", *words)
        redis.commands(DUTIES[user], user=user, secret=stores.password(user))

    work(rights)
    for right in rights:
        if right[0] not in "+%":
            continue
        with pytest.raises(RuntimeError) as failure:
            work([word for word in rights if word != right])
            print(f"{user} does not need {right}")
        assert any(denial in str(failure.value) for denial in DENIALS), (right, failure.value)
    for right in rights:
        if not right.startswith("%RW~"):
            continue
        with pytest.raises(RuntimeError):
            work(["%R~" + right[4:] if word == right else word for word in rights])
            print(f"{user} does not need to write {right}")


def everything(redis):
    return {key: redis.command("DUMP", key) for key in redis.command("KEYS", "*")}, redis.command("FUNCTION", "DUMP")


FORBIDDEN = [
    ("SET", "other", "x"), ("GET", "other"), ("HGET", "other", "x"), ("KEYS", "*"), ("SCAN", "0"), ("FLUSHALL",), ("FLUSHDB",),
    ("CONFIG", "GET", "*"), ("CONFIG", "SET", "dir", "/tmp"), ("CONFIG", "REWRITE"), ("EVAL", "return 1", "0"),
    ("SCRIPT", "LOAD", "return 1"), ("FUNCTION", "FLUSH"), ("FUNCTION", "DELETE", "kelgw"), ("FUNCTION", "DUMP"),
    ("ACL", "LIST"), ("ACL", "SETUSER", "default", "on"), ("SHUTDOWN",), ("REPLICAOF", "NO", "ONE"),
    ("PSYNC", "?", "-1"), ("MODULE", "LIST"), ("CLIENT", "LIST"), ("CLIENT", "KILL", "TYPE", "normal"), ("MONITOR",), ("SAVE",),
    ("BGREWRITEAOF",), ("PUBLISH", "x", "y"), ("SUBSCRIBE", "x"), ("DEL", "dp:seq", "other"),
    ("RENAME", "dp:cat", "dp:x"), ("EXPIRE", "dp:cat", "1"), ("SLOWLOG", "GET")]
NO_CODE = [("FUNCTION", "LOAD", "REPLACE", "#!lua name=kelgw\nredis.register_function('f', function() return 1 end)"),
           ("FUNCTION", "LIST")]
NO_CATALOGUE = [("DEL", "dp:cat"), fcall("dp_put", "x", "B.x", "int"), fcall("dp_del", "x", "A.x"), ("HSET", "dp:cat", "B.x", "int"),
                ("HDEL", "dp:cat", "A.x"), ("HSET", "dp:cfg", "logBytes", "1")]
NO_MANAGER = [fcall("dp_hello", "9.x", "9", "100", "api", "h", "1", "v", "t"), fcall("dp_beat", "9.x", "9:1", "100", "a", "b"),
              ("HSET", "dp:mgr:1", "a", "b"), fcall("dp_bye", "8.m", "8"), ("ZADD", "dp:mgr", "1", "9")]
# An account has one number: that of another gateway is neither taken nor ended, not even past the functions.
NO_OTHER_NUMBER = [
    fcall("dp_hello", "9.x", "9", "100", "api", "h", "1", "v", "t"), fcall("dp_hello", "10.x", "10", "100", "api", "h", "1", "v", "t"),
    fcall("dp_beat", "8.m", "8:1", "100", "a", "b"), fcall("dp_bye", "8.m", "8"),
    fcall("dp_set", "8.m", "8:1", "9", "0", "1", "", "A.x", "v7"), ("DEL", "dp:mgr:8:lease"),
    ("HSET", "dp:mgr:8:lease", "writer", "1.a"), ("HSET", "dp:mgr:8:owner", "generation", "9"), ("HSET", "dp:mgr:8", "a", "b"),
    ("PEXPIRE", "dp:mgr:8:lease", "1")]
NO_WRITE = [fcall("dp_set", "x", "", "9", "0", "1", "", "A.x", "v7"), fcall("dp_set", "8.m", "8:1", "9", "0", "1", "", "A.x", "v7"),
            ("HSET", "dp:d:A.x", "v", "7"), ("INCR", "dp:seq"), ("XADD", "dp:log", "*", "a", "b"), ("DEL", "dp:d:A.x"),
            ("RPUSH", "dp:log:marks", "x"), ("HSET", "dp:cli", "x", "1 1")]


@pytest.mark.parametrize("user, more", [
    ("gateway", NO_CODE + NO_CATALOGUE + NO_OTHER_NUMBER), ("tools", NO_MANAGER), ("watcher", NO_CODE + NO_CATALOGUE + NO_MANAGER + NO_WRITE)])
def test_what_is_not_a_users_is_refused_and_changes_nothing(guarded, user, more):
    redis = guarded.redis
    prepare(redis)
    before = everything(redis)
    for words in FORBIDDEN + more:
        assert refused(redis, user, words), f"{user} may {words}"
    assert everything(redis) == before


def test_a_restart_brings_everything_back_under_these_users(guarded):
    redis = guarded.redis
    redis.stop()
    redis.settings += ("--appendfsync", "always")
    redis.start()
    prepare(redis)
    redis.commands(DUTIES["gateway"], user="gateway", secret=stores.password("gateway"))
    before = everything(redis)
    redis.kill()
    redis.start()
    assert everything(redis) == before


def test_nobody_enters_without_a_name_or_with_a_wrong_password(guarded):
    with pytest.raises(RuntimeError, match="NOAUTH"):
        harness.Redis.command(guarded.redis, "PING")
    for user in (*stores.USERS, "default"):
        for secret in ("guess", ""):
            with pytest.raises(RuntimeError, match="WRONGPASS"):
                guarded.redis.command("PING", user=user, secret=secret)


def test_the_programs_work_under_these_users_and_say_plainly_what_they_may_not(guarded):
    site = guarded
    site.broker.start()
    as_user = {user: {"PVSS_STORE": site.redis.url_of(user)} for user in ("gateway", "tools", "watcher")}
    plant = site.write("plant.yaml", 'elements: {A.x: int, A.y: int}\n'
                       f'lists: {{clients: {harness.LIST}, publications: {harness.PUBLICATIONS}}}\n'
                       'subscribe: {p: {v: A.x}}\npublish: {q: {fields: {v: A.y}}}\n')
    for user in ("gateway", "watcher"):
        code, _, err = site.tool("apply", plant, env=as_user[user])
        assert code == 1 and "permission" in err and err.count("\n") == 1, err
    site.done("apply", plant, env=as_user["tools"])
    gateway = site.gateway(env=as_user["gateway"])
    site.broker.publish("p", codec.encode({"v": ("int", 5)}, time_ns=NS))

    def value():
        return site.json("dp", "get", "A.x", env=as_user["watcher"])["elements"][0]["value"]

    gateway.wait_for("the value", lambda: value() == 5)
    site.done("dp", "set", "A.y", "6", env=as_user["tools"])
    code, _, err = site.tool("dp", "set", "A.y", "7", env=as_user["watcher"])
    assert code == 1 and "permission" in err and err.count("\n") == 1, err
    for words in (("dp", "ls"), ("status",), ("explain", "A.x")):
        site.done(*words, env=as_user["watcher"])
    assert site.json("dp", "get", "A.y", env=as_user["watcher"])["elements"][0]["value"] == 6
    assert not [line for line in gateway.err if "warning" in line or "error" in line], gateway.said()
