# SPDX-License-Identifier: MIT
"""Somebody records connections, or offers weak ciphers, and hopes for a key exchange without forward secrecy or CBC."""
import ssl

import hosts
import zarvo
from hostile import HostileCase

WEAK = ("AES128-SHA", "AES256-SHA256", "AES128-GCM-SHA256", "AES256-GCM-SHA384", "ECDHE-RSA-AES128-SHA",
        "ECDHE-RSA-AES256-SHA384", "DHE-RSA-AES128-GCM-SHA256")
STRONG = ("ECDHE-RSA-AES128-GCM-SHA256", "ECDHE-RSA-AES256-GCM-SHA384", "ECDHE-RSA-CHACHA20-POLY1305")


def limited_to(context, cipher):
    """The context with this cipher of TLS 1.2 alone."""
    context.maximum_version = ssl.TLSVersion.TLSv1_2
    context.set_ciphers(cipher + ":@SECLEVEL=0")
    return context


class Listener(zarvo.SharedServer):
    def context(self, cipher):
        return limited_to(zarvo.client_context(self.shared.certificate, self.shared.key), cipher)

    def test_weak_ciphers_are_refused(self):
        for cipher in WEAK:
            with self.subTest(cipher=cipher), self.assertRaises((ssl.SSLError, ConnectionError)):
                self.shared.client(context=self.context(cipher))

    def test_strong_ciphers_are_served(self):
        for cipher in STRONG:
            with self.subTest(cipher=cipher), self.shared.client(context=self.context(cipher)) as client:
                self.assertEqual(client.call("Live.GetVersion"), zarvo.VERSION)
                self.assertEqual(client.socket.cipher()[0], cipher)
        with self.shared.client(version=ssl.TLSVersion.TLSv1_3) as client:
            self.assertEqual(client.call("Live.GetVersion"), zarvo.VERSION)


class Query(HostileCase):
    def peer(self, cipher):
        """A peer that holds the certificate and offers one cipher."""
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(*self.pair)
        limited_to(context, cipher)

        def behave(raw):
            with context.wrap_socket(raw, server_side=True) as tls:
                tls.recv(len(hosts.QUERY))
                tls.sendall(hosts.reply([hosts.entry(f"{cipher:>32}")]))
                hosts.wait_hang_up(tls)
        return self.service(behave)

    def test_server_asks_no_peer_with_weak_ciphers(self):
        for count, cipher in enumerate(WEAK, 1):
            self.say(self.message(self.peer(cipher)))
            zarvo.wait_until(lambda count=count: len(self.warnings()) == count, f"the failure with {cipher}")
        self.assertIsNone(self.listed())

    def test_server_asks_peers_with_strong_ciphers(self):
        for cipher in STRONG:
            self.say(self.message(self.peer(cipher)))
        zarvo.wait_until(lambda: len(self.listed() or []) == len(STRONG), "the sessions of the peers")
