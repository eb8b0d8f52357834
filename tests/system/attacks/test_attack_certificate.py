# SPDX-License-Identifier: MIT
"""A stranger who can write to the folder of certificate and key plants a pair of his own."""
import os
import shutil
import subprocess
import tempfile

import accounts
import ctl
import zarvo


def setUpModule():
    accounts.need_accounts()


def plant(folder, pair):
    for source, name in zip(pair, ("server_cert", "server_key")):
        target = os.path.join(folder, name)
        if os.path.lexists(target):
            os.rename(target, target + ".old")
        shutil.copyfile(source, target)


class PlantedPair(accounts.AccountTestCase):
    """UserPath is "STATE/host". Certificate and key are in STATE."""

    def setUp(self):
        self.state = tempfile.mkdtemp(prefix="zarvo-state-", dir="/tmp")
        self.addCleanup(shutil.rmtree, self.state, True)
        self.instance = self.prepare({"UserPath": os.path.join(self.state, "host")}, account=self.owner)
        self.instance.path = os.path.join(self.state, "host")
        self.instance.certificate = os.path.join(self.state, "server_cert")
        self.instance.key = os.path.join(self.state, "server_key")
        os.mkdir(self.instance.path, 0o700)
        self.owner.own(self.state)
        os.chmod(self.state, 0o755)
        pair = tempfile.mkdtemp(prefix="zarvo-planted-", dir="/tmp")
        self.addCleanup(shutil.rmtree, pair, True)
        self.planted = zarvo.make_certificate(pair)
        self.stranger.own(pair)

    def plant(self):
        self.stranger.call(plant, self.state, self.planted)
        self.planted_bytes = zarvo.read(self.instance.certificate)

    def assert_refuses(self, reason, name="server_key"):
        launch = self.instance.start(check=False)
        path = self.instance.path + "/../" + name
        self.assertRegex(launch.stderr, rf'Critical: The file "{path}" is not used: {reason}\n\Z')
        self.assertFalse(os.path.exists(self.instance.port_file))
        result = self.zarvoctl("list")
        self.assertEqual(result.returncode, ctl.NO_SERVER, result.stderr)
        self.assertIn("is not used", result.stderr)

    def zarvoctl(self, *arguments):
        return subprocess.run([accounts.program(ctl.CTL), *arguments], env=self.instance.environment,
                              capture_output=True, text=True, timeout=zarvo.DEADLINE, check=False,
                              stdin=subprocess.DEVNULL, cwd="/", **self.owner.identity())

    def test_folder_that_everybody_can_write_to(self):
        os.chmod(self.state, 0o777)
        self.plant()
        self.assert_refuses(rf'others can write to "{self.state}" \(mode 0777\)')

    def test_folder_above_that_everybody_can_write_to(self):
        inner = os.path.join(self.state, "inner")
        os.rename(self.instance.path, self.state + "-host")
        os.makedirs(inner)
        os.rename(self.state + "-host", os.path.join(inner, "host"))
        self.instance.settings["UserPath"] = self.instance.path = os.path.join(inner, "host")
        self.instance.write_settings()
        self.owner.own(self.state)
        os.chmod(self.state, 0o777)
        for source, name in zip(self.planted, ("server_cert", "server_key")):
            shutil.copyfile(source, os.path.join(inner, name))
        self.owner.own(inner)
        self.assert_refuses(rf'others can write to "{self.state}" \(mode 0777\)')

    def test_folder_that_a_foreign_group_can_write_to(self):
        for source, name in zip(self.planted, ("server_cert", "server_key")):
            shutil.copyfile(source, os.path.join(self.state, name))
        self.owner.own(self.state)
        os.chown(self.state, self.owner.uid, self.stranger.uid)
        os.chmod(self.state, 0o770)
        self.assert_refuses(rf'others can write to "{self.state}" \(mode 0770\)')

    def test_strangers_pair_in_a_sticky_folder(self):
        os.chmod(self.state, 0o1777)
        self.plant()
        self.assert_refuses(rf'"{self.state}/server_key" belongs to another user \({self.stranger.uid}\)')

    def test_symlink_of_the_stranger(self):
        os.chmod(self.state, 0o1777)
        for source, name in zip(self.planted, ("cert", "key")):
            shutil.copyfile(source, os.path.join(self.instance.path, name))
        self.owner.own(self.instance.path)
        for name in ("cert", "key"):
            self.stranger.call(os.symlink, os.path.join(self.instance.path, name),
                               os.path.join(self.state, "server_" + name))
        self.assert_refuses(rf'"{self.state}/server_key" belongs to another user \({self.stranger.uid}\)')

    def test_zarvoctl_uses_no_pair_that_others_can_replace(self):
        self.instance.start()
        os.chmod(self.state, 0o777)
        result = self.zarvoctl("list")
        self.assertEqual(result.returncode, ctl.REFUSED, result.stderr)
        self.assertIn(f'others can write to "{self.state}" (mode 0777)', result.stderr)
        self.assertEqual(self.zarvoctl("doctor").returncode, ctl.NEGATIVE)

    def test_no_pair_is_made_where_others_can_replace_it(self):
        os.chmod(self.state, 0o777)
        launch = self.instance.start(check=False)
        self.assertIn(f'others can write to "{self.state}" (mode 0777)', launch.stderr)
        self.assertEqual(sorted(os.listdir(self.state)), ["host"])

    def test_own_pair_in_a_sticky_folder_is_used(self):
        os.chmod(self.state, 0o1777)
        self.instance.start()
        self.owner.own(self.instance.certificate)
        self.assertEqual(os.stat(self.instance.key).st_uid, self.owner.uid)
        self.assert_serves(self.instance)

    def test_key_that_others_can_read_is_a_warning(self):
        self.instance.start()
        self.instance.stop()
        os.chmod(self.instance.key, 0o644)
        self.instance.start()
        self.assert_serves(self.instance)
        path = self.instance.path + "/../server_key"
        self.assertEqual(self.instance.logged(
            "Warning", f'Others can read the private key in file "{path}" (mode 0644)'), 1)

    def test_missing_and_invalid_files_keep_their_texts(self):
        path = self.instance.path + "/../server_key"
        self.instance.start()
        self.instance.stop()
        os.unlink(self.instance.key)
        self.assertTrue(self.instance.start(check=False).stderr.endswith(
            f'Critical: Failed to open the file "{path}": No such file or directory\n'))
        zarvo.write(self.instance.key, "no key")
        self.owner.own(self.instance.key)
        self.assertTrue(self.instance.start(check=False).stderr.endswith(
            f'Critical: Invalid private key in file "{path}"\n'))
