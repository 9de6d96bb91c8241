#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""A set-user-id program: its caller's environment names neither its configuration nor its catalogues."""
import os
import re
import subprocess
import sys
import unittest

from qdul_testing import BUILD, HERE, SOURCE, plain_environment, read, write

if os.geteuid() != 0 or re.search(r"(?m)^QDUL_SANITIZE:STRING=.", read(f"{BUILD}/CMakeCache.txt")):
    sys.exit(77)  # only root can make a program another user's; a sanitizer trusts its environment

PROGRAM = r"""
#include <stdarg.h>
#include <stdio.h>
#include <unistd.h>
#include "zoltlog.h"
static void show(const char *format, ...) {
    char text[1000] = "";
    size_t size = sizeof text;
    ZoltLisBlock block = {{0}};
    va_list args;
    va_start(args, format);
    if (zoltLisVEx(&block, 0, 1001, format, args) == 0)
        puts(strncatlis(text, &size, &block));
    va_end(args);
    zoltLisFree(&block);
}
int main(void) {
    printf("%d\n%s\n", geteuid() != getuid(), GetZoltLogCfgLoc());
    show("%s %d", "/var", 93);
    return 0;
}
"""


class SetUserId(unittest.TestCase):
    def test_the_environment_names_no_configuration_and_no_catalogue(self):
        write("program.c", PROGRAM)
        subprocess.run([os.environ.get("CC", "cc"), "-Wall", "-Wextra", "-Werror", "program.c", "-o", "program",
                        f"-I{SOURCE}/include", f"-L{BUILD}/lib", "-lqdul", "-lqdlis", f"-Wl,-rpath,{BUILD}/lib"], check=True)
        os.chmod(HERE, 0o755)
        environment = plain_environment(ZOLTLOG_CFG_LOC=f"{HERE}/main.conf",
                                        QDLIS_CATALOG=f"{BUILD}/share/qdul/catalogue/diskd")

        def said():
            return subprocess.run(["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", f"{HERE}/program"],
                                  env=environment, check=True, capture_output=True, text=True).stdout.splitlines()
        plain = said()
        self.assertEqual(plain[:2], ["0", f"{HERE}/main.conf"])
        self.assertNotIn("Cannot find catalog", plain[2])
        os.chmod("program", 0o4755)
        trusted = said()
        self.assertEqual(trusted[:2], ["1", "/etc/qd/zoltlog.conf"])
        self.assertIn("Cannot find catalog", trusted[2])


if __name__ == "__main__":
    unittest.main()
