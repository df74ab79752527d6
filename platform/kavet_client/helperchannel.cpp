// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "helperchannel.h"

#include <sys/socket.h>
#include <unistd.h>

namespace {

/// A message of one byte with room for a descriptor.
struct Message
{
    char byte = 0;
    iovec data = {&byte, 1};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr header = {};

    Message()
    {
        header.msg_iov = &data;
        header.msg_iovlen = 1;
        header.msg_control = control;
        header.msg_controllen = sizeof(control);
    }
};

} // namespace

bool HelperChannel::send(int socket, Operation operation, int file)
{
    Message message;
    message.byte = operation;
    cmsghdr *const control = CMSG_FIRSTHDR(&message.header);
    control->cmsg_level = SOL_SOCKET;
    control->cmsg_type = SCM_RIGHTS;
    control->cmsg_len = CMSG_LEN(sizeof(int));
    *reinterpret_cast<int *>(CMSG_DATA(control)) = file;
    return sendmsg(socket, &message.header, MSG_NOSIGNAL) == 1;
}

int HelperChannel::progress(int socket)
{
    char steps[Working]; // one byte each
    return int(recv(socket, steps, sizeof(steps), MSG_PEEK | MSG_DONTWAIT));
}

int HelperChannel::receive(int socket, Operation &operation)
{
    Message message;
    const ssize_t size = recvmsg(socket, &message.header, MSG_CMSG_CLOEXEC);
    const cmsghdr *const control = CMSG_FIRSTHDR(&message.header);
    if (size != 1 || !control || control->cmsg_type != SCM_RIGHTS)
        return -1;
    operation = Operation(message.byte);
    return *reinterpret_cast<const int *>(CMSG_DATA(control));
}

bool HelperChannel::reportStep(int socket)
{
    const char byte = 0;
    return write(socket, &byte, sizeof(byte)) == sizeof(byte);
}
