// SPDX-License-Identifier: MIT
#include "caddresswatcher.h"

#include "logline_p.h"

#include <cstdlib>
#include <cstring>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr char lanSwitchPath[] = "/devices/virtual/switch/lan-switch";
constexpr char changeAction[] = "change";

/** The text after @p key at the start of @p string; null if the string does not begin with it. */
const char *valueOf(const char *string, const char *key)
{
    const std::size_t length = std::strlen(key);
    return std::strncmp(string, key, length) == 0 ? string + length : nullptr;
}

bool isLanSwitch(const char *path)
{
    // The terminating NUL is compared too, so only this very path is equal.
    return std::strncmp(path, lanSwitchPath, sizeof lanSwitchPath) == 0;
}

/** Returns false if the event belongs to another device. */
bool decode(const char *message, lan_switch *cdev)
{
    for (const char *string = message; *string; string += std::strlen(string) + 1) {
        if (const char *name = valueOf(string, "SWITCH_NAME=")) {
            cdev->name = name;
        } else if (const char *action = valueOf(string, "ACTION=")) {
            cdev->action = action;
        } else if (const char *path = valueOf(string, "DEVPATH=")) {
            cdev->path = path;
            if (!isLanSwitch(path))
                return false;
        } else if (const char *state = valueOf(string, "SWITCH_STATE=")) {
            cdev->state = qint32(std::strtol(state, nullptr, 10));
        }
    }
    return true;
}

} // namespace

int CAddressWatcher::open_uevent_socket()
{
    const int fd = socket(PF_NETLINK, SOCK_DGRAM, NETLINK_KOBJECT_UEVENT);
    if (fd < 0)
        return -1;
    // Without the capability that this needs, the system's default serves.
    const int receiveBuffer = 64 * 1024;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &receiveBuffer, sizeof receiveBuffer);
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_groups = 0xFFFFFFFF;
    if (bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) < 0) {
        close(fd);
        return -1;
    }
    return fd;
}

void CAddressWatcher::parse_uevent(const char *msg, lan_switch *cdev)
{
    if (!decode(msg, cdev) || !cdev->path)
        return;
    if (!cdev->action) {
        qCritical() << LogPrefix(__func__) << "cdev->action is NULL";
        return;
    }
    if (!isLanSwitch(cdev->path))
        return;
    // Meant: an action that only begins with "change" passes.
    if (!valueOf(cdev->action, changeAction))
        return;

    qWarning() << LogPrefix(__func__)
               << QString("%1 event { name=%2, action=%3, path=%4, state=%5}")
                          .arg(QString(__func__), QString(cdev->name), QString(cdev->action),
                               QString(cdev->path), QString::number(cdev->state));
    Q_EMIT reopen_network(cdev->state);
}
