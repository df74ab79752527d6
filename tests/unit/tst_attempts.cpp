// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "plugin/methodkavet.h"
#include "plugin/methodkavetprivate.h"
#include "settings/settingskavet.h"
#include "support/logcapture.h"
#include "support/recordingdaemon.h"
#include "support/testdevice.h"
#include "support/waiting.h"

#include <QJsonArray>
#include <QLoggingCategory>
#include <QTest>

#include <limits>

namespace {

using Call = RecordingDaemon::Call;
using Calls = QVector<Call>;

const QString maxAttempts = QStringLiteral("max-attempts");
const QString attempts = QStringLiteral("attempts");
const QString delayedDeletion = QStringLiteral("delayed-deletion");

constexpr int badPassword = 1;
constexpr int tooManyAttempts = 7;
constexpr int maximum = std::numeric_limits<int>::max();

Call stored(uint uid, const QString &option, const QVariant &value)
{
    return {QStringLiteral("optionChanged"), {uid, option, value, false}};
}

/// The calls to the daemon when `uid` reaches the limit.
Calls lockout(uint uid)
{
    return {{QStringLiteral("logEvent"),
             {QStringLiteral("WARN_LEVEL"), QStringLiteral("devlock-attempts-expired"), QString()}},
            stored(uid, attempts, 0),
            {QStringLiteral("lockUser"), {uid, true, QStringLiteral("kavet-max-attempts"), 4294967295u}},
            stored(uid, delayedDeletion, true)};
}

QString warning(uint uid, int current, int max)
{
    return QStringLiteral("increaseAttempts Max attempts reached %1 %2 %3").arg(uid).arg(current).arg(max);
}

/// Lets alice authenticate and waits for the link to a client that replies to getCertList with `list`. The socket
/// appears once the method knows that the process runs; the method ignores an earlier one.
bool linkClient(MethodKavet &method, const QJsonArray &list)
{
    const QString go = QStringLiteral("/tmp/scripted-client/go");
    TestDevice::setScript({{QStringLiteral("certs"), list}, {QStringLiteral("socket"), go}});
    auto *d = method.findChild<MethodKavetPrivate *>();
    method.authenticate(TestDevice::alice, {});
    return waitUntil([d] { return d->child.clientRunning; }) && TestDevice::writeFile(go, {})
           && waitUntil([d] { return d->clientStage == MethodKavetPrivate::Linked; });
}

/// A method that computes its count of attempts, and records calls of its virtual operations in `daemon`.
class CountingMethod : public MethodKavet
{
public:
    explicit CountingMethod(RecordingDaemon &daemon)
        : m_daemon(daemon)
    {
        setNotificator(&daemon);
    }

    QVariant count;

    QVariant getOption(uint uid, const QString &option) override
    {
        m_daemon.calls << Call{QStringLiteral("getOption"), {uid, option}};
        return count;
    }
    void resetAttempts(uint uid) override
    {
        m_daemon.calls << Call{QStringLiteral("resetAttempts"), {uid}};
        MethodKavet::resetAttempts(uid);
    }

private:
    RecordingDaemon &m_daemon;
};

} // namespace

class TstAttempts : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { TestDevice::reset(); }

    void resultCodes()
    {
        QCOMPARE(int(SettingsKavet::BadPassword), badPassword);
        QCOMPARE(int(SettingsKavet::TooManyAttempts), tooManyAttempts);
    }

    void noLimit_data()
    {
        QTest::addColumn<QVariant>("max");
        QTest::newRow("absent") << QVariant();
        QTest::newRow("0") << QVariant(0);
        QTest::newRow("text 0") << QVariant(QStringLiteral("0"));
        QTest::newRow("not a number") << QVariant(QStringLiteral("many"));
        QTest::newRow("number and more") << QVariant(QStringLiteral("3 times"));
        QTest::newRow("empty text") << QVariant(QString::fromLatin1(""));
        QTest::newRow("list") << QVariant(QStringList{QStringLiteral("3"), QStringLiteral("4")});
    }
    void noLimit()
    {
        QFETCH(QVariant, max);
        RecordingDaemon daemon;
        CountingMethod method(daemon);
        method.count = 100;
        if (max.isValid())
            QVERIFY(method.setOptionInternal(0, maxAttempts, max));
        // A user's own limit is ignored, should there ever be one.
        QVERIFY(method.setOptionInternal(TestDevice::alice, maxAttempts, 1));
        daemon.calls.clear();

        const LogCapture log;
        for (const uint uid : {TestDevice::alice, 0u}) {
            QCOMPARE(method.getAttempts(uid), 1);
            QCOMPARE(method.increaseAttempts(uid), badPassword);
        }
        QCOMPARE(daemon.calls, Calls());
        QVERIFY(log.lines().isEmpty());
    }

    void limit_data()
    {
        QTest::addColumn<QVariant>("max");
        QTest::addColumn<int>("left");
        QTest::addColumn<QVariantList>("stores"); // before the lockout
        QTest::addColumn<int>("result");
        QTest::newRow("1") << QVariant(1) << 1 << QVariantList{1} << tooManyAttempts;
        QTest::newRow("2") << QVariant(2) << 2 << QVariantList{1} << badPassword;
        QTest::newRow("3") << QVariant(3) << 3 << QVariantList{1} << badPassword;
        QTest::newRow("text 3") << QVariant(QStringLiteral("3")) << 3 << QVariantList{1} << badPassword;
        QTest::newRow("5") << QVariant(5) << 5 << QVariantList{1} << badPassword;
        QTest::newRow("largest") << QVariant(maximum) << maximum << QVariantList{1} << badPassword;
        QTest::newRow("-1") << QVariant(-1) << -1 << QVariantList{} << tooManyAttempts;
        QTest::newRow("text -1") << QVariant(QStringLiteral("-1")) << -1 << QVariantList{} << tooManyAttempts;
        QTest::newRow("smallest") << QVariant(-maximum - 1) << -maximum - 1 << QVariantList{} << tooManyAttempts;
    }
    void limit()
    {
        QFETCH(QVariant, max);
        QFETCH(int, left);
        QFETCH(QVariantList, stores);
        QFETCH(int, result);
        RecordingDaemon daemon;
        MethodKavet method;
        QVERIFY(method.setOptionInternal(0, maxAttempts, max));
        method.setNotificator(&daemon);

        // Repeated failures never reach the limit, because the computed count ignores the stored value.
        for (int failure = 1; failure <= 4; ++failure) {
            // Storing the same value again would not be reported.
            QVERIFY(method.setOptionInternal(TestDevice::alice, attempts, QStringLiteral("another")));
            QVERIFY(method.setOptionInternal(TestDevice::alice, delayedDeletion, QVariant()));
            daemon.calls.clear();
            const LogCapture log;
            QCOMPARE(method.getAttempts(TestDevice::alice), left);
            QCOMPARE(method.increaseAttempts(TestDevice::alice), result);

            Calls expected;
            for (const QVariant &store : stores)
                expected << stored(TestDevice::alice, attempts, store);
            if (result == tooManyAttempts) {
                expected += lockout(TestDevice::alice);
                const LogCapture::Line line{QtWarningMsg, QStringLiteral("authd.method.kavet"),
                                            warning(TestDevice::alice, stores.size(), left)};
                QCOMPARE(log.lines(), QVector<LogCapture::Line>{line});
            } else {
                QVERIFY(log.lines().isEmpty());
            }
            QCOMPARE(daemon.calls, expected);
            // Variants of different types may compare equal.
            for (const Call &call : qAsConst(daemon.calls)) {
                if (call.operation == QLatin1String("optionChanged")) {
                    const bool isCount = call.arguments.at(1) == attempts;
                    QCOMPARE(call.arguments.at(2).userType(), int(isCount ? QMetaType::Int : QMetaType::Bool));
                }
            }
        }

        QCOMPARE(daemon.methods, QStringList{QStringLiteral("kavet")});
        const bool locked = result == tooManyAttempts;
        QCOMPARE(method.getOptionInternal(TestDevice::alice, attempts), QVariant(locked ? 0 : 1));
        QCOMPARE(method.getOptionInternal(TestDevice::alice, delayedDeletion), QVariant(locked));
        QCOMPARE(method.getOptionInternal(TestDevice::bob, attempts), QVariant(0));
        QCOMPARE(method.getOptionInternal(TestDevice::bob, delayedDeletion), QVariant(false));
        QCOMPARE(method.getOptionInternal(0, maxAttempts), max);
    }

    void warningComesFirst()
    {
        // Notes whether the warning has been logged at each call.
        struct NotingDaemon : RecordingDaemon
        {
            const LogCapture log;
            QVector<bool> logged;
            void lockUser(const QString &method, uint uid, bool lock, const QString &reason, uint duration) override
            {
                RecordingDaemon::lockUser(method, uid, lock, reason, duration);
                logged << !log.warnings().isEmpty();
            }
            void logEvent(const QString &method, const QString &level, const QString &event,
                          const QString &details) override
            {
                RecordingDaemon::logEvent(method, level, event, details);
                logged << !log.warnings().isEmpty();
            }
            void optionChanged(const QString &method, uint uid, const QString &option, const QVariant &value,
                               bool computed) override
            {
                RecordingDaemon::optionChanged(method, uid, option, value, computed);
                logged << !log.warnings().isEmpty();
            }
        };
        MethodKavet method;
        QVERIFY(method.setOptionInternal(0, maxAttempts, 1));
        NotingDaemon daemon;
        method.setNotificator(&daemon);
        QCOMPARE(method.increaseAttempts(TestDevice::alice), tooManyAttempts);
        QCOMPARE(daemon.calls, Calls{stored(TestDevice::alice, attempts, 1)} + lockout(TestDevice::alice));
        QCOMPARE(daemon.logged, QVector<bool>({false, true, true, true, true}));
    }

    void lockoutWithoutWarning()
    {
        // The administrator may disable the warning; the lockout still happens.
        RecordingDaemon daemon;
        MethodKavet method;
        QVERIFY(method.setOptionInternal(0, maxAttempts, 1));
        method.setNotificator(&daemon);
        const LogCapture log;
        QLoggingCategory::setFilterRules(QStringLiteral("authd.method.kavet.warning=false"));
        QCOMPARE(method.increaseAttempts(TestDevice::alice), tooManyAttempts);
        QVERIFY(log.lines().isEmpty());
        QCOMPARE(daemon.calls, Calls{stored(TestDevice::alice, attempts, 1)} + lockout(TestDevice::alice));
    }

    void storedCountIsNotSeen()
    {
        MethodKavet method;
        QVERIFY(method.setOptionInternal(0, maxAttempts, 3));
        QVERIFY(method.setOptionInternal(TestDevice::alice, attempts, 2));
        QCOMPARE(method.getAttempts(TestDevice::alice), 3);
        QCOMPARE(method.increaseAttempts(TestDevice::alice), badPassword);
        QCOMPARE(method.getOptionInternal(TestDevice::alice, attempts), QVariant(1));
        QVERIFY(method.setOptionInternal(TestDevice::alice, attempts, 100));
        QCOMPARE(method.getAttempts(TestDevice::alice), 3);
        QCOMPARE(method.increaseAttempts(TestDevice::alice), badPassword);
        QCOMPARE(method.getOptionInternal(TestDevice::alice, attempts), QVariant(1));
    }

    void virtualCount_data()
    {
        QTest::addColumn<int>("max");
        QTest::addColumn<QVariant>("count");
        QTest::addColumn<QVariantList>("stores");
        QTest::addColumn<int>("reached"); // the count that the warning names; -1: none
        QTest::newRow("none") << 3 << QVariant() << QVariantList{1} << -1;
        QTest::newRow("0") << 3 << QVariant(0) << QVariantList{1} << -1;
        QTest::newRow("1") << 3 << QVariant(1) << QVariantList{2} << -1;
        QTest::newRow("one left") << 3 << QVariant(2) << QVariantList{3} << 3;
        QTest::newRow("text") << 3 << QVariant(QStringLiteral("1")) << QVariantList{2} << -1;
        QTest::newRow("at the limit") << 3 << QVariant(3) << QVariantList{} << 3;
        QTest::newRow("past the limit") << 3 << QVariant(5) << QVariantList{} << 5;
        QTest::newRow("negative") << 3 << QVariant(-2) << QVariantList{-1} << -1;
        QTest::newRow("largest") << maximum << QVariant(maximum - 1) << QVariantList{maximum} << maximum;
        QTest::newRow("largest, reached") << maximum << QVariant(maximum) << QVariantList{} << maximum;
        QTest::newRow("list of one") << 3 << QVariant(QStringList{QStringLiteral("2")}) << QVariantList{1} << -1;
        QTest::newRow("negative limit") << -1 << QVariant(-2) << QVariantList{-1} << -1;
    }
    void virtualCount()
    {
        QFETCH(int, max);
        QFETCH(QVariant, count);
        QFETCH(QVariantList, stores);
        QFETCH(int, reached);
        RecordingDaemon daemon;
        CountingMethod method(daemon);
        QVERIFY(method.setOptionInternal(0, maxAttempts, max));
        method.count = count;
        // The last row's step from -2 to -1 meets the limit.
        if (max < 0)
            reached = -1;
        const bool locks = reached != -1 || max < 0;
        daemon.calls.clear();

        const Call asked{QStringLiteral("getOption"), {TestDevice::bob, attempts}};
        QCOMPARE(method.getAttempts(TestDevice::bob), max - count.toInt());
        QCOMPARE(daemon.calls, Calls{asked});
        daemon.calls.clear();

        const LogCapture log;
        QCOMPARE(method.increaseAttempts(TestDevice::bob), locks ? tooManyAttempts : badPassword);
        Calls expected{asked};
        for (const QVariant &store : stores)
            expected << stored(TestDevice::bob, attempts, store);
        if (locks) {
            Calls told = lockout(TestDevice::bob);
            told.insert(1, {QStringLiteral("resetAttempts"), {TestDevice::bob}});
            expected += told;
        }
        QCOMPARE(daemon.calls, expected);
        QCOMPARE(log.warnings(), locks ? QStringList{warning(TestDevice::bob, reached, max)} : QStringList());
    }

    void largestUserId()
    {
        RecordingDaemon daemon;
        MethodKavet method;
        QVERIFY(method.setOptionInternal(0, maxAttempts, 1));
        method.setNotificator(&daemon);
        const LogCapture log;
        QCOMPARE(method.increaseAttempts(4294967294u), tooManyAttempts);
        QCOMPARE(daemon.calls, Calls{stored(4294967294u, attempts, 1)} + lockout(4294967294u));
        QCOMPARE(log.warnings(), QStringList{warning(4294967294u, 1, 1)});
    }

    void userZero()
    {
        RecordingDaemon daemon;
        MethodKavet method;
        auto *d = method.findChild<MethodKavetPrivate *>();

        // Without a limit, the client is not called.
        QCOMPARE(method.getAttempts(0), 1);
        QCOMPARE(method.increaseAttempts(0), badPassword);
        QVERIFY(!d->certListPending);

        QVERIFY(method.setOptionInternal(0, maxAttempts, 3));
        method.setNotificator(&daemon);
        QCOMPARE(method.getAttempts(0), 3);
        QVERIFY(d->certListPending);
        d->certListPending = false;
        QCOMPARE(method.increaseAttempts(0), badPassword);
        QVERIFY(d->certListPending);
        QCOMPARE(daemon.calls, Calls{stored(0, attempts, 1)});

        daemon.calls.clear();
        method.setNotificator(nullptr);
        QVERIFY(method.setOptionInternal(0, maxAttempts, 1));
        QVERIFY(method.setOptionInternal(0, attempts, QVariant()));
        method.setNotificator(&daemon);
        QCOMPARE(method.increaseAttempts(0), tooManyAttempts);
        QCOMPARE(daemon.calls, Calls{stored(0, attempts, 1)} + lockout(0));
    }

    void userZeroAsksTheClient()
    {
        MethodKavet method;
        auto *d = method.findChild<MethodKavetPrivate *>();
        QVERIFY(method.setOptionInternal(0, maxAttempts, 3));
        QVERIFY(linkClient(method, {QStringLiteral("5")}));

        const QVector<QJsonArray> once{QJsonArray{QStringLiteral("getCertList")}};
        QCOMPARE(method.getAttempts(0), 3);
        QTRY_VERIFY(!d->certListInFlight);
        QCOMPARE(TestDevice::calls(), once);
        QCOMPARE(method.increaseAttempts(0), badPassword);
        QTRY_VERIFY(!d->certListInFlight);
        QCOMPARE(TestDevice::calls(), once + once);
        QCOMPARE(method.getOptionInternal(0, attempts), QVariant(1));

        QCOMPARE(method.getAttempts(TestDevice::alice), 3);
        QCOMPARE(method.increaseAttempts(TestDevice::alice), badPassword);
        QCOMPARE(TestDevice::calls(), once + once);
    }

    void resetAttempts()
    {
        RecordingDaemon daemon;
        MethodKavet method;
        QVERIFY(method.setOptionInternal(TestDevice::alice, attempts, QStringLiteral("4")));
        QVERIFY(method.setOptionInternal(TestDevice::bob, attempts, 2));
        QVERIFY(method.setOptionInternal(TestDevice::alice, delayedDeletion, true));
        method.setNotificator(&daemon);

        method.resetAttempts(TestDevice::alice);
        QCOMPARE(daemon.calls, Calls{stored(TestDevice::alice, attempts, 0)});
        const QVariant reset = method.getOptionInternal(TestDevice::alice, attempts);
        QCOMPARE(reset.userType(), int(QMetaType::Int));
        QCOMPARE(reset.toInt(), 0);
        QCOMPARE(method.getOptionInternal(TestDevice::bob, attempts), QVariant(2));
        QCOMPARE(method.getOptionInternal(TestDevice::alice, delayedDeletion), QVariant(true));

        daemon.calls.clear();
        method.resetAttempts(0);
        QCOMPARE(daemon.calls, Calls{stored(0, attempts, 0)});
    }

    void getChildAttempts_data()
    {
        QTest::addColumn<QByteArray>("content"); // null: no file
        QTest::addColumn<QVariant>("count");
        QTest::newRow("no file") << QByteArray() << QVariant(0);
        QTest::newRow("empty") << QByteArray("") << QVariant(0);
        QTest::newRow("count") << QByteArray("[General]\nattempts=2\n") << QVariant(QStringLiteral("2"));
        QTest::newRow("zero") << QByteArray("[General]\nattempts=0\n") << QVariant(QStringLiteral("0"));
        QTest::newRow("no group") << QByteArray("attempts=4\n") << QVariant(QStringLiteral("4"));
        QTest::newRow("other keys") << QByteArray("[General]\nmax-attempts=3\nattempt=1\nattempts2=9\n") << QVariant(0);
        QTest::newRow("other group") << QByteArray("[Other]\nattempts=3\n") << QVariant(0);
        QTest::newRow("among others") << QByteArray(
            "[A]\nattempts=1\n[General]\nx=@ByteArray(y)\nattempts=3\nz=1\n[B]\nattempts=2\n")
                                      << QVariant(QStringLiteral("3"));
        QTest::newRow("not a number") << QByteArray("[General]\nattempts=some\n") << QVariant(QStringLiteral("some"));
        QTest::newRow("nothing") << QByteArray("[General]\nattempts=\n") << QVariant(QString::fromLatin1(""));
        QTest::newRow("list") << QByteArray("[General]\nattempts=1, 2\n")
                              << QVariant(QStringList{QStringLiteral("1"), QStringLiteral("2")});
    }
    void getChildAttempts()
    {
        QFETCH(QByteArray, content);
        QFETCH(QVariant, count);
        MethodKavet method;
        auto *d = method.findChild<MethodKavetPrivate *>();
        const QString file = TestDevice::sharedDirectory + QStringLiteral("/1000.conf");
        QVERIFY(TestDevice::writeSetting(TestDevice::sharedDirectory + QStringLiteral("/1001.conf"), attempts,
                                         QStringLiteral("77")));
        if (!content.isNull())
            QVERIFY(TestDevice::writeFile(file, content));

        // Without a client there is no file.
        QCOMPARE(d->getChildAttempts().userType(), int(QMetaType::Int));
        QCOMPARE(d->getChildAttempts(), QVariant(0));

        d->child.userConfigPath = file;
        QCOMPARE(d->getChildAttempts().userType(), count.userType());
        QCOMPARE(d->getChildAttempts(), count);
        QCOMPARE(TestDevice::readFile(file), content);
    }

    /// The client reports its own count to the daemon through its file.
    void mirror()
    {
        RecordingDaemon daemon;
        MethodKavet method;
        method.setNotificator(&daemon);
        auto *d = method.findChild<MethodKavetPrivate *>();
        QVERIFY(linkClient(method, {}));
        const QString file = d->child.userConfigPath;
        QCOMPARE(file, TestDevice::sharedDirectory + QStringLiteral("/1000.conf"));
        QVERIFY(d->watcher.files().contains(file));

        // Values from the file are strings.
        QVERIFY(TestDevice::writeSetting(file, attempts, QStringLiteral("2")));
        QTRY_COMPARE(method.getOptionInternal(TestDevice::alice, attempts), QVariant(QStringLiteral("2")));
        QCOMPARE(method.getOptionInternal(TestDevice::alice, attempts).userType(), int(QMetaType::QString));
        QVERIFY(daemon.calls.contains(stored(TestDevice::alice, attempts, QStringLiteral("2"))));

        // A file without the count.
        QVERIFY(TestDevice::writeSetting(file, QStringLiteral("other"), QStringLiteral("2")));
        QTRY_COMPARE(method.getOptionInternal(TestDevice::alice, attempts).userType(), int(QMetaType::Int));
        QCOMPARE(method.getOptionInternal(TestDevice::alice, attempts), QVariant(0));

        // A client that replaces its file.
        QVERIFY(TestDevice::writeSetting(file + QStringLiteral(".new"), attempts, QStringLiteral("3")));
        QCOMPARE(rename(qPrintable(file + QStringLiteral(".new")), qPrintable(file)), 0);
        QTRY_COMPARE(method.getOptionInternal(TestDevice::alice, attempts), QVariant(QStringLiteral("3")));
        QTRY_VERIFY(d->watcher.files().contains(file));
        QVERIFY(TestDevice::writeSetting(file, attempts, QStringLiteral("4")));
        QTRY_COMPARE(method.getOptionInternal(TestDevice::alice, attempts), QVariant(QStringLiteral("4")));

        QCOMPARE(method.getOptionInternal(TestDevice::bob, attempts), QVariant(0));
        QCOMPARE(method.getOptionInternal(0, maxAttempts), QVariant(0));
    }

    void changeNotices()
    {
        RecordingDaemon daemon;
        MethodKavet method;
        method.setNotificator(&daemon);
        auto *d = method.findChild<MethodKavetPrivate *>();
        const QString file = TestDevice::sharedDirectory + QStringLiteral("/1001.conf");
        QVERIFY(TestDevice::writeSetting(file, attempts, QStringLiteral("6")));
        d->child.userConfigPath = file;

        // No user.
        d->currentUid = TestDevice::alice;
        d->handleChildFileChanged(file);
        QCOMPARE(daemon.calls, Calls());

        // The count belongs to the file's owner, who need not be the user being authenticated.
        d->child.uid = TestDevice::bob;
        d->handleChildFileChanged(file);
        QCOMPARE(daemon.calls, Calls{stored(TestDevice::bob, attempts, QStringLiteral("6"))});

        // Any other file.
        daemon.calls.clear();
        d->handleChildFileChanged(TestDevice::sharedDirectory + QStringLiteral("/1000.conf"));
        d->handleChildFileChanged(TestDevice::sharedDirectory);
        d->handleChildFileChanged(QString());
        QCOMPARE(daemon.calls, Calls());

        // A removed file.
        QVERIFY(QFile::remove(file));
        d->handleChildFileChanged(file);
        QCOMPARE(daemon.calls, Calls{stored(TestDevice::bob, attempts, 0)});
    }

    void sharedDirectoryAppeared()
    {
        RecordingDaemon daemon;
        MethodKavet method;
        method.setNotificator(&daemon);
        auto *d = method.findChild<MethodKavetPrivate *>();
        const QString file = TestDevice::sharedDirectory + QStringLiteral("/1001.conf");
        QVERIFY(TestDevice::writeSetting(file, attempts, QStringLiteral("6")));

        d->handleChildSharedDirectory(TestDevice::sharedDirectory);
        d->child.uid = TestDevice::bob;
        d->handleChildSharedDirectory(TestDevice::sharedDirectory);
        d->child.userConfigPath = file + QStringLiteral(".not");
        d->handleChildSharedDirectory(TestDevice::sharedDirectory);
        d->child.userConfigPath = file;
        d->child.uid = 0;
        d->handleChildSharedDirectory(TestDevice::sharedDirectory);
        QCOMPARE(daemon.calls, Calls());
        QVERIFY(!d->watcher.files().contains(file));

        d->child.uid = TestDevice::bob;
        d->child.gid = TestDevice::groupId("auth-factor");
        d->handleChildSharedDirectory(TestDevice::sharedDirectory);
        QCOMPARE(daemon.calls, Calls{stored(TestDevice::bob, attempts, QStringLiteral("6"))});
        QVERIFY(d->watcher.files().contains(file));
    }
};

QTEST_GUILESS_MAIN(TstAttempts)
#include "tst_attempts.moc"
