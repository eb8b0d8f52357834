# SPDX-License-Identifier: MIT
"""Measures the service under load, next to a minimal TLS server and to nginx that sends the same bytes."""
import contextlib
import os
import shutil
import socket
import subprocess

import common
import zarvo
from common import PROGRAMS, program

SECONDS = 3
ROUNDS = 3  # the median counts

REQUEST = zarvo.frame('{"jsonrpc":"2.0","id":1,"method":"Live.GetVersion"}').decode()
ANSWER = zarvo.frame('{"id":1,"jsonrpc":"2.0","result":"%s"}\n' % zarvo.VERSION).decode()
HTTP_REQUEST = "GET / HTTP/1.1\r\nHost: localhost\r\n\r\n"

# One process and the same certificates, as for the others. It asks its clients for the same as our server does.
NGINX = """
daemon off; master_process off; pid nginx.pid; error_log stderr error;
events { worker_connections 1024; }
http {
    access_log off; keepalive_requests 1000000000; ssl_session_tickets off;
    client_body_temp_path t; proxy_temp_path t; fastcgi_temp_path t; uwsgi_temp_path t; scgi_temp_path t;
    server {
        listen 127.0.0.1:%d ssl; ssl_certificate %s; ssl_certificate_key %s; ssl_verify_client optional_no_ca;
        location / { default_type application/json; return 200 '%s'; }
    }
}
"""


class Peer:
    """A server under load: its port and its protocol."""

    def __init__(self, pid, port, kind="frames", request=REQUEST):
        self.pid, self.port, self.kind, self.request = pid, port, kind, request

    def run(self, server, connections, kind=None):
        """What load_client prints, and the peer's processor time per operation. Unlike the rate, that time does not
        depend on what else the machine does."""
        before = self.processor_seconds()
        result = program("load_client", self.port, server.certificate, server.key, connections, SECONDS,
                         kind or self.kind, self.request)
        result["cpu_us"] = (self.processor_seconds() - before) / result["operations"] * 1e6
        return result

    def processor_seconds(self):
        fields = zarvo.read(f"/proc/{self.pid}/stat").rpartition(")")[2].split()  # includes threads that have ended
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


@contextlib.contextmanager
def echo(server):
    process = subprocess.Popen([os.path.join(PROGRAMS, "echo_server"), server.certificate, server.key],
                               stdout=subprocess.PIPE)
    try:
        yield Peer(process.pid, int(process.stdout.readline()))
    finally:
        process.kill()
        process.wait()
        process.stdout.close()


@contextlib.contextmanager
def nginx(server):
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        port = probe.getsockname()[1]
    folder = os.path.join(server.top, "nginx")
    os.mkdir(folder)
    zarvo.write(os.path.join(folder, "nginx.conf"), NGINX % (port, server.certificate, server.key, ANSWER))
    process = subprocess.Popen([shutil.which("nginx"), "-p", folder, "-c", "nginx.conf"], stderr=subprocess.DEVNULL)

    def listens():
        with contextlib.suppress(OSError):
            socket.create_connection(("127.0.0.1", port)).close()
            return True
    try:
        zarvo.wait_until(listens, "nginx")
        yield Peer(process.pid, port, "http", HTTP_REQUEST)
    finally:
        process.kill()
        process.wait()


def measure(figures):
    server = common.server()
    try:
        with contextlib.ExitStack() as stack:
            peers = {"zarvo_server": Peer(server.pid, server.port),
                     "epoll + OpenSSL, one thread": stack.enter_context(echo(server))}
            if shutil.which("nginx"):
                peers["nginx, one process"] = stack.enter_context(nginx(server))
            else:
                print("\n(no nginx here, so nothing to compare with but the echo)")
            compare(figures, server, peers, "Live.GetVersion, 1 connection", 1, 6400)
            compare(figures, server, peers, "Live.GetVersion, 16 connections", 16, 36000)
            compare(figures, server, peers, "Full handshakes, 16 at a time", 16, 490, "handshakes")
    finally:
        server.close()


def compare(figures, server, peers, group, connections, aim, kind=None):
    results = {name: [] for name in peers}
    for _ in range(ROUNDS):  # in turn, so that other work on the machine affects all of them
        for name, peer in peers.items():
            results[name].append(peer.run(server, connections, kind))
    for name, rounds in results.items():
        middle = sorted(rounds, key=lambda item: item["per_second"])[len(rounds) // 2]
        figures.add(group, name, round(middle["per_second"]), "per second", aim if name == "zarvo_server" else None,
                    p50_us=round(middle["p50_us"]), p99_us=round(middle["p99_us"]), cpu_us=round(middle["cpu_us"], 1))
