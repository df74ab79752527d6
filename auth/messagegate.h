// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QByteArray>

/// Follows the D-Bus messages that the client sends. The D-Bus library reads every message into values, whatever it is,
/// in the one thread that serves the system bus too: a megabyte of small values keeps everybody waiting. So the client
/// may send only a few messages for each request, and none that is long, save a text or, less long, a list of texts.
class MessageGate
{
public:
    /// A message begins with the next byte.
    void reset();
    /// Allows the messages that one more request may bring.
    void allowReply() { m_messages = 0; }
    /// Whether the next `size` bytes may be passed on. Once they may not, nothing may.
    bool admits(const char *bytes, int size);

private:
    int headerSize() const;
    bool admitsMessage() const;
    quint32 numberAt(int position) const;

    QByteArray m_header; ///< What has come of it.
    quint32 m_bodyLeft = 0; ///< Bytes of the present message that are still to come.
    int m_messages = 0; ///< Since the last request.
};
