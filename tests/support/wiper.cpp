// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "support/wiper.h"

#include "support/testdevice.h"

#include <QCoreApplication>
#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>

namespace {

const QString stateDirectory = QStringLiteral("/tmp/fake-wiper/");

} // namespace

bool startSystemBus()
{
    if (QProcess::execute(QStringLiteral(SYSTEM_BUS), {}) == 0)
        return true;
    qWarning("The system bus does not start; its message is above");
    return false;
}

Wiper::Wiper()
{
    QDir(stateDirectory).removeRecursively();
    setScript({});
    m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
}

Wiper::~Wiper()
{
    stop();
}

bool Wiper::start()
{
    m_process.start(QCoreApplication::applicationDirPath() + QStringLiteral("/" FAKE_WIPER), {});
    if (m_process.waitForReadyRead())
        return true;
    qWarning("The wiper does not start: %s", qPrintable(m_process.errorString()));
    return false;
}

void Wiper::stop()
{
    m_process.kill();
    m_process.waitForFinished();
}

void Wiper::setScript(const QJsonObject &script)
{
    TestDevice::writeFile(stateDirectory + QStringLiteral("script.json"), QJsonDocument(script).toJson());
}

void Wiper::answer(const QString &userName)
{
    TestDevice::writeFile(stateDirectory + QStringLiteral("answer-") + userName, {});
}

QVector<QJsonObject> Wiper::calls() const
{
    QVector<QJsonObject> calls;
    const QList<QByteArray> lines = TestDevice::readFile(stateDirectory + QStringLiteral("calls")).split('\n');
    for (const QByteArray &line : lines) {
        if (!line.isEmpty())
            calls << QJsonDocument::fromJson(line).object();
    }
    return calls;
}

QJsonObject Wiper::callFor(const QString &userName)
{
    return {{QStringLiteral("path"), QStringLiteral("/qarv/userdata/wiper")},
            {QStringLiteral("interface"), QStringLiteral("qarv.userdata.wiper")},
            {QStringLiteral("member"), QStringLiteral("ProcessTargetUser")},
            {QStringLiteral("signature"), QStringLiteral("s")},
            {QStringLiteral("arguments"), QJsonArray{userName}},
            {QStringLiteral("interactive"), false}};
}
