// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "device/screen.h"

#include "device/installed.h"

#include <QQmlEngine>
#include <QTest>

#include <array>
#include <csignal>
#include <sys/prctl.h>
#include <unistd.h>

namespace {

constexpr int Patience = 15000; // milliseconds

} // namespace

void startDisplay()
{
    int pipe[2];
    if (::pipe(pipe) != 0)
        qFatal("No pipe");
    if (fork() == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const QByteArray descriptor = QByteArray::number(pipe[1]);
        execlp("Xvfb", "Xvfb", "-displayfd", descriptor.constData(), "-screen", "0", "1600x1200x24", "-nolisten", "tcp",
               nullptr);
        _exit(1);
    }
    close(pipe[1]);
    std::array<char, 16> number = {};
    if (read(pipe[0], number.data(), number.size() - 1) <= 0)
        qFatal("Xvfb does not start");
    qputenv("DISPLAY", ':' + QByteArray(number.data()).trimmed());
    qputenv("QT_QPA_PLATFORM", "xcb");
    qputenv("QT_QUICK_BACKEND", "software");
}

Shown::Shown(uint user, const QSize &size, bool isDark)
    : screen(Installed::screens, user)
    , m_window(screen, Installed::screens, isDark)
{
    if (!m_window.show(false))
        qFatal("No window");
    QObject::connect(qmlEngine(window()), &QQmlEngine::warnings, window(), [this](const QList<QQmlError> &warnings) {
        for (const QQmlError &warning : warnings)
            m_warnings << warning.toString();
    });
    window()->resize(size);
    if (!QTest::qWaitForWindowActive(window()))
        qFatal("The window does not appear");
}

void Shown::visit(const std::function<void(QQuickItem *)> &visit) const
{
    const std::function<void(QQuickItem *)> descend = [&](QQuickItem *item) {
        if (!item->isVisible() || item->opacity() == 0)
            return;
        visit(item);
        const QList<QQuickItem *> children = item->childItems();
        for (QQuickItem *child : children)
            descend(child);
    };
    descend(window()->contentItem());
}

QQuickItem *Shown::look(const QString &name) const
{
    QQuickItem *found = nullptr;
    visit([&](QQuickItem *item) {
        if (item->objectName() == name)
            found = item;
    });
    return found;
}

QQuickItem *Shown::find(const QString &name) const
{
    if (!QTest::qWaitFor([&] { return look(name) != nullptr; }, Patience))
        qWarning("There is no '%s' in:\n%s", qPrintable(name), qPrintable(allText()));
    return look(name);
}

bool Shown::shows(const QString &name) const
{
    return look(name) != nullptr;
}

QString Shown::text(const QString &name) const
{
    const QQuickItem *item = look(name);
    return item ? item->property("text").toString() : QString();
}

QString Shown::allText() const
{
    QStringList texts;
    visit([&](QQuickItem *item) {
        if (item->inherits("QQuickText") && !item->property("text").toString().isEmpty())
            texts << item->property("text").toString();
    });
    return texts.join(QLatin1Char('\n'));
}

bool Shown::click(const QString &name)
{
    // The end of an attempt is shown a moment before its parts are enabled.
    const auto isEnabled = [&] {
        const QQuickItem *item = look(name);
        return item && item->isEnabled();
    };
    if (!QTest::qWaitFor(isEnabled, Patience)) {
        qWarning("'%s' cannot be clicked in:\n%s", qPrintable(name), qPrintable(allText()));
        return false;
    }
    QQuickItem *item = look(name);
    const auto middle = [item] {
        return item->mapToScene(QPointF(item->width() / 2, item->height() / 2)).toPoint();
    };
    if (!QRect({}, window()->size()).contains(middle()))
        item->forceActiveFocus(Qt::TabFocusReason); // The window scrolls to it.
    window()->grabWindow(); // It lays the items out.
    // Nothing may move the item between the press and the release, as it may during QTest::mouseClick().
    const QPointF place = middle();
    QMouseEvent press(QEvent::MouseButtonPress, place, Qt::LeftButton, Qt::LeftButton, {});
    QMouseEvent release(QEvent::MouseButtonRelease, place, Qt::LeftButton, {}, {});
    return QCoreApplication::sendEvent(window(), &press) && QCoreApplication::sendEvent(window(), &release);
}

void Shown::press(int key, Qt::KeyboardModifiers modifiers)
{
    QTest::keyClick(window(), Qt::Key(key), modifiers);
}

void Shown::type(const QString &text)
{
    for (const QChar character : text)
        QTest::sendKeyEvent(QTest::Click, window(), Qt::Key_unknown, QString(character), {});
}

bool Shown::submit(const QString &secret)
{
    if (!QTest::qWaitFor([this] { return hasFocus(QStringLiteral("secret")); }, Patience)) {
        qWarning("The secret cannot be entered in:\n%s", qPrintable(allText()));
        return false;
    }
    type(secret);
    press(Qt::Key_Return);
    return true;
}

bool Shown::hasFocus(const QString &name) const
{
    const QQuickItem *item = look(name);
    return item && item->hasActiveFocus() && item->isEnabled();
}

QStringList Shown::faults() const
{
    constexpr qreal Tolerance = 1;
    QStringList faults = m_warnings;
    visit([&](QQuickItem *item) {
        const bool isText = item->inherits("QQuickText") && !item->property("text").toString().isEmpty();
        const bool isControl = item->inherits("QQuickAbstractButton") || item->inherits("QQuickTextField");
        if (!isText && !isControl)
            return;
        const QString what = QLatin1Char('\'') + item->property("text").toString() + QLatin1Char('\'');
        const QRectF area = item->mapRectToScene(item->boundingRect());
        if (area.left() < -Tolerance || area.right() > window()->width() + Tolerance)
            faults << what + QStringLiteral(" reaches over a side");
        if (isText
            && (item->property("truncated").toBool()
                || item->property("contentWidth").toReal() > item->width() + Tolerance
                || item->property("contentHeight").toReal() > item->height() + Tolerance))
            faults << what + QStringLiteral(" is cut off");
    });
    return faults;
}

void Shown::save(const QString &name) const
{
    const QString directory = qEnvironmentVariable("KAVET_SCREENSHOTS");
    if (directory.isEmpty())
        return;
    QTest::qWait(300); // Animations; nothing depends on it.
    const QImage picture = window()->grabWindow().convertToFormat(QImage::Format_RGB32); // without transparency
    constexpr int Smallest = 0;
    if (!picture.save(directory + QLatin1Char('/') + name + QStringLiteral(".png"), nullptr, Smallest))
        qFatal("Cannot write the picture %s", qPrintable(name));
}
