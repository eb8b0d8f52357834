# SPDX-License-Identifier: MIT
"""What the tests of strangers at the front door share."""
import os
import socket
import ssl

import accounts
import agentsession
import hosts
import network
import rfb
import server
import zarvo

CERTIFICATE_FOLDER = ".zarvo_server"


def need_strangers():
    """Call it in setUpModule()."""
    accounts.need_accounts()
    hosts.need_namespaces()


def context(certificate, version=None, ciphers=None):
    made = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    made.check_hostname = False
    made.load_verify_locations(certificate)
    if version:
        made.minimum_version = made.maximum_version = version
    if ciphers:
        made.set_ciphers(ciphers)
    return made


class DoorTestCase(accounts.AccountTestCase, agentsession.AgentTestCase):
    """A session of the owner on one host, and an enemy's host at the other end of the cable."""

    def setUp(self):
        self.cable = network.Cable(self)

    def session(self, settings="", certificate=True):  # pylint: disable=arguments-differ
        made = super().session(account=self.owner)
        folder = os.path.join(made.home, ".config", "Halvorn Media")
        os.makedirs(folder)
        zarvo.write(os.path.join(folder, "Zarvo Agent.conf"), "[General]\n" + settings)
        os.makedirs(os.path.join(made.home, CERTIFICATE_FOLDER, self.cable.near.name))  # as the server has it
        if certificate:
            made.certificate, made.key = server.make_certificate(os.path.join(made.home, CERTIFICATE_FOLDER))
        self.owner.own(made.directory)
        self.cable.near.run(made.start)
        return made

    def at_home(self, session, password=None, **how):
        """A viewer of the owner on the session's host."""
        viewer = self.cable.near.run(lambda: session.connect(password, **how))
        self.addCleanup(viewer.close)
        return viewer

    def from_afar(self, session, password=None, source=network.THERE, **how):
        """A viewer on the other host."""
        def connect():
            connection = socket.create_connection((network.HERE, session.port), zarvo.DEADLINE, (source, 0))
            return rfb.Client(None, None, password or session.new_password(), connection=connection, **how)
        viewer = self.cable.far.run(connect)
        self.addCleanup(viewer.close)
        return viewer

    def raw_from_afar(self, session, source=network.THERE):
        connection = self.cable.far.run(socket.create_connection, (network.HERE, session.port), zarvo.DEADLINE,
                                        (source, 0))
        self.addCleanup(connection.close)
        return connection
