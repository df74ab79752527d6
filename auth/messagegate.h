// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QByteArray>

/// Limits the D-Bus messages that the client may send. The D-Bus library decodes every message, of any type, in the
/// thread that also serves the system bus: a megabyte of small values delays everybody. The client may therefore send
/// only a few messages for each request, and they must be short. Only a string and, with a lower limit, a list of
/// strings may be longer.
class MessageGate
{
public:
    /// Starts again: the next byte begins a message.
    void reset();
    /// Allows the messages for one more request.
    void allowReply() { m_messages = 0; }
    /// Whether the next `size` bytes may be passed on. After the first refusal the link must be closed.
    bool admits(const char *bytes, int size);

private:
    int headerSize() const;
    bool admitsMessage() const;
    quint32 numberAt(int position) const;

    QByteArray m_header; ///< The part of the current message's header received so far.
    quint32 m_bodyLeft = 0; ///< Bytes of the current message's body not received yet.
    int m_messages = 0; ///< Messages since the last request.
};
