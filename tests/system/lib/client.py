# SPDX-License-Identifier: MIT
"""A client of the server: frames of JSON over TLS."""
import json
import socket
import ssl
import time

from basics import DEADLINE


def compact(value):
    """The JSON text that the server writes for a value."""
    return json.dumps(value, sort_keys=True, separators=(",", ":"), ensure_ascii=False) + "\n"


def frame(payload):
    """One frame. A value that is neither text nor bytes is sent as JSON."""
    if not isinstance(payload, (str, bytes)):
        payload = json.dumps(payload)
    data = payload.encode() if isinstance(payload, str) else payload
    return b"%d:%s," % (len(data), data)


class RpcError(Exception):
    def __init__(self, error):
        super().__init__(error)
        self.error = error


class Client:
    """A TLS connection. It keeps the notifications that arrive between answers in a list, in their order."""

    def __init__(self, port, certificate=None, key=None, version=None, session=None, context=None, timeout=DEADLINE):
        self.context = context or client_context(certificate, key, version)
        self.buffer = b""
        self.notifications = []
        self.next_id = 1
        raw = socket.create_connection(("127.0.0.1", port), timeout)
        try:
            raw.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            self.local_port = raw.getsockname()[1]
            self.socket = self.context.wrap_socket(raw, session=session)
        except BaseException:
            raw.close()
            raise

    def close(self):
        self.socket.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def send_raw(self, data):
        self.socket.sendall(data)

    def send(self, payload):
        self.send_raw(frame(payload))

    def frame(self):
        """The payload of the next frame. Raises EOFError if the server closes the connection."""
        while True:
            head, colon, rest = self.buffer.partition(b":")
            if colon:
                length = int(head)
                if len(rest) > length:
                    if rest[length:length + 1] != b",":
                        raise AssertionError(f"no comma behind a frame of the server: {rest[:200]}")
                    self.buffer = rest[length + 1:]
                    return rest[:length]
            try:
                data = self.socket.recv(65536)
            except (ssl.SSLEOFError, ConnectionResetError):
                data = b""
            if not data:
                raise EOFError(f"closed by the server; left over: {self.buffer[:200]}")
            self.buffer += data

    def answer_bytes(self):
        """The payload of the next answer, as bytes. Notifications before it are kept."""
        while True:
            payload = self.frame()
            message = json.loads(payload)
            if isinstance(message, list) or "method" not in message:
                return payload
            self.notifications.append(message)

    def answer(self):
        return json.loads(self.answer_bytes())

    def request(self, payload):
        """Sends one payload as it is and returns the next answer."""
        self.send(payload)
        return self.answer()

    def call(self, method, params=None):
        """The result of a method. Raises RpcError if the method fails."""
        return self.finish(self.begin(method, params))

    def begin(self, method, params=None):
        """Sends the request only; finish() takes the answer."""
        request = {"id": self.next_id, "jsonrpc": "2.0", "method": method}
        if params is not None:
            request["params"] = params
        self.next_id += 1
        self.send(request)
        return request["id"]

    def finish(self, request_id):
        answer = self.answer()
        if answer.get("id") != request_id or answer.get("jsonrpc") != "2.0":
            raise AssertionError(f"an answer to request {request_id} was due: {answer}")
        if "error" in answer:
            raise RpcError(answer["error"])
        return answer["result"]

    def listing(self, method="Live.ListLocalSessions"):
        """The answer of a listing. Retries if the listing failed because a session ended meanwhile."""
        while True:
            try:
                return self.call(method)
            except RpcError as error:
                if error.error["code"] != -32094:
                    raise

    def local_sessions(self):
        return self.listing() or []

    def notification(self):
        """The next notification. Do not call it while an answer is due."""
        if not self.notifications:
            self.notifications.append(json.loads(self.frame()))
        return self.notifications.pop(0)

    def wait_notification(self, condition, what):
        """Reads notifications until the condition holds for the params of one, and returns these params."""
        end = time.monotonic() + DEADLINE
        while time.monotonic() < end:
            params = self.notification()["params"]
            if condition(params):
                return params
        raise AssertionError(f"waited for a notification: {what}")

    def wait_closed(self):
        """Reads until the server closes the connection, and returns all bytes that came before."""
        received, self.buffer = self.buffer, b""
        while True:
            try:
                data = self.socket.recv(65536)
            except (ssl.SSLEOFError, ssl.SSLZeroReturnError, ConnectionResetError, BrokenPipeError):
                data = b""
            if not data:
                return received
            received += data


def client_context(certificate=None, key=None, version=None):
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    context.check_hostname = False
    context.verify_mode = ssl.CERT_NONE
    if certificate:
        context.load_cert_chain(certificate, key)
    if version:
        context.minimum_version = context.maximum_version = version
    return context
