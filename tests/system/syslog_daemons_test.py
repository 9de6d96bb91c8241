#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Daemons that know only syslog(3), with libqdul-syslog.so preloaded: each connection to sshd, which runs another
program for it, and each job of cron, which forks for it, is in the log once, from the process that had it."""
import os
import re
import shutil
import socket
import subprocess
import sys
import time
import unittest

from qdul_testing import BUILD, HERE, plain_environment, program, read, write

CONNECTIONS = 200
JOBS = 60
NOBODY = 65534
SSHD = shutil.which("sshd", path="/usr/sbin:/usr/local/sbin")
CRON = shutil.which("cron", path="/usr/sbin:/usr/local/sbin")

if re.search(r"(?m)^QDUL_SANITIZE:STRING=.", read(f"{BUILD}/CMakeCache.txt")):
    print("skipped: a sanitizer's runtime would have to be preloaded into the daemons")
    sys.exit(77)
if not (SSHD and shutil.which("ssh-keygen")) and not (CRON and os.geteuid() == 0):
    print("skipped: neither sshd nor, as root, cron (Debian: openssh-server, cron)")
    sys.exit(77)


class Daemons(unittest.TestCase):
    def setUp(self):
        subprocess.run(["rm", "-rf", "log"], check=True)
        os.mkdir("log")
        write("zoltlog.conf", f"5.Configuration={HERE}/product.conf\n5.Names=server\n")
        write("product.conf", f"Default.LogDirectory={HERE}/log/\nDefault.RolloverMode=FileSize\nDefault.MaxLogFileSizeKB=4\n"
              "20.OIDNames=sshd,sshd-session\n21.OIDNames=cron,CRON\n")
        self.environment = plain_environment(ZOLTLOG_CFG_LOC=f"{HERE}/zoltlog.conf", QDUL_SYSLOG_PRODUCT="server",
                                             LD_PRELOAD=f"{HERE}/libqdul-syslog.so")
        for name in ("libqdul-syslog.so", "libqdul.so.3", "libqdlis.so.3"):
            shutil.copy(f"{BUILD}/lib/{name}", name)

    def records(self, originator):
        """(process, text) of each record."""
        done = subprocess.run([program("qdlogview"), "-q", "--no-pager", "-P", "5", "-u", str(originator), "--template={pid} {text}"],
                              env=plain_environment(ZOLTLOG_CFG_LOC=f"{HERE}/zoltlog.conf"), capture_output=True, text=True)
        self.assertIn(done.returncode, (0, 1), done.stderr)
        return [tuple(line.split(" ", 1)) for line in done.stdout.splitlines()]

    def started(self, *command):
        with open("daemon.out", "wb") as out:
            daemon = subprocess.Popen(command, env=self.environment, stdin=subprocess.DEVNULL, stdout=out, stderr=out)
        self.addCleanup(daemon.wait)
        self.addCleanup(daemon.kill)
        return daemon

    def wait_for(self, condition, what):
        for _ in range(300):
            if condition():
                return
            time.sleep(0.1)
        self.fail(f"{what}: {read('daemon.out')}")

    @unittest.skipUnless(SSHD and shutil.which("ssh-keygen"), "sshd is not installed (Debian: openssh-server)")
    def test_each_connection_to_sshd_is_told_once(self):
        with socket.socket() as free:
            free.bind(("127.0.0.1", 0))
            port = free.getsockname()[1]
        subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", "key"], check=True)
        write("sshd.conf", f"Port {port}\nListenAddress 127.0.0.1\nHostKey {HERE}/key\nPidFile none\nUsePAM no\n"
              f"LogLevel VERBOSE\nMaxStartups {2 * CONNECTIONS}\nPerSourceMaxStartups none\n")
        as_user = []
        if os.geteuid() == 0:  # it asks for a directory of the system when it is root's
            for path in [HERE] + [f"{HERE}/{name}" for name in os.listdir(HERE)]:
                os.chown(path, NOBODY, NOBODY)
            as_user = ["setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", "--clear-groups", "--"]
        daemon = self.started(*as_user, SSHD, "-D", "-f", f"{HERE}/sshd.conf")

        def answers():
            with socket.socket() as probe:
                return daemon.poll() is not None or probe.connect_ex(("127.0.0.1", port)) == 0
        self.wait_for(answers, "sshd does not answer")
        ports = set()
        open_ones = []
        for _ in range(CONNECTIONS):
            connection = socket.create_connection(("127.0.0.1", port))
            ports.add(str(connection.getsockname()[1]))
            connection.sendall(b"SSH-2.0-test\r\n")
            open_ones.append(connection)
            if len(open_ones) == 8:
                for connection in open_ones:
                    connection.recv(64)  # it has begun
                    connection.close()
                open_ones.clear()
        for connection in open_ones:
            connection.close()

        def told():
            return [(pid, match.group(1)) for pid, text in self.records(20)
                    if (match := re.match(r"Connection from 127\.0\.0\.1 port (\d+) on ", text)) and match.group(1) in ports]
        self.wait_for(lambda: len(told()) >= CONNECTIONS, "connections are missing")
        found = told()
        self.assertEqual(sorted(port for _, port in found), sorted(ports))
        self.assertEqual(len({pid for pid, _ in found}), CONNECTIONS)
        self.assertGreater(len([name for name in os.listdir("log") if name.startswith("5-20-")]), 1)
        daemon.terminate()
        daemon.wait(30)
        self.assertTrue(any(text.startswith("Received signal 15") for _, text in self.records(20)))
        print(f"sshd: {CONNECTIONS} connections, {len(found)} found, of {len({pid for pid, _ in found})} processes")

    @unittest.skipUnless(CRON and os.geteuid() == 0, "cron is not installed (Debian: cron), or this is not root")
    def test_each_job_of_cron_is_told_once(self):
        os.mkdir("jobs")
        os.mkdir("none")
        write("crontab", "")
        write("jobs/jobs", "".join(f"@reboot root echo {number} >>{HERE}/done\n" for number in range(JOBS)))
        for path in ("jobs/jobs", "crontab"):
            os.chmod(path, 0o644)
        hidden = "".join(f"[ ! -e {place} ] || mount --bind {HERE}/{own} {place} && " for place, own in
                         (("/etc/cron.d", "jobs"), ("/etc/crontab", "crontab"), ("/var/spool/cron/crontabs", "none")))
        daemon = self.started("unshare", "--mount", "sh", "-c", f"{hidden} mount -t tmpfs none /run && exec {CRON} -f")

        def told():
            return [(pid, match.group(1)) for pid, text in self.records(21)
                    if (match := re.match(rf"\(root\) CMD \(echo (\d+) >>{re.escape(HERE)}/done\)", text))]
        self.wait_for(lambda: len(told()) >= JOBS or daemon.poll() is not None, "jobs are missing")
        found = told()
        self.assertEqual(sorted(int(number) for _, number in found), list(range(JOBS)), read("daemon.out"))
        self.assertEqual(len({pid for pid, _ in found}), JOBS)
        self.wait_for(lambda: os.path.exists("done") and len(read("done").split()) >= JOBS, "jobs are not done")
        self.assertEqual(sorted(map(int, read("done").split())), list(range(JOBS)))
        print(f"cron: {JOBS} jobs done, {len(found)} found, of {len({pid for pid, _ in found})} processes")


if __name__ == "__main__":
    unittest.main()
