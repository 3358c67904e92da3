// SPDX-License-Identifier: MIT
#ifndef UEVENT_H
#define UEVENT_H

#include <cstring>
#include <linux/netlink.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

/** Hands the kernel uevents, which it tells all that listen in this network namespace. */
class UeventSender
{
public:
    UeventSender()
        : m_fd(socket(PF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT))
    {
    }
    ~UeventSender() { close(m_fd); }
    UeventSender(const UeventSender &) = delete;
    UeventSender &operator=(const UeventSender &) = delete;

    /** @p text is what follows the header: strings, each with its NUL. */
    bool send(const std::string &text) const
    {
        constexpr unsigned short uevent = 16; // the only type that the kernel takes
        nlmsghdr header = {};
        header.nlmsg_len = unsigned(NLMSG_LENGTH(text.size()));
        header.nlmsg_type = uevent;
        header.nlmsg_flags = NLM_F_REQUEST;
        std::string message(reinterpret_cast<const char *>(&header), sizeof header);
        message += text;
        sockaddr_nl kernel = {};
        kernel.nl_family = AF_NETLINK;
        return sendto(m_fd, message.data(), message.size(), 0,
                      reinterpret_cast<const sockaddr *>(&kernel), sizeof kernel)
                == ssize_t(message.size());
    }

private:
    const int m_fd;
};

/** A socket that is told of the kernel's uevents, as the library's is. */
inline int ueventSocket()
{
    const int fd = socket(PF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT);
    const int receiveBuffer = 64 * 1024;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &receiveBuffer, sizeof receiveBuffer);
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_groups = 0xFFFFFFFF;
    if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        return -1;
    return fd;
}

/** Strings with a NUL after each. */
inline std::string strings(std::initializer_list<std::string> list)
{
    std::string all;
    for (const std::string &string : list)
        all.append(string.c_str(), string.size() + 1);
    return all;
}

inline std::string lanSwitchUevent(const std::string &state)
{
    const std::string path = "/devices/virtual/switch/lan-switch";
    return strings({ "change@" + path, "ACTION=change", "DEVPATH=" + path, "SUBSYSTEM=switch",
                     "SWITCH_NAME=lan-switch", "SWITCH_STATE=" + state });
}

/** What a disk on the USB tells of itself. */
inline std::string otherUevent()
{
    const std::string path = "/devices/pci0000:00/0000:00:14.0/usb1/1-1/1-1:1.0/host2/target2:0:0";
    return strings({ "change@" + path, "ACTION=change", "DEVPATH=" + path, "SUBSYSTEM=scsi",
                     "DEVTYPE=scsi_target", "DRIVER=usb-storage", "PRODUCT=781/5567/126",
                     "TYPE=0/0/0", "INTERFACE=8/6/80", "BUSNUM=001", "DEVNUM=004" });
}

/** The text behind @p key among the strings of a message that ends with a NUL; null without one. */
inline const char *ueventValue(const char *message, const char *key)
{
    const std::size_t length = std::strlen(key);
    for (const char *string = message; *string; string += std::strlen(string) + 1) {
        if (std::strncmp(string, key, length) == 0)
            return string + length;
    }
    return nullptr;
}

#endif
