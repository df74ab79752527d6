// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "screens/capslock.h"

#include <QKeyEvent>

void CapsLock::setField(QObject *field)
{
    if (m_field == field)
        return;
    if (m_field)
        m_field->removeEventFilter(this);
    m_field = field;
    if (m_field) {
        m_field->installEventFilter(this);
        connect(m_field, &QObject::destroyed, this, [this] { m_field = nullptr; });
    }
    Q_EMIT fieldChanged();
}

bool CapsLock::eventFilter(QObject *watched, QEvent *event)
{
    if (event->type() == QEvent::KeyPress) {
        const auto *press = static_cast<QKeyEvent *>(event);
        const QString text = press->text();
        if (press->key() == Qt::Key_CapsLock) {
            setOn(false); // The next letter tells.
        } else if (text.size() == 1 && text.at(0).isLetter() && text.at(0).toLower() != text.at(0).toUpper()) {
            const bool isShifted = press->modifiers().testFlag(Qt::ShiftModifier);
            setOn(text.at(0).isUpper() != isShifted);
        }
    }
    return QObject::eventFilter(watched, event);
}

void CapsLock::setOn(bool isOn)
{
    if (m_isOn == isOn)
        return;
    m_isOn = isOn;
    Q_EMIT isOnChanged();
}
