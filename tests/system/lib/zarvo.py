# SPDX-License-Identifier: MIT
"""Starts zarvo_server in a home directory of its own and speaks to it as a client does.

    class Example(zarvo.TestCase):
        def test_version(self):
            server = self.server()
            self.assertEqual(server.client().call("Live.GetVersion"), zarvo.VERSION)

Each server has its own HOME, USER, TMPDIR and display numbers, so any number of tests can run side by side.
ZARVO_BUILD_DIR names the build folder. The names of the modules beside it are offered here as well.
"""
import unittest

from basics import (BINARY, BUILD, DAY, DEADLINE, HERE, HOST, LIBEXEC, ROOT, VERSION, alive, mode, need_inspection, new_id,
                    parent, read, wait_until, write)
from client import Client, RpcError, client_context, compact, frame
from displays import Displays
from launch import Launch
from server import THREAD_EVENT, Server, make_certificate


class TestCase(unittest.TestCase):
    maxDiff = None

    def prepare(self, *arguments, **how):
        """A server that is not started yet. It and its files are removed after the test."""
        server = Server(*arguments, **how)
        self.addCleanup(server.close)
        return server

    def server(self, *arguments, **how):
        server = self.prepare(*arguments, **how)
        server.start()
        return server

    def assert_fails(self, code, message, function, *arguments):
        """The call fails with exactly this error object."""
        with self.assertRaises(RpcError) as caught:
            function(*arguments)
        self.assertEqual(caught.exception.error, {"code": code, "message": message})

    def assert_serves(self, server):
        with server.client() as client:
            self.assertEqual(client.call("Live.GetVersion"), VERSION)


class SharedServer(TestCase):
    """Tests that share one running server, because they leave nothing behind in it."""

    settings = None

    @classmethod
    def setUpClass(cls):
        cls.shared = Server(cls.settings)
        cls.addClassCleanup(cls.shared.close)
        cls.shared.start()

    def setUp(self):
        self.client = self.shared.client()
        self.addCleanup(self.client.close)
