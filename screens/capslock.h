// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QObject>

/// Tells from the letters that are typed into a field whether Caps Lock is on. Nothing that Qt offers reports the key's
/// state everywhere.
class CapsLock : public QObject
{
    Q_OBJECT
    Q_PROPERTY(QObject *field READ field WRITE setField NOTIFY fieldChanged)
    Q_PROPERTY(bool isOn READ isOn NOTIFY isOnChanged)

public:
    QObject *field() const { return m_field; }
    void setField(QObject *field);
    /// Whether the last letter has had the case that Caps Lock gives it. False before the first one.
    bool isOn() const { return m_isOn; }

    bool eventFilter(QObject *watched, QEvent *event) override;

Q_SIGNALS:
    void fieldChanged();
    void isOnChanged();

private:
    void setOn(bool isOn);

    QObject *m_field = nullptr;
    bool m_isOn = false;
};
