#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Checks what the built library exports, what it needs and what it leaves to the dynamic linker.

  tests/unit/exports.py [--sanitized] LIBRARY
"""

import os
import re
import subprocess
import sys
import unittest

FUNCTIONS = {
    "Hoplane": [
        "Hoplane(QObject*)",
        "~Hoplane()",
        "instance()",
        "saveSwitchInfoToFile(bool, QString, QString, QString, QString)",
        "saveConnectionName(QString)",
        "saveFirstLocalInoToFile(bool, QString, QString, QString, QString, QString)",
        "saveSecondLocalInfoToFile(bool, QString, QString, QString, QString, QString)",
        "loadSwitchLocalConfig()",
        "switchBegin()",
        "switchSuccess(QString, QString)",
        "switchFailed(QString, int)",
        "sendCurrentServerip(QString)",
        "start()",
        "networkOnline(bool)",
        "networkChanged(QNetworkConfiguration const&)",
        "networkAdd(QNetworkConfiguration const&)",
        "networkRemove(QNetworkConfiguration const&)",
        "onIpChanged()",
    ],
    "NetworkSwitchWorker": [
        "NetworkSwitchWorker(QObject*)",
        "~NetworkSwitchWorker()",
        "startStatisticsTimer()",
        "stopStatisticsTimer()",
        "IsSameAsCurConfig()",
        "filterInvalidIP(QHostAddress const&)",
        "loadConfig()",
        "tryConnectRemote(QString, QString, int, int)",
        "getIPAddress()",
        "getCurrentAdapterName(QString const&, QString&, QNetworkInterface&)",
        "findAvailableIp()",
        "doConnetServer()",
        "doConnetFirstServer()",
        "doConnetSecondServer()",
        "excuCmd(char const*, char*)",
        "getNetWorkUuid(QString&)",
        "setLocalIpAuto()",
        "setStaticIpAddr(QString, QString, QString, QString, QString)",
        "setFirstStaticIpAddr()",
        "setSecondStaticIpAddr()",
        "mySwitchBegin()",
        "mySwitchSuccess(QString, QString)",
        "mySwitchFailed(QString, int)",
        "finished()",
        "ipChanged()",
        "start()",
        "resume()",
        "pause()",
        "onSendCurrentServerip(QString)",
        "slotAddressChanged()",
        "slotNetWorkDown()",
        "slotReopen_network(int)",
        "slotTryRefreshNetwork()",
        "timerEvent(QTimerEvent*)",
    ],
    "CAddressWatcher": [
        "CAddressWatcher(QObject*)",
        "~CAddressWatcher()",
        "goToEnd()",
        "open_uevent_socket()",
        "parse_uevent(char const*, lan_switch*)",
        "addressChanged()",
        "netWorkdown()",
        "reopen_network(int)",
        "slotFinish()",
        "run()",
    ],
}

# What every QObject class brings with it.
META_OBJECT = ["metaObject() const", "qt_metacast(char const*)",
               "qt_metacall(QMetaObject::Call, int, void**)", "staticMetaObject"]

RUNTIME = {"libQt5Core.so.5", "libQt5Network.so.5", "libstdc++.so.6", "libgcc_s.so.1", "libm.so.6",
           "libc.so.6"}
SANITIZERS = re.compile(r"lib([atl]|ub)san\.so\.\d+")

# The functions that a test answers in place of the system.
INTERPOSED = ["socket", "setsockopt", "bind", "recv", "read", "popen",
              "QThread::sleep(unsigned long)", "QThread::msleep(unsigned long)",
              "QDateTime::currentDateTime()", "QSysInfo::currentCpuArchitecture()"]
RENAMED = re.compile(r"_*(socket|setsockopt|bind|recv|recvfrom|read|popen|_IO_popen)(64)?(_chk)?$")

library = ""
sanitized = False


def output(*command):
    return subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True,
                          env=dict(os.environ, LC_ALL="C")).stdout


def dynamic_entries(kind):
    return re.findall(rf"\({kind}\).*\[(.*)\]", output("readelf", "-d", "-W", library))


def symbols(*options):
    """The dynamic symbols as pairs of the type letter and the name with its version."""
    lines = output("nm", "-D", *options, library).splitlines()
    return [re.match(r"[0-9a-f ]{16,17} (\S) (.*)", line).groups() for line in lines]


def without_version(name):
    return re.sub(r"@@?[A-Za-z_]+[0-9._A-Za-z]*$", "", name)


def promised(name):
    yield from (f"{kind} for {name}" for kind in ("typeinfo", "typeinfo name", "vtable"))
    yield from (f"{name}::{member}" for member in FUNCTIONS[name] + META_OBJECT)


class Exports(unittest.TestCase):
    maxDiff = None

    def exported(self, *options):
        return [(kind, name) for kind, name in symbols("--defined-only", *options) if kind != "A"]

    def test_each_promised_name_and_nothing_else(self):
        names = {without_version(name) for _, name in self.exported("-C")}
        self.assertEqual(sorted(names), sorted(name for of in FUNCTIONS for name in promised(of)))

    def test_both_forms_of_each_constructor_and_destructor(self):
        mangled = {without_version(name) for _, name in self.exported()}
        for name in FUNCTIONS:
            stem = f"_ZN{len(name)}{name}"
            for form in ("C1EP7QObject", "C2EP7QObject", "D0Ev", "D1Ev", "D2Ev"):
                self.assertIn(stem + form, mangled)

    def test_each_name_carries_the_interface_version(self):
        for _, name in self.exported():
            self.assertTrue(name.endswith("@@HOPLANE_1"), name)
        versions = [name for kind, name in symbols("--defined-only") if kind == "A"]
        self.assertEqual([without_version(name) for name in versions], ["HOPLANE_1"])

    def test_soname(self):
        self.assertEqual(dynamic_entries("SONAME"), ["libhoplane.so.1"])

    def test_needs_qt_core_and_network_and_the_runtime_only(self):
        needed = set(dynamic_entries("NEEDED"))
        if sanitized:
            needed = {name for name in needed if not SANITIZERS.fullmatch(name)}
        self.assertLessEqual(needed, RUNTIME)
        self.assertLessEqual({"libQt5Core.so.5", "libQt5Network.so.5"}, needed)

    def test_interposed_functions_are_called_under_their_plain_names(self):
        undefined = [without_version(name) for _, name in symbols("--undefined-only", "-C")]
        for name in INTERPOSED:
            self.assertIn(name, undefined)
        others = [name for name in undefined
                  if RENAMED.fullmatch(name) and name not in INTERPOSED]
        self.assertEqual(others, [])


if __name__ == "__main__":
    arguments = sys.argv[1:]
    sanitized = "--sanitized" in arguments
    files = [argument for argument in arguments if argument != "--sanitized"]
    if len(files) != 1:
        sys.exit(__doc__)
    library = files[0]
    unittest.main(argv=sys.argv[:1])
