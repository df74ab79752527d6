// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "bench.h"
#include "benchmarks.h"
#include "device/clientfixture.h"
#include "method.h"
#include "settings/constants.h"

#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>

#include <authd/libauthd.h>
#include <luks/libluks.h>
#include <systemd/sd-bus.h>

#include <cstdio>
#include <unistd.h>

using Bench::require;

namespace {

const QString user = QStringLiteral("alice");
const QString password = QStringLiteral("password");

void setUp()
{
    TestDevice::reset();
    ClientFixture::prepare();
    require(ClientFixture::takeLaunchersPlace(), "cannot replace the launcher");
}

const QString users = QStringLiteral("/etc/passwd");

/// Makes the file `next` the system's users, without a change of that file, which is not remembered at once.
void setUsers(const QString &next)
{
    const QByteArray link = users.toLatin1() + ".link";
    require(symlink(next.toLatin1().constData(), link.constData()) == 0
                && std::rename(link.constData(), users.toLatin1().constData()) == 0,
            "cannot replace the users");
}

/// Writes a file with `count` users more, before those of `present`. Returns its path.
QString moreUsers(const QByteArray &present, int count, const char *suffix)
{
    QByteArray content;
    for (int i = 0; i < count; ++i) {
        const QByteArray number = QByteArray::number(100000 + i);
        content += "user" + number + ":x:" + number + ':' + number + "::/home/user" + number + ":/bin/bash\n";
    }
    QString path = users + QLatin1String(suffix);
    require(TestDevice::writeFile(path, content + present), "cannot write the users");
    return path;
}

constexpr int few = 10;
constexpr double goal = 2.0;

/// Prints what a request consists of.
void printSteps(const QString &name, const Bench::Medians &medians)
{
    double rest = medians.ours;
    const auto print = [&](const QString &step, double time) {
        Bench::printValue({name + QStringLiteral(", step: ") + step, {}, {}, {}, QStringLiteral("µs")}, time / 1e3);
        rest -= time;
    };
    const auto usual = [](const auto &look) {
        std::vector<double> found(1000);
        for (double &time : found) {
            time = Bench::timed([&look] {
                look();
                return true;
            });
        }
        return Bench::median(found);
    };
    print(QStringLiteral("the call, as by Qt's proxy"), medians.bare);
    print(QStringLiteral("look up the user"), usual([] { return LibAuthd::userName(TestDevice::alice); }));
    print(QStringLiteral("ask for the encrypted partition"), usual([] { return LibLuks::isDeviceActive(); }));
    print(QStringLiteral("pass the guard twice, and the flow"), rest);
}

} // namespace

void benchRequest()
{
    setUp();
    Method method;
    const QString name = QStringLiteral("warm request");

    auto connection = QDBusConnection::connectToPeer(Constants::Link::address, name);
    KavetAuthInterface proxy(Constants::Link::service, Constants::Link::objectPath, connection);
    const Bench::Medians medians = Bench::compare(
        {name, QStringLiteral("Qt's asynchronous proxy"), 1.25}, 500, [&] { return method.ask(); },
        [&] {
            QString answer;
            QDBusPendingCallWatcher watcher(proxy.checkPassword(user, password));
            QObject::connect(&watcher, &QDBusPendingCallWatcher::finished, &watcher,
                             [&answer](QDBusPendingCallWatcher *finished) {
                                 answer = QDBusPendingReply<QString>(*finished).value();
                             });
            waitFor([&answer] { return !answer.isEmpty(); });
            return answer == Constants::Answers::unknownRequest;
        });
    QDBusConnection::disconnectFromPeer(name);
    printSteps(name, medians);

    sd_bus *bus = nullptr;
    require(sd_bus_new(&bus) >= 0 && sd_bus_set_address(bus, Constants::Link::address.toLatin1().constData()) >= 0
                && sd_bus_start(bus) >= 0,
            "sd-bus does not connect");
    Bench::compare(
        {name, QStringLiteral("sd-bus")}, 500, [&] { return method.ask(); },
        [bus] {
            sd_bus_message *reply = nullptr;
            const char *answer = nullptr;
            const bool isGood = sd_bus_call_method(bus, nullptr, "/kavetauth", "tarsk.kavet_auth", "checkPassword",
                                                   nullptr, &reply, "ss", "alice", "password")
                                    >= 0
                                && sd_bus_message_read(reply, "s", &answer) >= 0;
            sd_bus_message_unref(reply);
            return isGood;
        });
    sd_bus_flush_close_unref(bus);
}

void benchManyUsers()
{
    setUp();
    const QByteArray present = TestDevice::readFile(users);
    const QString fewUsers = moreUsers(present, few, ".few");
    Method method;
    const auto ask = [&method] {
        return method.ask();
    };
    for (const int count : {few, 1000, 100000}) {
        const QString manyUsers = moreUsers(present, count, ".many");
        const QString against = QStringLiteral("%1 users").arg(few);
        Bench::compare({QStringLiteral("warm request by the number of users"), against, goal, count}, 20, ask, ask,
                       [&](bool isOurs) {
                           setUsers(isOurs ? manyUsers : fewUsers);
                           ask(); // The change counts as a figure of its own.
                       });
        Bench::compare(
            {QStringLiteral("warm request after a change of the users, by their number"), against, {}, count}, 20, ask,
            ask, [&](bool isOurs) { setUsers(isOurs ? manyUsers : fewUsers); });
        Bench::compare({QStringLiteral("client's start by the number of users"), against, goal, count}, 5, ask, ask,
                       [&](bool isOurs) {
                           setUsers(isOurs ? manyUsers : fewUsers);
                           ask();
                           method.endClient();
                       });
    }
    require(QFile::remove(users) && TestDevice::writeFile(users, present), "cannot restore the users");
}

void benchManyPermissions()
{
    setUp();
    constexpr int many = 1000;
    QStringList permissions;
    for (int i = 0; i < many; ++i) {
        permissions << QStringLiteral("Permission%1").arg(i);
        require(
            TestDevice::writeFile(QStringLiteral("/etc/varnet/permissions/%1.permission").arg(permissions.last()), {}),
            "cannot write a permission");
    }
    const auto setPermissions = [&permissions](int count) {
        require(TestDevice::writeManifest(QStringLiteral("tarsk"), QStringLiteral("kavet_client"), Installed::client,
                                          permissions.mid(0, count)),
                "cannot write the manifest");
    };
    Method method;
    const auto ask = [&method] {
        return method.ask();
    };
    Bench::compare(
        {QStringLiteral("client's start, 1,000 permissions"), QStringLiteral("%1 permissions").arg(few), goal}, 5, ask,
        ask, [&](bool isOurs) {
            method.endClient();
            setPermissions(isOurs ? many : few);
        });
}

void benchLongUserFile()
{
    setUp();
    constexpr int size = 64 * 1024;
    QByteArray content = "[General]\n";
    for (int i = 0; content.size() < size; ++i)
        content += "key" + QByteArray::number(i) + "=value\n";
    Method method;
    const auto ask = [&method] {
        return method.ask();
    };
    Bench::compare({QStringLiteral("client's start, user file of 64 KiB"), QStringLiteral("one line"), goal}, 5, ask,
                   ask, [&](bool isOurs) {
                       method.endClient();
                       require(TestDevice::writeFile(ClientFixture::counterPath, isOurs ? content : "[General]\n"),
                               "cannot write the user's file");
                   });
}

void benchGrowth()
{
    setUp();
    Method method;
    const auto memory = [] {
        const QByteArray status = TestDevice::readFile(QStringLiteral("/proc/self/status"));
        const QByteArray field = "RssAnon:";
        return status.mid(status.indexOf(field) + field.size()).simplified().split(' ').constFirst().toInt();
    };
    const auto ask = [&method](int times) {
        for (int i = 0; i < times; ++i)
            require(method.ask(), "a request has failed");
    };
    const int requests = Bench::once ? 1000 : 1000000;
    ask(requests / 100);
    const int before = memory();
    ask(requests);
    Bench::printValue({QStringLiteral("growth over %L1 requests").arg(requests), {}, 0, {}, QStringLiteral("KiB")},
                      memory() - before);
}
