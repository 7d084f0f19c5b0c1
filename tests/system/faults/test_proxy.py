"""The link that can fail does what the scenarios say it does."""

import os
import select
import socket
import sys
import threading
import time

import pytest

import harness
import recorders

HERE = os.path.dirname(os.path.abspath(__file__))
SHORT = 0.3


@pytest.fixture
def link():
    """A server that we hold in our hands, behind the proxy."""
    server = socket.create_server(("127.0.0.1", 0))
    port = harness.free_port()
    process = recorders.TimedProcess([sys.executable, "-B", os.path.join(HERE, "proxy.py"), f"127.0.0.1:{port}",
                                      f"127.0.0.1:{server.getsockname()[1]}"], stdin=True)
    orders = 0

    class Link:
        def __init__(self):
            self.port = port

        def order(self, text):
            nonlocal orders
            orders += 1
            process.order(text)
            process.wait_for(text, lambda: len(process.out) >= orders)

        def connect(self):
            client = socket.create_connection(("127.0.0.1", port), 5)
            return client, server.accept()[0]

    here = Link()
    here.order("pass")
    yield here
    process.kill()
    server.close()


def silent(link, seconds=SHORT):
    return not select.select([link], [], [], seconds)[0]


def read(link, count):
    link.settimeout(10 * harness.PATIENCE)
    data = b""
    while len(data) < count:
        more = link.recv(count - len(data))
        assert more, data
        data += more
    return data


def test_what_comes_goes_both_ways_and_an_end_is_an_end(link):
    client, server = link.connect()
    client.sendall(b"there")
    assert read(server, 5) == b"there"
    server.sendall(b"and back")
    assert read(client, 8) == b"and back"
    server.close()
    client.settimeout(5 * harness.PATIENCE)
    with pytest.raises(ConnectionResetError):
        client.recv(1)


def test_a_held_link_says_nothing_at_all_and_then_goes_on_without_a_byte_lost(link):
    client, server = link.connect()
    link.order("hold")
    client.sendall(b"a" * 100)
    server.sendall(b"b" * 100)
    assert silent(client) and silent(server, 0.01)
    late = socket.create_connection(("127.0.0.1", link.port), 5)
    late.sendall(b"c")
    assert silent(late)
    link.order("pass")
    assert read(server, 100) == b"a" * 100
    assert read(client, 100) == b"b" * 100


def test_one_that_gave_up_while_the_link_was_held_is_told_about_afterwards(link):
    client, server = link.connect()
    link.order("hold")
    client.close()
    assert silent(server), "nobody tells the server"
    link.order("pass")
    server.settimeout(5 * harness.PATIENCE)
    try:
        assert server.recv(1) == b""
    except ConnectionResetError:
        pass


def test_a_refusing_link_resets_what_is_open_and_takes_nothing_new(link):
    client, _ = link.connect()
    link.order("refuse")
    client.settimeout(5 * harness.PATIENCE)
    with pytest.raises(ConnectionResetError):
        client.recv(1)
    with pytest.raises(ConnectionRefusedError):
        socket.create_connection(("127.0.0.1", link.port), 1)
    link.order("pass")
    client, server = link.connect()
    client.sendall(b"x")
    assert read(server, 1) == b"x"


def test_a_throttled_link_passes_no_more_than_it_should_and_makes_the_sender_wait(link):
    client, server = link.connect()
    link.order("rate 100000")
    total = 8_000_000
    sent = []

    def send():
        client.setblocking(True)
        try:
            client.sendall(b"z" * total)
            sent.append(True)
        except OSError:
            pass

    sender = threading.Thread(target=send, daemon=True)
    began = time.monotonic()
    sender.start()
    read(server, 50_000)
    took = time.monotonic() - began
    assert 0.3 < took, f"50,000 bytes came in {took:.2f} s"
    assert not sent, "an endless buffer would have taken everything"
    link.order("pass")
    read(server, total - 50_000)


def test_a_delayed_link_gives_everything_later_and_in_order(link):
    client, server = link.connect()
    link.order("delay 200")
    began = time.monotonic()
    for number in range(10):
        client.sendall(b"%d" % number)
    assert read(server, 10) == b"0123456789"
    assert time.monotonic() - began >= 0.2
