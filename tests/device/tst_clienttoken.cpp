// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "device/clientfixture.h"
#include "device/inheritable.h"
#include "device/polltimeout.h"
#include "device/rawconnection.h"
#include "device/softtokens.h"
#include "support/waiting.h"
#include "unit/methodfixture.h"

#include <QDBusPendingReply>
#include <QElapsedTimer>

#include <algorithm>
#include <csignal>

#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>

namespace {

const QString success = QStringLiteral("success");
const QString failed = QStringLiteral("failed");
const QString lock = QStringLiteral("lock");
const QString removal = QStringLiteral("remove");
const QString noToken = QStringLiteral("nousb");
const QString moduleFailed = QStringLiteral("connerr");
const QString badDefault = QStringLiteral("firstcererr");

const QString one = QStringLiteral("one");
const QString two = QStringLiteral("two");
const QString three = QStringLiteral("three");
const QString pin = SoftTokens::pin;
const QString wrongPin = QStringLiteral("31415927");
const QString password = QStringLiteral("correct horse");
const QString id1 = QStringLiteral("01");
const QString id2 = QStringLiteral("02");
const QString id3 = QStringLiteral("a1b2c3");
const QString otherPath = QStringLiteral("/home/alice/ca/other.pem"); // of makeRenewedAuthority()
constexpr int callTimeout = 20000; // milliseconds

/// A certificate that logs alice in with the RSA key; the path of its file.
QString goodCert()
{
    static const QString path = SoftTokens::issue(QStringLiteral("good"), SoftTokens::loginTemplate());
    return path;
}

bool set(const char *key, const QVariant &value)
{
    return ClientFixture::setSetting(QString::fromLatin1(key), value);
}

/// Sets the unruly token's next behaviour.
bool makeUnruly(const QByteArray &how)
{
    return set("module", Installed::unrulyToken)
           && TestDevice::writeFile(QStringLiteral("/home/alice/unruly-token"), how);
}

/// The client's child processes.
QStringList childrenOf(const ClientFixture &client)
{
    const QString pid = QString::number(client.process.processId());
    return QString::fromLatin1(TestDevice::readFile(QStringLiteral("/proc/%1/task/%1/children").arg(pid)))
        .split(QLatin1Char(' '), Qt::SkipEmptyParts);
}

/// Whether a child of the client has executed its program. Before that, it is still a copy of the client and must not
/// be killed, because Qt may not notice.
bool isHelper(const QString &process)
{
    return TestDevice::readFile(QStringLiteral("/proc/%1/cmdline").arg(process)).contains("--token-helper");
}

/// Whether a helper has loaded what it needs and waits for its request.
bool isPrepared(const QString &process)
{
    return TestDevice::readFile(QStringLiteral("/proc/%1/syscall").arg(process))
        .startsWith(QByteArray::number(SYS_recvmsg) + ' ');
}

/// The number of a process's descriptors of one kind.
int openFiles(const QString &process, const QString &kind)
{
    const QFileInfoList descriptors = QDir(QStringLiteral("/proc/%1/fd").arg(process))
                                          .entryInfoList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot);
    return int(std::count_if(descriptors.begin(), descriptors.end(), [&kind](const QFileInfo &descriptor) {
        return descriptor.symLinkTarget().contains(kind);
    }));
}

int openSockets(const ClientFixture &client)
{
    return openFiles(QString::number(client.process.processId()), QStringLiteral("socket:"));
}

/// The client's helpers that serve a call: they hold its request.
QStringList helpers(const ClientFixture &client)
{
    QStringList busy;
    const QStringList processes = childrenOf(client);
    for (const QString &process : processes) {
        if (isHelper(process) && openFiles(process, QStringLiteral("memfd:request")) != 0)
            busy << process;
    }
    return busy;
}

/// Ends the helper that waits for the next call. The client must not be serving a call.
bool endWaiting(const ClientFixture &client)
{
    const auto waiting = [&client] {
        return childrenOf(client).size() == 1 && isHelper(childrenOf(client).constFirst());
    };
    return waitUntil(waiting) && kill(childrenOf(client).constFirst().toInt(), SIGKILL) == 0
           && waitUntil([&client] { return childrenOf(client).isEmpty(); });
}

/// The number that the client's next descriptor gets.
int firstFree(const ClientFixture &client)
{
    int number = 0;
    while (QFileInfo(QStringLiteral("/proc/%1/fd/%2").arg(client.process.processId()).arg(number)).isSymLink())
        ++number;
    return number;
}

/// Gives all sockets of the client the smallest buffer for what it sends.
bool shrinkBuffers(const ClientFixture &client)
{
    const int process = int(syscall(SYS_pidfd_open, client.process.processId(), 0));
    const QDir directory(QStringLiteral("/proc/%1/fd").arg(client.process.processId()));
    const QStringList numbers = directory.entryList(QDir::Files | QDir::System);
    int shrunk = 0;
    for (const QString &number : numbers) {
        const int socket = int(syscall(SYS_pidfd_getfd, process, number.toInt(), 0));
        const int size = 0;
        shrunk += setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size)) == 0;
        close(socket);
    }
    close(process);
    return shrunk > 1; // The listener is one of them.
}

/// Limits the numbers of the client's new descriptors.
bool limitDescriptors(const ClientFixture &client, int count)
{
    QProcess prlimit;
    ClientFixture::asUser(
        prlimit, QStringLiteral("prlimit"),
        {QStringLiteral("--pid=%1").arg(client.process.processId()), QStringLiteral("--nofile=%1:").arg(count)});
    prlimit.start();
    return prlimit.waitForFinished() && prlimit.exitCode() == 0;
}

QByteArray without(QByteArray text, const char *line)
{
    Q_ASSERT(text.contains(line));
    return text.replace(QByteArray(line) + '\n', QByteArray());
}

const QByteArray inThePast =
    QByteArrayLiteral("activation_date = \"2020-01-01 00:00:00\"\nexpiration_date = \"2021-01-01 00:00:00\"\n");
const QByteArray inTheFuture =
    QByteArrayLiteral("activation_date = \"2200-01-01 00:00:00\"\nexpiration_date = \"2201-01-01 00:00:00\"\n");

/// The template of a certificate that logged alice in until it expired.
QByteArray expired()
{
    return without(SoftTokens::loginTemplate(), "expiration_days = 30") + inThePast;
}

/// Makes an authority with a certificate of another time, kept as other.pem, and with one that is valid now.
bool makeRenewedAuthority(const QString &name, const QString &above, const QByteArray &otherTime)
{
    const QString path = QStringLiteral("/home/alice/ca/%1.pem").arg(name);
    QFile::remove(otherPath);
    return SoftTokens::makeAuthority(name, above, otherTime) && QFile::rename(path, otherPath)
           && SoftTokens::makeAuthority(name, above); // with the same key
}

} // namespace

class TstClientToken : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();

    void sleepsAfterCalls();
    void list();
    void describes_data();
    void describes();
    void listsHiddenKeys();
    void listsVisibleKeys();
    void listsOverRegisteredModules();
    void listsNone_data();
    void listsNone();
    void unsuitableToken_data();
    void unsuitableToken();
    void hesitantToken();
    void unreadableToken_data();
    void unreadableToken();
    void certificateOnUnreadableToken();
    void unreadableCertificate();
    void vastLabel();
    void noLabel_data();
    void noLabel();
    void listsDefaultFirst();
    void commandLineList();
    void listLeavesNothingOpen();
    void longCertificate();
    void manyCertificates();
    void tooManyCertificates();
    void longestList();

    void keyForOnePadding();
    void weakKey();
    void accepts_data();
    void accepts();
    void refuses_data();
    void refuses();
    void otherAuthority();
    void authorityInBetween();
    void manyAuthoritiesInBetween();
    void renewedAuthorityInBetween_data();
    void renewedAuthorityInBetween();
    void renewedAuthority();
    void authorityForAnotherPurpose();
    void anchorDirectory();
    void noAnchors_data();
    void noAnchors();
    void revoked();
    void uselessRevocationLists_data();
    void uselessRevocationLists();
    void wrongKey_data();
    void wrongKey();
    void forgedSignature();
    void freshChallenges();
    void badUri_data();
    void badUri();
    void severalForOneUri();
    void renewed();
    void labels_data();
    void labels();
    void keyOnOtherToken();
    void keyThatAsksForEachSignature();
    void certificateWithoutId();

    void wrongPins();
    void wrongPin_data();
    void wrongPin();
    void longestPin();
    void expiredPin();
    void refusedCertDoesNotCount();
    void lockedForTheRightPinToo();
    void parallelPins();
    void passwordsMeanwhile();
    void queuedForNobody();
    void queuedTooLong();
    void pinBlocked();
    void pinNotAskedFor();
    void defaultCert();
    void badDefaultCert_data();
    void badDefaultCert();

    void twoTokens();
    void removedAndPutBack();
    void removedMeanwhile();
    void moduleFails_data();
    void moduleFails();
    void modulePrints();
    void answersOthersMeanwhile();
    void floodOfCalls();
    void floodOfLists();
    void helperEndsWithClient_data();
    void helperEndsWithClient();
    void peerVanishesMeanwhile();
    void waitsForTheNextCall();
    void settingsOfTheMoment();
    void settingsInUtf8();
    void waitingHelperIsGivenUp();
    void helperForACall();
    void slowHelperForACall();
    void waitingHelperEnds();
    void waitingHelperHangs();
    void helperDiesOfAnySignal();
    void helperDiesAtItsStart();
    void helperCannotStart();
    void unwritableRequest_data();
    void unwritableRequest();
    void outOfDescriptors();
    void closesOnExec();
    void endsSilently_data();
    void endsSilently();

    void noSecrets();
    void noSecretsWhateverTheEnd_data();
    void noSecretsWhateverTheEnd();
    void methodAuthenticates();

private:
    /// A token "one" with this certificate, and the client set up to take it; the certificate's URI.
    static QString enrolled(ClientFixture &client, const QString &cert, const QString &key = QStringLiteral("rsa"));
};

void TstClientToken::init()
{
    TestDevice::reset();
    ClientFixture::prepare();
    QVERIFY(SoftTokens::reset());
    QVERIFY(set("trust-anchors", SoftTokens::authority));
    QVERIFY(set("module", SoftTokens::module));
}

QString TstClientToken::enrolled(ClientFixture &client, const QString &cert, const QString &key)
{
    // The client describes certificates in UTC, also where the local date is the day before.
    const QStringList environment = SoftTokens::environment() + QStringList{QStringLiteral("TZ=UTC+12")};
    if (cert.isEmpty() || !SoftTokens::add(one) || !SoftTokens::enroll(one, id1, cert, key)
        || !client.start(environment))
        return {};
    const QStringList certs = client.certList();
    return certs.size() == 1 ? certs.constFirst() : QString();
}

void TstClientToken::sleepsAfterCalls()
{
    QVERIFY(makeUnruly("none"));
    ClientFixture client;
    const QString cert = enrolled(client, goodCert());
    QVERIFY(!cert.isEmpty());
    QTRY_COMPARE(childrenOf(client).size(), 1);
    const QStringList waiting = childrenOf(client);
    // Only the waiting helper's timer is left.
    QVERIFY(waitUntil([&client] { return pollTimeout(client.process.processId()) > callTimeout; }));
    QCOMPARE(childrenOf(client), waiting);
    // The client has not lost track of how far the helper is, and does not repeat its call.
    QCOMPARE(client.validateCert(cert, ::wrongPin), failed);
    QCOMPARE(TestDevice::readFile(QStringLiteral("/home/alice/wrong-pins.one")), QByteArray("1"));
}

void TstClientToken::list()
{
    QVERIFY(SoftTokens::add(one));
    QVERIFY(SoftTokens::enroll(one, id1, goodCert()));
    const QString ec = SoftTokens::issue(QStringLiteral("ec"), SoftTokens::loginTemplate(), QStringLiteral("ec"));
    QVERIFY(SoftTokens::enroll(one, id3, ec, QStringLiteral("ec")));
    // A certificate without a key.
    QVERIFY(SoftTokens::putCert(one, id2, goodCert()));
    ClientFixture client;
    QVERIFY(client.start(SoftTokens::environment()));

    const QStringList certs = client.certList();
    QCOMPARE(certs.size(), 2);
    for (const QString &cert : certs) {
        QVERIFY2(cert.startsWith(QStringLiteral("pkcs11:")) && cert.contains(QStringLiteral("token=one;"))
                     && cert.contains(QStringLiteral(";object=certificate;type=cert?holder=Alice%20Liddell"
                                                     "&issuer=Authority%20root&expires=20")),
                 qPrintable(cert));
        QCOMPARE(client.validateCert(cert, pin), success);
    }
    QCOMPARE(certs.filter(QStringLiteral(";id=%01;")).size(), 1);
    QCOMPARE(certs.filter(QStringLiteral(";id=%A1%B2%C3;"), Qt::CaseInsensitive).size(), 1);
    QCOMPARE(client.certList(), certs);
    QVERIFY(client.output().isEmpty());
}

void TstClientToken::describes_data()
{
    QTest::addColumn<QByteArray>("name");
    QTest::addColumn<QString>("holder");
    const QByteArray longest(255, 'a');
    QTest::newRow("name with separators") << QByteArray("A&B=C?D") << QStringLiteral("A%26B%3DC%3FD");
    QTest::newRow("longest name") << longest << QString::fromLatin1(longest);
    QTest::newRow("too long a name") << QByteArray(longest + 'a') << QString();
    QTest::newRow("no name") << QByteArray() << QString();
}

void TstClientToken::describes()
{
    QFETCH(QByteArray, name);
    QFETCH(QString, holder);
    const QByteArray line = name.isEmpty() ? QByteArray() : QByteArray("cn = \"" + name + "\"\n");
    ClientFixture client;
    const QString cert =
        enrolled(client, SoftTokens::issue(QStringLiteral("case"),
                                           without(SoftTokens::loginTemplate(), "cn = \"Alice Liddell\"") + line));
    QVERIFY2(cert.contains(QStringLiteral(";type=cert?holder=%1&issuer=Authority%20root&expires=20").arg(holder)),
             qPrintable(cert));
    QCOMPARE(client.validateCert(cert, pin), success);
}

void TstClientToken::listsHiddenKeys()
{
    // The token's keys are visible only with the PIN.
    QVERIFY(SoftTokens::add(one));
    // A certificate that does not say whether it is an authority's: that extension becomes an unknown one.
    QVERIFY(SoftTokens::putCert(one, id3, goodCert()));
    QVERIFY(SoftTokens::alter("\x06\x03\x55\x1d\x13", "\x06\x03\x55\x1d\x7f"));
    QVERIFY(SoftTokens::putHiddenKey(one, id1, QStringLiteral("rsa")));
    QVERIFY(SoftTokens::putCert(one, id1, goodCert()));
    QVERIFY(SoftTokens::putCert(one, id2, SoftTokens::authority));
    ClientFixture client;
    QVERIFY(client.start(SoftTokens::environment()));
    const QStringList certs = client.certList();
    QCOMPARE(certs.size(), 2);
    QCOMPARE(certs.filter(QStringLiteral(";id=%A1%B2%C3;"), Qt::CaseInsensitive).size(), 1);
    QCOMPARE(client.validateCert(certs.filter(QStringLiteral(";id=%01;")).value(0), pin), success);
}

void TstClientToken::listsVisibleKeys()
{
    // The token shows a private key without its public key.
    QVERIFY(SoftTokens::add(one));
    QVERIFY(SoftTokens::putVisibleKey(one, id1, QStringLiteral("rsa")));
    for (const QString &id : {id1, id2})
        QVERIFY(SoftTokens::putCert(one, id, goodCert()));
    ClientFixture client;
    QVERIFY(client.start(SoftTokens::environment()));
    const QStringList certs = client.certList();
    QCOMPARE(certs.size(), 1);
    QCOMPARE(client.validateCert(certs.constFirst(), pin), success);
}

void TstClientToken::listsOverRegisteredModules()
{
    QVERIFY(set("module", QString()));
    ClientFixture client;
    const QString cert = enrolled(client, goodCert());
    QVERIFY(!cert.isEmpty());
    QCOMPARE(client.validateCert(cert, pin), success);
    QVERIFY(SoftTokens::remove());
    QCOMPARE(client.certList(), QStringList());
    // The system's trust store does not count as a token of the user.
    QCOMPARE(client.validateCert(QStringLiteral("pkcs11:type=cert"), pin), noToken);
}

void TstClientToken::listsNone_data()
{
    QTest::addColumn<bool>("token");
    QTest::addColumn<bool>("key");
    QTest::addColumn<bool>("authority");
    QTest::addColumn<QString>("authType");
    QTest::newRow("no token") << false << false << false << QString();
    QTest::newRow("empty token") << true << false << false << QString();
    QTest::newRow("no certificate") << true << true << false << QString();
    QTest::newRow("an authority's certificate") << true << false << true << QString();
    QTest::newRow("an authority's certificate and a key") << true << true << true << QString();
}

void TstClientToken::listsNone()
{
    QFETCH(bool, token);
    QFETCH(bool, key);
    QFETCH(bool, authority);
    if (token)
        QVERIFY(SoftTokens::add(one));
    if (key)
        QVERIFY(SoftTokens::putKeys(one, id1, QStringLiteral("rsa")));
    if (authority)
        QVERIFY(SoftTokens::putCert(one, id2, SoftTokens::authority));
    ClientFixture client;
    QVERIFY(client.start(SoftTokens::environment()));
    QCOMPARE(client.certList(), QStringList());
    QVERIFY(set("auth-type", QStringLiteral("password")));
    QCOMPARE(client.certList(), QStringList());
}

void TstClientToken::unsuitableToken_data()
{
    QTest::addColumn<QByteArray>("how");
    QTest::newRow("not initialised") << QByteArray("blank");
    QTest::newRow("without a PIN") << QByteArray("open");
}

void TstClientToken::unsuitableToken()
{
    QFETCH(QByteArray, how);
    ClientFixture client;
    const QString cert = enrolled(client, goodCert());
    QVERIFY(!cert.isEmpty());
    QVERIFY(makeUnruly(how));
    QCOMPARE(client.certList(), QStringList());
    QCOMPARE(client.validateCert(cert, pin), noToken);
}

void TstClientToken::hesitantToken()
{
    ClientFixture client;
    const QString cert = enrolled(client, goodCert());
    QVERIFY(!cert.isEmpty());
    QVERIFY(SoftTokens::enroll(one, id2, goodCert()));
    QVERIFY(makeUnruly("hesitant"));
    const QStringList certs = client.certList();
    QCOMPARE(certs.size(), 2);
    QVERIFY(certs.contains(cert));
}

void TstClientToken::unreadableToken_data()
{
    QTest::addColumn<QByteArray>("how");
    QTest::addColumn<int>("readable");
    QTest::addColumn<QByteArray>("reason");
    QTest::newRow("one's objects") << QByteArray("unreadable") << 2 << QByteArray("An error occurred on the device");
    QTest::newRow("no session with one") << QByteArray("occupied") << 2 << QByteArray("Too many sessions are active");
    QTest::newRow("no list of tokens") << QByteArray("unlisted") << 0 << QByteArray("An error occurred on the device");
}

void TstClientToken::unreadableToken()
{
    QFETCH(QByteArray, how);
    QFETCH(int, readable);
    QFETCH(QByteArray, reason);
    QVERIFY(SoftTokens::add(one));
    QVERIFY(SoftTokens::enroll(one, id1, goodCert()));
    // The soft tokens' module lists its tokens in any order.
    for (const QString &label : {two, three}) {
        QVERIFY(SoftTokens::add(label));
        QVERIFY(SoftTokens::enroll(label, id1, goodCert()));
    }
    ClientFixture client;
    QVERIFY(client.start(SoftTokens::environment()));
    QVERIFY(makeUnruly(how));
    QCOMPARE(client.certList().size(), readable);
    QTRY_VERIFY2(client.output().contains("tarsk.kavet_client: Cannot read a token: " + reason + '\n'),
                 client.output().constData());
}

void TstClientToken::certificateOnUnreadableToken()
{
    ClientFixture client;
    const QString cert = enrolled(client, goodCert());
    QVERIFY(!cert.isEmpty());
    QVERIFY(makeUnruly("unreadable"));
    for (const QString &uri : {cert, QStringLiteral("pkcs11:token=one;type=cert")})
        QCOMPARE(client.validateCert(uri, pin), moduleFailed);
    QTRY_VERIFY(client.output().contains("tarsk.kavet_client: The token module failed: "));
    // A URI that describes no token is not about this one.
    QCOMPARE(client.validateCert(QStringLiteral("pkcs11:id=%01;type=cert"), pin), failed);
}

void TstClientToken::unreadableCertificate()
{
    const QString branch = QStringLiteral("branch");
    QVERIFY(SoftTokens::makeAuthority(branch, QStringLiteral("root")));
    QVERIFY(SoftTokens::add(one));
    QVERIFY(SoftTokens::enroll(
        one, id1,
        SoftTokens::issue(QStringLiteral("case"), SoftTokens::loginTemplate(), QStringLiteral("rsa"), branch)));
    QVERIFY(SoftTokens::putCert(one, id2, QStringLiteral("/home/alice/ca/branch.pem")));
    QVERIFY(SoftTokens::enroll(one, id3, goodCert()));
    QVERIFY(SoftTokens::damage(goodCert()));
    ClientFixture client;
    QVERIFY(client.start(SoftTokens::environment()));
    const QStringList certs = client.certList();
    QCOMPARE(certs.size(), 1);
    QCOMPARE(client.validateCert(certs.constFirst(), pin), success);
    QCOMPARE(client.validateCert(QStringLiteral("pkcs11:token=one;id=%A1%B2%C3;type=cert"), pin), failed);
}

void TstClientToken::vastLabel()
{
    ClientFixture client;
    const QString cert = enrolled(client, goodCert());
    QVERIFY(!cert.isEmpty());
    QVERIFY(SoftTokens::putCert(one, id2, goodCert()));
    QCOMPARE(client.certList(), QStringList{cert});
    // Nothing is known about an object that cannot be read, so the keys may be hidden.
    QVERIFY(makeUnruly("vast"));
    const QStringList certs = client.certList();
    QCOMPARE(certs.size(), 2);
    QVERIFY(certs.contains(cert));
}

void TstClientToken::noLabel_data()
{
    QTest::addColumn<QByteArray>("how");
    QTest::newRow("none") << QByteArray("unlabelled");
    QTest::newRow("unreadable") << QByteArray("secretive");
}

void TstClientToken::noLabel()
{
    QFETCH(QByteArray, how);
    ClientFixture client;
    QVERIFY(!enrolled(client, goodCert()).isEmpty());
    QVERIFY(makeUnruly(how));
    const QStringList certs = client.certList();
    QCOMPARE(certs.size(), 1);
    QVERIFY2(!certs.constFirst().contains(QStringLiteral("object=certificate")), qPrintable(certs.constFirst()));
    QCOMPARE(client.validateCert(certs.constFirst(), pin), success);
}

void TstClientToken::listsDefaultFirst()
{
    ClientFixture client;
    QVERIFY(!enrolled(client, goodCert()).isEmpty());
    for (const QString &id : {id2, id3}) {
        QVERIFY(SoftTokens::putKeys(one, id, QStringLiteral("rsa")));
        QVERIFY(SoftTokens::putCert(one, id, goodCert(), pin, QStringLiteral("other")));
    }
    const QStringList certs = client.certList();
    QCOMPARE(certs.size(), 3);
    for (int i = 0; i < certs.size(); ++i) {
        QVERIFY(set("default-cert", certs.at(i)));
        QStringList sorted = certs;
        sorted.move(i, 0);
        QCOMPARE(client.certList(), sorted);
    }
    // A URI with fewer attributes still identifies the certificate.
    QVERIFY(set("default-cert", QStringLiteral("pkcs11:token=one;id=%A1%B2%C3;type=cert")));
    QVERIFY(client.certList().constFirst().contains(QStringLiteral(";id=%A1%B2%C3;"), Qt::CaseInsensitive));
    // An ambiguous URI does not.
    QVERIFY(set("default-cert", QStringLiteral("pkcs11:token=one;object=other;type=cert")));
    QCOMPARE(client.certList(), certs);
    // Nor does one that is invalid further on.
    QVERIFY(set("default-cert", QStringLiteral("pkcs11:token=one;id=%A1%B2%C3;type=cert;serial=%0")));
    QCOMPARE(client.certList(), certs);
    QVERIFY(set("auth-type", QStringLiteral("password")));
    QCOMPARE(client.certList(), QStringList());
}

void TstClientToken::commandLineList()
{
    ClientFixture client;
    const QString cert = enrolled(client, goodCert());
    QVERIFY(!cert.isEmpty());
    const auto run = [] {
        return ClientFixture::run({QStringLiteral("--certs")}, {}, TestDevice::alice, SoftTokens::environment());
    };
    ClientFixture::Result result = run();
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.output, QByteArray(cert.toUtf8() + '\n'));
    QProcess toFullDisk;
    ClientFixture::asUser(toFullDisk, ClientFixture::program, {QStringLiteral("--certs")});
    ClientFixture::addToEnvironment(toFullDisk, SoftTokens::environment());
    toFullDisk.setStandardOutputFile(QStringLiteral("/dev/full"));
    toFullDisk.start();
    QVERIFY(toFullDisk.waitForFinished());
    QCOMPARE(toFullDisk.exitCode(), 1);
    QCOMPARE(toFullDisk.readAllStandardError(),
             QByteArray("tarsk.kavet_client: Cannot write the list: No space left on device\n"));
    QVERIFY(makeUnruly("initialize"));
    result = run();
    QCOMPARE(result.exitCode, 1);
    QVERIFY(result.output.isEmpty());
    QCOMPARE(result.error, QByteArray("tarsk.kavet_client: Cannot load the token module: Internal error\n"));
    QVERIFY(set("module", QStringLiteral("/nowhere.so")));
    result = run();
    QCOMPARE(result.exitCode, 1);
    QVERIFY(result.output.isEmpty());
    QVERIFY2(result.error.startsWith("tarsk.kavet_client: Cannot load the token module: ")
                 && result.error.contains("/nowhere.so"),
             result.error.constData());
}

void TstClientToken::listLeavesNothingOpen()
{
    ClientFixture client;
    QVERIFY(!enrolled(client, goodCert()).isEmpty());
    QVERIFY(makeUnruly("record"));
    QCOMPARE(ClientFixture::run({QStringLiteral("--certs")}, {}, TestDevice::alice, SoftTokens::environment()).exitCode,
             0);
    // Once, and with no session.
    QCOMPARE(TestDevice::readFile(QStringLiteral("/home/alice/finalised")), QByteArray("0\n"));
}

void TstClientToken::longCertificate()
{
    const QByteArray names = QByteArray("dns_name = \"a-rather-long-name.corp.example\"\n").repeated(130);
    const QString cert = SoftTokens::issue(QStringLiteral("long"), SoftTokens::loginTemplate() + names);
    ClientFixture client;
    const QString uri = enrolled(client, cert);
    QVERIFY(QFileInfo(cert + QStringLiteral(".der")).size() > 4096);
    QCOMPARE(client.validateCert(uri, pin), success);
}

void TstClientToken::manyCertificates()
{
    ClientFixture client;
    QVERIFY(!enrolled(client, goodCert()).isEmpty());
    for (int i = 0; i < 199; ++i)
        QVERIFY(SoftTokens::putCert(one, QString::number(0x1000 + i, 16), goodCert()));
    QVERIFY(SoftTokens::putKeys(one, QStringLiteral("10c6"), QStringLiteral("rsa")));
    // Two of the 200 certificates have a key; the client reads all of them.
    QStringList certs = client.certList();
    QCOMPARE(certs.size(), 2);
    QCOMPARE(client.validateCert(certs.constLast(), pin), success);

    QVERIFY(SoftTokens::add(two));
    QVERIFY(SoftTokens::putHiddenKey(two, id1, QStringLiteral("rsa")));
    for (int i = 0; i < 200; ++i)
        QVERIFY(SoftTokens::putCert(two, QString::number(0x1000 + i, 16), goodCert()));
    certs = client.certList();
    QCOMPARE(certs.size(), 202);
    QCOMPARE(certs.removeDuplicates(), 0);
}

void TstClientToken::tooManyCertificates()
{
    constexpr int count = 1500;
    const QByteArray id("\xca\xfe\x00\x00", 4);
    QVERIFY(SoftTokens::add(one));
    QVERIFY(SoftTokens::putCert(one, QString::fromLatin1(id.toHex()), goodCert()));
    QVERIFY(SoftTokens::multiply(id, count));
    const QString last = QStringLiteral("pkcs11:token=one;id=%CA%FE%05%DB;type=cert");
    QVERIFY(set("default-cert", last));
    ClientFixture client;
    QVERIFY(client.start(SoftTokens::environment()));
    // As many as the plugin accepts, including the default one.
    const QStringList certs = client.certList();
    QCOMPARE(certs.size(), 1000);
    QVERIFY2(certs.constFirst().contains(QStringLiteral("id=%CA%FE%05%DB"), Qt::CaseInsensitive),
             qPrintable(certs.constFirst()));
    QTRY_VERIFY(client.output().contains("The list of 1500 certificates is too long; listing only 1000"));
}

void TstClientToken::longestList()
{
    constexpr int size = 512;
    constexpr int count = 256 * 1024 / size;
    const QByteArray id("\xca\xfe\x00\x00", 4);
    const auto put = [&id](const QString &label) {
        return SoftTokens::putCert(one, QString::fromLatin1(id.toHex()), goodCert(), pin, label);
    };
    QVERIFY(SoftTokens::add(one) && put(QStringLiteral("x")));
    ClientFixture client;
    QVERIFY(client.start(SoftTokens::environment()));
    const int rest = size - client.certList().value(0).size();
    QVERIFY(rest > 0);
    QVERIFY(SoftTokens::reset() && SoftTokens::add(one) && put(QString(rest + 1, QLatin1Char('x'))));
    QVERIFY(SoftTokens::multiply(id, count));
    const QStringList certs = client.certList();
    QCOMPARE(certs.size(), count);
    QCOMPARE(certs.join(QString()).size(), count * size);
    QVERIFY(client.output().isEmpty());
    // A peer that reads late also gets what does not fit into the socket's buffer.
    QTRY_COMPARE(childrenOf(client).size(), 1);
    const QStringList waiting = childrenOf(client);
    const RawConnection peer;
    QVERIFY(peer.send(RawConnection::handshake) && peer.receives("OK "));
    QVERIFY(shrinkBuffers(client));
    QVERIFY(peer.send(RawConnection::call("getCertList", {})));
    QTRY_VERIFY_WITH_TIMEOUT(childrenOf(client).size() == 1 && childrenOf(client) != waiting, callTimeout);
    QVERIFY(peer.receives("pkcs11:", count));
    // With one more, there is no room for descriptions.
    QVERIFY(SoftTokens::putCert(one, id1, goodCert()));
    QCOMPARE(client.certList().size(), count + 1);
    QVERIFY(client.certList().filter(QStringLiteral("?")).isEmpty());
    QVERIFY(client.output().isEmpty());
    // Nor for all certificates, when the URIs alone are so long.
    QVERIFY(SoftTokens::reset() && SoftTokens::add(one) && put(QString(size, QLatin1Char('x'))));
    QVERIFY(SoftTokens::multiply(id, count));
    const QStringList some = client.certList();
    const int total = some.join(QString()).size();
    QVERIFY2(total <= count * size && total + some.value(0).size() > count * size, qPrintable(QString::number(total)));
    QTRY_VERIFY2(client.output().contains("The list of 512 certificates is too long; listing only "
                                          + QByteArray::number(some.size()) + '\n'),
                 client.output().constData());
}

void TstClientToken::accepts_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QString>("key");
    QTest::addColumn<QStringList>("mapping");
    QTest::addColumn<QString>("domain");

    const QByteArray base = SoftTokens::loginTemplate();
    const QByteArray nameless = without(base, "uid = \"alice\"");
    const QByteArray principal = nameless + "other_name_utf8 = \"1.3.6.1.4.1.311.20.2.3 alice@corp.example\"\n";
    const QByteArray mail = nameless + "email = \"alice@corp.example\"\n";
    const QString rsa = QStringLiteral("rsa");
    const QString ec = QStringLiteral("ec");
    const auto only = [](const char *mapping) {
        return QStringList{QString::fromLatin1(mapping)};
    };

    QTest::newRow("RSA") << base << rsa << QStringList() << QString();
    QTest::newRow("EC, P-256") << base << ec << QStringList() << QString();
    QTest::newRow("EC, P-384") << base << QStringLiteral("ec-384") << QStringList() << QString();
    QTest::newRow("EC, P-521") << base << QStringLiteral("ec-521") << QStringList() << QString();
    QTest::newRow("Ed25519") << base << QStringLiteral("ed25519") << QStringList() << QString();
    QTest::newRow("smart-card logon") << without(base, "tls_www_client") + "key_purpose_oid = 1.3.6.1.4.1.311.20.2.2\n"
                                      << ec << QStringList() << QString();
    // The one in between is as long as GnuTLS reads.
    QTest::newRow("smart-card logon after others")
        << without(base, "tls_www_client") + "key_purpose_oid = 1.3.6.1.5.5.7.3.4\nkey_purpose_oid = 1.3.6.1.4.1.311"
               + QByteArray(".123456789").repeated(11) + ".1\nkey_purpose_oid = 1.3.6.1.4.1.311.20.2.2\n"
        << ec << QStringList() << QString();
    QTest::newRow("both purposes and another")
        << base + "key_purpose_oid = 1.3.6.1.4.1.311.20.2.2\nemail_protection_key\n"
        << ec << QStringList() << QString();
    // In the certificate, this name's last part comes first.
    QTest::newRow("after a long user id")
        << without(nameless, "cn = \"Alice Liddell\"") + "dn = \"CN=Alice Liddell,UID=alice,UID=" + QByteArray(300, 'a')
               + "\"\n"
        << ec << QStringList() << QString();
    QTest::newRow("principal name") << principal << ec << QStringList() << QString();
    QTest::newRow("mail address") << mail << ec << QStringList() << QString();
    QTest::newRow("second mail address") << nameless + "email = \"al@corp.example\"\nemail = \"alice@corp.example\"\n"
                                         << ec << QStringList() << QString();
    QTest::newRow("user id alone") << base << ec << only("uid") << QString();
    QTest::newRow("principal name alone") << principal << ec << only("upn") << QString();
    QTest::newRow("mail address alone") << mail << ec << only("email") << QString();
    QTest::newRow("common name") << QByteArray(nameless).replace("Alice Liddell", "alice") << ec << only("cn")
                                 << QString();
    QTest::newRow("one of two") << mail << ec << QStringList{QStringLiteral("cn"), QStringLiteral("email")}
                                << QString();
    QTest::newRow("mail address in the domain") << mail << ec << QStringList() << QStringLiteral("Corp.Example");
    QTest::newRow("principal name in the domain") << principal << ec << QStringList() << QStringLiteral("corp.example");
    QTest::newRow("user id whatever the domain") << base << ec << QStringList() << QStringLiteral("corp.example");
}

void TstClientToken::accepts()
{
    QFETCH(QByteArray, content);
    QFETCH(QString, key);
    QFETCH(QStringList, mapping);
    QFETCH(QString, domain);

    if (!mapping.isEmpty())
        QVERIFY(set("mapping", mapping));
    QVERIFY(set("mapping-domain", domain));
    QVERIFY(ClientFixture::setAttempts("3"));
    ClientFixture client;
    const QString cert = enrolled(client, SoftTokens::issue(QStringLiteral("case"), content, key), key);
    QVERIFY(!cert.isEmpty());
    QCOMPARE(client.validateCert(cert, pin), success);
    QCOMPARE(ClientFixture::attempts(), 0);
    QVERIFY2(client.output().isEmpty(), client.output().constData());
}

void TstClientToken::keyForOnePadding()
{
    // The certificate requires RSA-PSS; the token's key is for plain RSA.
    ClientFixture client;
    const QString cert = enrolled(
        client, SoftTokens::issue(QStringLiteral("case"), SoftTokens::loginTemplate(), QStringLiteral("rsa-pss")),
        QStringLiteral("rsa-pss-plain"));
    QVERIFY(!cert.isEmpty());
    QCOMPARE(client.validateCert(cert, pin), success);
    QCOMPARE(client.validateCert(cert, ::wrongPin), failed);
}

void TstClientToken::weakKey()
{
    const QString weak = QStringLiteral("rsa-1024");
    ClientFixture client;
    const QString cert =
        enrolled(client, SoftTokens::issue(QStringLiteral("case"), SoftTokens::loginTemplate(), weak), weak);
    QVERIFY(!cert.isEmpty());
    QCOMPARE(client.validateCert(cert, pin), failed);
}

void TstClientToken::refuses_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QStringList>("mapping");
    QTest::addColumn<QString>("domain");

    const QByteArray base = SoftTokens::loginTemplate();
    const QByteArray nameless = without(base, "uid = \"alice\"");
    const QByteArray timeless = without(base, "expiration_days = 30");
    const QByteArray mail = nameless + "email = \"alice@corp.example\"\n";
    const QByteArray principal = nameless + "other_name_utf8 = \"1.3.6.1.4.1.311.20.2.3 alice@corp.example\"\n";
    // With the other key purpose, or with EC keys, certtool would add the key usage itself.
    const QByteArray usageless =
        without(without(base, "tls_www_client"), "signing_key") + "key_purpose_oid = 1.3.6.1.4.1.311.20.2.2\n";
    const auto only = [](const char *mapping) {
        return QStringList{QString::fromLatin1(mapping)};
    };

    QTest::newRow("expired") << expired() << QStringList() << QString();
    QTest::newRow("not yet valid")
        << timeless + "activation_date = \"2200-01-01 00:00:00\"\nexpiration_date = \"2201-01-01 00:00:00\"\n"
        << QStringList() << QString();
    QTest::newRow("not for signing") << usageless + "encryption_key\n" << QStringList() << QString();
    QTest::newRow("no key usage") << usageless << QStringList() << QString();
    QTest::newRow("no purpose") << without(base, "tls_www_client") << QStringList() << QString();
    QTest::newRow("other purposes") << without(base, "tls_www_client") + "tls_www_server\nemail_protection_key\n"
                                    << QStringList() << QString();
    QTest::newRow("critical extension that nobody knows")
        << base + "add_critical_extension = \"1.2.3.4.5 octet_string(0x0500)\"\n"
        << QStringList() << QString();
    QTest::newRow("another's user id") << QByteArray(base).replace("alice", "bob") << QStringList() << QString();
    QTest::newRow("nobody's") << nameless << QStringList() << QString();
    QTest::newRow("user id in other case") << QByteArray(base).replace("alice", "Alice") << QStringList() << QString();
    QTest::newRow("user id that begins alike")
        << QByteArray(base).replace("alice", "alice2") << QStringList() << QString();
    QTest::newRow("common name does not count")
        << QByteArray(nameless).replace("Alice Liddell", "alice") << QStringList() << QString();
    QTest::newRow("address of another") << QByteArray(mail).replace("alice@", "bob@") << QStringList() << QString();
    QTest::newRow("address without user") << QByteArray(mail).replace("alice@", "@alice") << QStringList() << QString();
    QTest::newRow("address without domain")
        << QByteArray(mail).replace("@corp.example", "") << QStringList() << QString();
    QTest::newRow("principal name without domain")
        << QByteArray(principal).replace("@corp.example", "") << QStringList() << QString();
    QTest::newRow("address with two parts")
        << QByteArray(mail).replace("alice@", "alice@alice@") << QStringList() << QString();
    QTest::newRow("address in another domain") << mail << QStringList() << QStringLiteral("example");
    // The address "alice@corp.example\0.other", as it is encoded
    QTest::newRow("address with a null byte")
        << nameless + "add_extension = \"2.5.29.17 0x301b8119616c69636540636f72702e6578616d706c65002e6f74686572\"\n"
        << QStringList() << QStringLiteral("corp.example");
    QTest::newRow("principal name in another domain") << principal << QStringList() << QStringLiteral("example");
    QTest::newRow("user id not wanted") << base << only("email") << QString();
    QTest::newRow("address not wanted") << mail << only("upn") << QString();
    QTest::newRow("principal name not wanted") << principal << only("email") << QString();
    QTest::newRow("mapping unknown") << base << only("face") << QString();
    QTest::newRow("other kind of name") << nameless + "other_name_utf8 = \"1.3.6.1.5.2.2.9 alice@corp.example\"\n"
                                        << QStringList() << QString();
}

void TstClientToken::refuses()
{
    QFETCH(QByteArray, content);
    QFETCH(QStringList, mapping);
    QFETCH(QString, domain);

    if (!mapping.isEmpty())
        QVERIFY(set("mapping", mapping));
    QVERIFY(set("mapping-domain", domain));
    ClientFixture client;
    const QString cert = enrolled(client, SoftTokens::issue(QStringLiteral("case"), content));
    QVERIFY(!cert.isEmpty());
    QCOMPARE(client.validateCert(cert, pin), failed);
}

void TstClientToken::otherAuthority()
{
    QVERIFY(SoftTokens::makeAuthority(QStringLiteral("stranger")));
    ClientFixture client;
    const QString cert = enrolled(client, SoftTokens::issue(QStringLiteral("case"), SoftTokens::loginTemplate(),
                                                            QStringLiteral("rsa"), QStringLiteral("stranger")));
    QVERIFY(!cert.isEmpty());
    QCOMPARE(client.validateCert(cert, pin), failed);
    // An authority from the token is not trusted.
    QVERIFY(SoftTokens::putCert(one, id2, QStringLiteral("/home/alice/ca/stranger.pem")));
    QCOMPARE(client.validateCert(cert, pin), failed);
    QVERIFY(set("trust-anchors", QStringLiteral("/home/alice/ca/stranger.pem")));
    QCOMPARE(client.validateCert(cert, pin), success);
}

void TstClientToken::authorityInBetween()
{
    QVERIFY(SoftTokens::makeAuthority(QStringLiteral("branch"), QStringLiteral("root")));
    QVERIFY(SoftTokens::makeAuthority(QStringLiteral("twig"), QStringLiteral("branch")));
    ClientFixture client;
    const QString cert = enrolled(client, SoftTokens::issue(QStringLiteral("case"), SoftTokens::loginTemplate(),
                                                            QStringLiteral("rsa"), QStringLiteral("twig")));
    QVERIFY(!cert.isEmpty());
    QCOMPARE(client.validateCert(cert, pin), failed);
    QVERIFY(SoftTokens::putCert(one, id2, QStringLiteral("/home/alice/ca/branch.pem")));
    QCOMPARE(client.validateCert(cert, pin), failed);
    QVERIFY(SoftTokens::putCert(one, id3, QStringLiteral("/home/alice/ca/twig.pem")));
    QCOMPARE(client.validateCert(cert, pin), success);
    QCOMPARE(client.certList(), QStringList{cert});
    // The anchor may be on the token, too.
    QVERIFY(SoftTokens::putCert(one, QStringLiteral("06"), SoftTokens::authority));
    QCOMPARE(client.validateCert(cert, pin), success);

    // A user's certificate is not an authority.
    QVERIFY(QFile::copy(QStringLiteral("/home/alice/ca/rsa.key"), QStringLiteral("/home/alice/ca/good.key"))
            || QFile::exists(QStringLiteral("/home/alice/ca/good.key")));
    TestDevice::setOwner(QStringLiteral("/home/alice/ca/good.key"), TestDevice::alice, TestDevice::alice);
    const QString forged = SoftTokens::issue(QStringLiteral("forged"), SoftTokens::loginTemplate(),
                                             QStringLiteral("ec"), QFileInfo(goodCert()).completeBaseName());
    QVERIFY(!forged.isEmpty());
    QVERIFY(SoftTokens::putCert(one, QStringLiteral("04"), goodCert()));
    QVERIFY(SoftTokens::enroll(one, QStringLiteral("05"), forged, QStringLiteral("ec")));
    const QStringList certs = client.certList().filter(QStringLiteral("id=%05"));
    QCOMPARE(certs.size(), 1);
    QCOMPARE(client.validateCert(certs.constFirst(), pin), failed);
}

void TstClientToken::manyAuthoritiesInBetween()
{
    QString above = QStringLiteral("root");
    QVERIFY(SoftTokens::add(one));
    for (int i = 1; i <= 8; ++i) {
        const QString name = QStringLiteral("level%1").arg(i);
        QVERIFY(SoftTokens::makeAuthority(name, above));
        QVERIFY(
            SoftTokens::putCert(one, QString::number(0x10 + i, 16), QStringLiteral("/home/alice/ca/%1.pem").arg(name)));
        above = name;
    }
    QVERIFY(SoftTokens::enroll(
        one, id1,
        SoftTokens::issue(QStringLiteral("case"), SoftTokens::loginTemplate(), QStringLiteral("rsa"), above)));
    ClientFixture client;
    QVERIFY(client.start(SoftTokens::environment()));
    QCOMPARE(client.validateCert(QStringLiteral("pkcs11:token=one;id=%01;type=cert"), pin), success);
}

void TstClientToken::renewedAuthorityInBetween_data()
{
    QTest::addColumn<QByteArray>("otherTime");
    QTest::newRow("former") << inThePast;
    QTest::newRow("future") << inTheFuture;
}

void TstClientToken::renewedAuthorityInBetween()
{
    QFETCH(QByteArray, otherTime);
    const QString name = QStringLiteral("twig");
    QVERIFY(makeRenewedAuthority(name, QStringLiteral("root"), otherTime));
    ClientFixture client;
    const QString cert = enrolled(
        client, SoftTokens::issue(QStringLiteral("case"), SoftTokens::loginTemplate(), QStringLiteral("rsa"), name));
    QVERIFY(!cert.isEmpty());
    const auto putOther = [] {
        bool stored = true;
        for (int id = 10; id < 14; ++id) // The token shows them in any order.
            stored = stored && SoftTokens::putCert(one, QString::number(id), otherPath);
        return stored;
    };
    QVERIFY(putOther());
    QCOMPARE(client.validateCert(cert, pin), failed);
    QVERIFY(SoftTokens::putCert(one, id2, QStringLiteral("/home/alice/ca/twig.pem")));
    QCOMPARE(client.validateCert(cert, pin), success);
    QVERIFY(putOther());
    QCOMPARE(client.validateCert(cert, pin), success);
}

void TstClientToken::renewedAuthority()
{
    const QString name = QStringLiteral("renewed");
    QVERIFY(makeRenewedAuthority(name, QString(), inThePast));
    ClientFixture client;
    const QString cert = enrolled(
        client, SoftTokens::issue(QStringLiteral("case"), SoftTokens::loginTemplate(), QStringLiteral("rsa"), name));
    QVERIFY(!cert.isEmpty());
    QVERIFY(SoftTokens::putCert(one, id2, otherPath));
    QVERIFY(set("trust-anchors", otherPath));
    QCOMPARE(client.validateCert(cert, pin), failed);
    // The certificate that has expired does no harm.
    QVERIFY(set("trust-anchors", QStringLiteral("/home/alice/ca/renewed.pem")));
    QCOMPARE(client.validateCert(cert, pin), success);
}

void TstClientToken::authorityForAnotherPurpose()
{
    const QString mail = QStringLiteral("mail");
    QVERIFY(SoftTokens::makeAuthority(mail, QStringLiteral("root"), "email_protection_key\n"));
    ClientFixture client;
    const QString cert = enrolled(
        client, SoftTokens::issue(QStringLiteral("case"), SoftTokens::loginTemplate(), QStringLiteral("rsa"), mail));
    QVERIFY(!cert.isEmpty());
    QVERIFY(SoftTokens::putCert(one, id2, QStringLiteral("/home/alice/ca/mail.pem")));
    QCOMPARE(client.validateCert(cert, pin), failed);
}

void TstClientToken::anchorDirectory()
{
    const QString anchors = QStringLiteral("/home/alice/anchors");
    QDir(anchors).removeRecursively();
    QVERIFY(SoftTokens::makeAuthority(QStringLiteral("stranger")));
    QVERIFY(TestDevice::writeFile(anchors + QStringLiteral("/stranger.pem"),
                                  TestDevice::readFile(QStringLiteral("/home/alice/ca/stranger.pem"))));
    QVERIFY(set("trust-anchors", anchors));
    ClientFixture client;
    const QString cert = enrolled(client, goodCert());
    QVERIFY(!cert.isEmpty());
    QCOMPARE(client.validateCert(cert, pin), failed);
    QVERIFY(TestDevice::writeFile(anchors + QStringLiteral("/root.pem"), TestDevice::readFile(SoftTokens::authority)));
    QCOMPARE(client.validateCert(cert, pin), success);

    // The same for revocation lists.
    QVERIFY(set("crls", anchors));
    QCOMPARE(client.validateCert(cert, pin), failed);
    const QString crls = QStringLiteral("/home/alice/crls");
    QDir(crls).removeRecursively();
    QVERIFY(QDir().mkpath(crls));
    QVERIFY(set("crls", crls));
    QCOMPARE(client.validateCert(cert, pin), failed);
    const QString other = SoftTokens::issue(QStringLiteral("other"), SoftTokens::loginTemplate());
    QVERIFY(TestDevice::writeFile(crls + QStringLiteral("/root.pem"), TestDevice::readFile(SoftTokens::revoke(other))));
    QCOMPARE(client.validateCert(cert, pin), success);
}

void TstClientToken::noAnchors_data()
{
    QTest::addColumn<QString>("anchors");
    QTest::newRow("not configured") << QString();
    QTest::newRow("no such file") << QStringLiteral("/nowhere");
    QTest::newRow("no certificate") << QStringLiteral("/etc/passwd");
    QTest::newRow("no certificate in the directory") << QStringLiteral("/srv/shared");
}

void TstClientToken::noAnchors()
{
    QFETCH(QString, anchors);
    QVERIFY(set("trust-anchors", anchors));
    ClientFixture client;
    const QString cert = enrolled(client, goodCert());
    QVERIFY(!cert.isEmpty());
    QCOMPARE(client.validateCert(cert, pin), failed);
    QTRY_VERIFY(client.output().contains("tarsk.kavet_client: No trust anchors in " + anchors.toUtf8() + '\n'));
}

void TstClientToken::revoked()
{
    const QString cert = SoftTokens::issue(QStringLiteral("case"), SoftTokens::loginTemplate());
    ClientFixture client;
    const QString uri = enrolled(client, cert);
    QVERIFY(!uri.isEmpty());
    const QString other = SoftTokens::issue(QStringLiteral("other"), SoftTokens::loginTemplate());
    QVERIFY(set("crls", SoftTokens::revoke(other)));
    QCOMPARE(client.validateCert(uri, pin), success);
    QVERIFY(set("crls", SoftTokens::revoke(cert)));
    QCOMPARE(client.validateCert(uri, pin), failed);
}

void TstClientToken::uselessRevocationLists_data()
{
    QTest::addColumn<QString>("authority");
    QTest::addColumn<bool>("stale");
    QTest::addColumn<bool>("besideGood");
    QTest::addColumn<bool>("inDirectory");
    QTest::newRow("out of date") << QStringLiteral("root") << true << false << false;
    QTest::newRow("by a stranger") << QStringLiteral("stranger") << false << false << false;
    QTest::newRow("by a stranger, beside a good one") << QStringLiteral("stranger") << false << true << false;
    QTest::newRow("no such file") << QString() << false << false << false;
    QTest::newRow("directory, out of date") << QStringLiteral("root") << true << false << true;
    QTest::newRow("directory, by a stranger, beside a good one") << QStringLiteral("stranger") << false << true << true;
    QTest::newRow("directory, lost, beside a good one") << QString() << false << true << true;
}

void TstClientToken::uselessRevocationLists()
{
    QFETCH(QString, authority);
    QFETCH(bool, stale);
    QFETCH(bool, besideGood);
    QFETCH(bool, inDirectory);
    QVERIFY(SoftTokens::makeAuthority(QStringLiteral("stranger")));
    QString crls = QStringLiteral("/nowhere");
    if (!authority.isEmpty())
        crls = SoftTokens::revoke(
            SoftTokens::issue(QStringLiteral("other"), SoftTokens::loginTemplate(), QStringLiteral("rsa"), authority),
            authority, stale);
    const QString good =
        besideGood ? SoftTokens::revoke(SoftTokens::issue(QStringLiteral("third"), SoftTokens::loginTemplate()))
                   : QString();
    if (inDirectory) {
        const QString directory = QStringLiteral("/home/alice/useless-crls");
        QDir(directory).removeRecursively();
        QVERIFY(QDir().mkpath(directory));
        QVERIFY(QFile::link(crls, directory + QStringLiteral("/useless.pem")));
        QVERIFY(!besideGood || QFile::link(good, directory + QStringLiteral("/good.pem")));
        crls = directory;
    } else if (besideGood) {
        QVERIFY(TestDevice::writeFile(crls, TestDevice::readFile(good) + TestDevice::readFile(crls)));
    }
    QVERIFY(set("crls", crls));
    ClientFixture client;
    const QString cert = enrolled(client, goodCert());
    QVERIFY(!cert.isEmpty());
    QCOMPARE(client.validateCert(cert, pin), failed);
    QTRY_VERIFY(client.output().contains("tarsk.kavet_client: No valid revocation lists in " + crls.toUtf8() + '\n'));
}

void TstClientToken::wrongKey_data()
{
    QTest::addColumn<QString>("certified");
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("id");
    const QString rsa = QStringLiteral("rsa");
    const QString ec = QStringLiteral("ec");
    QTest::newRow("another RSA key") << rsa << QStringLiteral("rsa-other") << id1;
    QTest::newRow("an EC key for an RSA certificate") << rsa << ec << id1;
    QTest::newRow("an RSA key for an EC certificate") << ec << rsa << id1;
    QTest::newRow("an EC key for an RSA-PSS certificate") << QStringLiteral("rsa-pss") << ec << id1;
    QTest::newRow("its key under another id") << rsa << rsa << id2;
}

void TstClientToken::wrongKey()
{
    QFETCH(QString, certified);
    QFETCH(QString, key);
    QFETCH(QString, id);
    const QString cert = SoftTokens::issue(QStringLiteral("case"), SoftTokens::loginTemplate(), certified);
    QVERIFY(SoftTokens::add(one));
    QVERIFY(SoftTokens::putHiddenKey(one, id, key));
    QVERIFY(SoftTokens::putCert(one, id1, cert));
    ClientFixture client;
    QVERIFY(client.start(SoftTokens::environment()));
    const QStringList certs = client.certList();
    QCOMPARE(certs.size(), 1);
    QCOMPARE(client.validateCert(certs.constFirst(), pin), failed);
    QCOMPARE(ClientFixture::attempts(), 0);
}

void TstClientToken::forgedSignature()
{
    ClientFixture client;
    const QString cert = enrolled(client, goodCert());
    QVERIFY(!cert.isEmpty());
    QVERIFY(makeUnruly("none"));
    QCOMPARE(client.validateCert(cert, pin), success);
    QVERIFY(makeUnruly("forge"));
    QCOMPARE(client.validateCert(cert, pin), failed);
}

void TstClientToken::freshChallenges()
{
    const QString file = QStringLiteral("/home/alice/signed");
    // With this kind of key, the token gets the challenge itself.
    const QString key = QStringLiteral("ed25519");
    ClientFixture client;
    const QString cert = enrolled(client, SoftTokens::issue(key, SoftTokens::loginTemplate(), key), key);
    QVERIFY(!cert.isEmpty());
    QVERIFY(makeUnruly("record"));
    QSet<QByteArray> challenges;
    for (int i = 0; i < 2; ++i) {
        QCOMPARE(client.validateCert(cert, pin), success);
        challenges << TestDevice::readFile(file);
        QCOMPARE(TestDevice::readFile(file).size(), 32);
    }
    QCOMPARE(challenges.size(), 2);
}

void TstClientToken::badUri_data()
{
    QTest::addColumn<QString>("change");
    QTest::addColumn<QString>("to");
    QTest::addColumn<QString>("answer");

    // Which part of a valid certificate's URI is replaced by what; an empty part means the whole URI.
    QTest::newRow("as it is") << QStringLiteral("pkcs11:") << QStringLiteral("pkcs11:") << success;
    QTest::newRow("shorter") << QStringLiteral(";object=certificate") << QString() << success;
    QTest::newRow("no URI") << QString() << QStringLiteral("certificate") << failed;
    QTest::newRow("a description alone") << QString() << QStringLiteral("holder=Alice") << failed;
    QTest::newRow("empty attributes") << QString() << QStringLiteral("pkcs11:object=;;;id=x") << failed;
    QTest::newRow("empty first attribute") << QString() << QStringLiteral("pkcs11:;id;object=x") << failed;
    QTest::newRow("empty last attribute") << QStringLiteral("type=cert") << QStringLiteral("type=cert;") << success;
    QTest::newRow("another scheme") << QStringLiteral("pkcs11:") << QStringLiteral("file:") << failed;
    QTest::newRow("not encoded") << QStringLiteral("id=%01") << QStringLiteral("id=%0") << failed;
    QTest::newRow("another id") << QStringLiteral("id=%01") << QStringLiteral("id=%09") << failed;
    QTest::newRow("a key") << QStringLiteral("type=cert") << QStringLiteral("type=private") << failed;
    QTest::newRow("another token") << QStringLiteral("token=one") << QStringLiteral("token=three") << noToken;
    QTest::newRow("another serial number") << QStringLiteral("serial=") << QStringLiteral("serial=0") << noToken;
    QTest::newRow("with a PIN") << QStringLiteral("type=cert") << QString(QStringLiteral("type=cert?pin-value=") + pin)
                                << failed;
    QTest::newRow("with a PIN after another attribute")
        << QStringLiteral("object=certificate;type=cert")
        << QString(QStringLiteral("type=cert;object=certificate?pin-value=") + pin) << failed;
    QTest::newRow("with the place of a PIN")
        << QStringLiteral("type=cert") << QStringLiteral("type=cert?pin-source=file:/etc/passwd") << failed;
    QTest::newRow("with a PIN in the path")
        << QStringLiteral("type=cert") << QString(QStringLiteral("type=cert;pin-value=") + pin) << failed;
    QTest::newRow("with a PIN among the description")
        << QStringLiteral("&issuer=") << QStringLiteral("&pin-value=%1&issuer=").arg(pin) << failed;
}

void TstClientToken::badUri()
{
    QFETCH(QString, change);
    QFETCH(QString, to);
    QFETCH(QString, answer);
    ClientFixture client;
    QString cert = enrolled(client, goodCert());
    QVERIFY(!cert.isEmpty());
    QVERIFY(cert.contains(change));
    if (change.isEmpty())
        cert = to;
    else
        cert.replace(change, to);
    QCOMPARE(client.validateCert(cert, answer == success ? pin : ::wrongPin), answer == success ? success : answer);
    QCOMPARE(ClientFixture::attempts(), 0);
}

void TstClientToken::severalForOneUri()
{
    ClientFixture client;
    const QString cert = enrolled(client, goodCert());
    QVERIFY(!cert.isEmpty());
    const QString vague = QStringLiteral("pkcs11:token=one;type=cert");
    QCOMPARE(client.validateCert(vague, pin), success);
    // Only certificates count.
    QVERIFY(SoftTokens::putKeys(one, id3, QStringLiteral("rsa-other")));
    QCOMPARE(client.validateCert(QStringLiteral("pkcs11:token=one"), pin), success);
    QVERIFY(SoftTokens::enroll(one, id2, goodCert()));
    QCOMPARE(client.validateCert(vague, pin), failed);
    QCOMPARE(client.validateCert(cert, pin), success);
    // Nor does it name a default certificate.
    QVERIFY(set("default-cert", vague));
    QVERIFY(set("mapping", QStringLiteral("cn")));
    const QStringList certs = client.certList();
    QCOMPARE(certs.size(), 2);
    for (const QString &each : certs)
        QCOMPARE(client.validateCert(each, pin), failed);
}

void TstClientToken::renewed()
{
    // Key, id and label are the same, and so is the URI.
    ClientFixture client;
    const QString cert = enrolled(client, SoftTokens::issue(QStringLiteral("case"), expired()));
    QVERIFY(!cert.isEmpty());
    QVERIFY2(cert.endsWith(QStringLiteral("&expires=2021-01-01")), qPrintable(cert));
    QCOMPARE(client.validateCert(cert, pin), failed);
    // A URI that says less stands for both of two, which are listed as one.
    QVERIFY(SoftTokens::putCert(one, id1, QStringLiteral("/home/alice/ca/case.pem")));
    QVERIFY(set("default-cert", QStringLiteral("pkcs11:token=one;type=cert")));
    QCOMPARE(client.validateCert(cert, pin), badDefault);
    QVERIFY(set("default-cert", QString()));
    QVERIFY(SoftTokens::putCert(one, id1, goodCert()));
    for (int i = 0; i < 4; ++i) // The token shows them in any order.
        QVERIFY(SoftTokens::putCert(one, id1, QStringLiteral("/home/alice/ca/case.pem")));
    // Of all these, the list describes the renewal.
    const QStringList certs = client.certList();
    QCOMPARE(certs.size(), 1);
    QVERIFY(certs.constFirst() != cert);
    QCOMPARE(certs.constFirst().section(QLatin1Char('?'), 0, 0), cert.section(QLatin1Char('?'), 0, 0));
    QCOMPARE(client.validateCert(cert, pin), success);
    QVERIFY(set("default-cert", cert));
    QCOMPARE(client.validateCert({}, pin), success);
}

void TstClientToken::labels_data()
{
    QTest::addColumn<QString>("label");
    for (const char *label :
         {"a label", "a;label", "a=label", "100%", "100%3B", "a/b?c&d#e", "Schlüssel", "鍵", "pin-pad", "my pin-pad",
          "type=private", "x;type=private", "pkcs11:token=one", "\"quoted\"", "a'b`c\\d", "two\nlines",
          "\033[31mred\033[0m", "\a\b\x7f\xc2\x9b", "\u202ereversed"})
        QTest::newRow(label) << QString::fromUtf8(label);
}

void TstClientToken::labels()
{
    QFETCH(QString, label);
    QVERIFY(SoftTokens::add(label));
    QVERIFY(SoftTokens::putKeys(label, id1, QStringLiteral("rsa")));
    QVERIFY(SoftTokens::putCert(label, id1, goodCert(), pin, label));
    ClientFixture client;
    QVERIFY(client.start(SoftTokens::environment()));
    const QStringList certs = client.certList();
    QCOMPARE(certs.size(), 1);
    QCOMPARE(client.validateCert(certs.constFirst(), pin), success);
    QVERIFY(set("default-cert", certs.constFirst()));
    QCOMPARE(client.validateCert({}, pin), success);
    QVERIFY(SoftTokens::remove());
    QCOMPARE(client.validateCert(certs.constFirst(), pin), noToken);
}

void TstClientToken::keyOnOtherToken()
{
    QVERIFY(SoftTokens::add(one));
    QVERIFY(SoftTokens::putCert(one, id1, goodCert()));
    QVERIFY(SoftTokens::add(two));
    QVERIFY(SoftTokens::putKeys(two, id1, QStringLiteral("rsa")));
    ClientFixture client;
    QVERIFY(client.start(SoftTokens::environment()));
    // The token shows no keys, so the client has to assume that they are hidden. There are none.
    const QStringList certs = client.certList();
    QCOMPARE(certs.size(), 1);
    QCOMPARE(client.validateCert(certs.constFirst(), pin), failed);
    QVERIFY(SoftTokens::putKeys(one, id2, QStringLiteral("rsa")));
    QCOMPARE(client.certList(), QStringList());
    QCOMPARE(client.validateCert(certs.constFirst(), pin), failed);
    QCOMPARE(ClientFixture::attempts(), 0);
}

void TstClientToken::keyThatAsksForEachSignature()
{
    QVERIFY(SoftTokens::add(one));
    QVERIFY(SoftTokens::putHiddenKey(one, id1, QStringLiteral("rsa"), pin, {QStringLiteral("--always-auth")}));
    QVERIFY(SoftTokens::putCert(one, id1, goodCert()));
    ClientFixture client;
    QVERIFY(client.start(SoftTokens::environment()));
    const QStringList certs = client.certList();
    QCOMPARE(certs.size(), 1);
    QCOMPARE(client.validateCert(certs.constFirst(), pin), success);
    QCOMPARE(client.validateCert(certs.constFirst(), ::wrongPin), failed);
    QCOMPARE(ClientFixture::attempts(), 1);
}

void TstClientToken::certificateWithoutId()
{
    QVERIFY(SoftTokens::add(one));
    QVERIFY(SoftTokens::putHiddenKey(one, {}, QStringLiteral("rsa")));
    QVERIFY(SoftTokens::putCert(one, {}, goodCert()));
    ClientFixture client;
    QVERIFY(client.start(SoftTokens::environment()));
    // Nothing relates the certificate to a key.
    QCOMPARE(client.certList(), QStringList());
    QCOMPARE(client.validateCert(QStringLiteral("pkcs11:token=one;type=cert"), pin), failed);
    QCOMPARE(ClientFixture::attempts(), 0);
}

void TstClientToken::wrongPins()
{
    QVERIFY(set("lock-after", 2));
    QVERIFY(set("remove-after", 3));
    ClientFixture client;
    const QString cert = enrolled(client, goodCert());
    QVERIFY(!cert.isEmpty());
    QCOMPARE(client.validateCert(cert, ::wrongPin), failed);
    QCOMPARE(ClientFixture::attempts(), 1);
    QCOMPARE(client.validateCert(cert, pin), success);
    QCOMPARE(ClientFixture::attempts(), 0);
    const QStringList expected = {failed, lock, removal, removal};
    for (const QString &answer : expected)
        QCOMPARE(client.validateCert(cert, ::wrongPin), answer);
    QCOMPARE(ClientFixture::attempts(), 4);
}

void TstClientToken::wrongPin_data()
{
    QTest::addColumn<QString>("wrong");
    QTest::newRow("empty") << QString();
    QTest::newRow("too short") << QStringLiteral("1");
    QTest::newRow("longer") << QString(pin + QStringLiteral("0"));
    QTest::newRow("beginning") << pin.left(pin.size() - 1);
    QTest::newRow("very long") << QStringLiteral("1").repeated(100000);
    QTest::newRow("not ASCII") << QStringLiteral("３１４１５９２６");
    QTest::newRow("line") << QString(pin + QStringLiteral("\n"));
}

void TstClientToken::wrongPin()
{
    QFETCH(QString, wrong);
    ClientFixture client;
    const QString cert = enrolled(client, goodCert());
    QVERIFY(!cert.isEmpty());
    QCOMPARE(client.validateCert(cert, wrong), failed);
    QCOMPARE(ClientFixture::attempts(), 1);
    QCOMPARE(client.validateCert(cert, pin), success);
}

void TstClientToken::longestPin()
{
    const QString file = QStringLiteral("/home/alice/wrong-pins.one");
    const QString longest = QString(255, QLatin1Char('3'));
    QVERIFY(SoftTokens::add(one, longest));
    QVERIFY(SoftTokens::enroll(one, id1, goodCert(), QStringLiteral("rsa"), longest));
    QVERIFY(makeUnruly("none"));
    ClientFixture client;
    QVERIFY(client.start(SoftTokens::environment()));
    const QString cert = client.certList().value(0);
    QCOMPARE(client.validateCert(cert, longest), success);
    // A longer one is wrong without being tried.
    QVERIFY(QFile::remove(file));
    QCOMPARE(client.validateCert(cert, longest + QLatin1Char('3')), failed);
    QCOMPARE(ClientFixture::attempts(), 1);
    QVERIFY(!QFileInfo::exists(file));
}

void TstClientToken::expiredPin()
{
    ClientFixture client;
    const QString cert = enrolled(client, goodCert());
    QVERIFY(!cert.isEmpty());
    QVERIFY(makeUnruly("expired"));
    QCOMPARE(client.validateCert(cert, pin), failed);
    QCOMPARE(ClientFixture::attempts(), 0);
    QVERIFY(set("default-cert", cert));
    QCOMPARE(client.validateCert(cert, pin), badDefault);
}

void TstClientToken::refusedCertDoesNotCount()
{
    ClientFixture client;
    const QString cert = enrolled(
        client, SoftTokens::issue(QStringLiteral("case"), SoftTokens::loginTemplate().replace("alice", "bob")));
    QVERIFY(!cert.isEmpty());
    QVERIFY(makeUnruly("none"));
    QCOMPARE(client.validateCert(cert, ::wrongPin), failed);
    QCOMPARE(ClientFixture::attempts(), 0);
    // This does not use up one of the token's tries.
    QVERIFY(!QFileInfo::exists(QStringLiteral("/home/alice/wrong-pins.one")));
}

void TstClientToken::lockedForTheRightPinToo()
{
    ClientFixture client;
    const QString cert = enrolled(client, goodCert());
    QVERIFY(!cert.isEmpty());
    QVERIFY(makeUnruly("none"));
    QVERIFY(ClientFixture::setAttempts("5"));
    QCOMPARE(client.validateCert(cert, pin), lock);
    QCOMPARE(ClientFixture::attempts(), 6);
    QVERIFY(ClientFixture::setAttempts("10"));
    QCOMPARE(client.validateCert(cert, ::wrongPin), removal);
    QCOMPARE(ClientFixture::attempts(), 11);
    QVERIFY(!QFileInfo::exists(QStringLiteral("/home/alice/wrong-pins.one")));
}

void TstClientToken::parallelPins()
{
    QVERIFY(set("lock-after", 2));
    QVERIFY(set("remove-after", 0));
    ClientFixture client;
    const QString cert = enrolled(client, goodCert());
    QVERIFY(!cert.isEmpty());
    QVERIFY(makeUnruly("none"));
    ClientFixture second;
    ClientFixture third;
    QVERIFY(second.reconnect());
    QVERIFY(third.reconnect());
    QVector<QDBusPendingReply<QString>> replies;
    for (int i = 0; i < 4; ++i) {
        for (ClientFixture *peer : {&client, &second, &third})
            replies << peer->sendPin(cert, ::wrongPin);
    }
    QStringList answers;
    for (QDBusPendingReply<QString> &reply : replies) {
        reply.waitForFinished();
        answers << reply.value();
    }
    // However many calls are pending, the token sees no more PINs than the limit allows.
    QCOMPARE(TestDevice::readFile(QStringLiteral("/home/alice/wrong-pins.one")), QByteArray("2"));
    QCOMPARE(answers.count(failed), 1);
    QCOMPARE(answers.count(lock), replies.size() - 1);
    QCOMPARE(ClientFixture::attempts(), replies.size());
    QCOMPARE(client.validateCert(cert, pin), lock);
}

void TstClientToken::passwordsMeanwhile()
{
    QVERIFY(ClientFixture::setPassword(password));
    QVERIFY(set("lock-after", 2));
    ClientFixture client;
    const QString cert = enrolled(client, goodCert());
    QVERIFY(!cert.isEmpty());
    QVERIFY(makeUnruly("wait"));
    const QDBusPendingReply<QString> reply = client.sendPin(cert, pin);
    QTRY_COMPARE(helpers(client).size(), 1);
    QCOMPARE(client.checkPassword(QStringLiteral("wrong")), failed);
    QCOMPARE(client.checkPassword(QStringLiteral("wrong")), lock);
    // The pending right PIN does not undo the lock.
    QVERIFY(makeUnruly("none"));
    QTRY_VERIFY(reply.isFinished());
    QCOMPARE(reply.value(), lock);
    QCOMPARE(ClientFixture::attempts(), 3);
}

void TstClientToken::queuedForNobody()
{
    ClientFixture client;
    const QString cert = enrolled(client, goodCert());
    QVERIFY(!cert.isEmpty());
    QVERIFY(makeUnruly("wait"));
    const QDBusPendingReply<QString> reply = client.sendPin(cert, pin);
    QTRY_COMPARE(helpers(client).size(), 1);
    // The client has started another helper in advance, and sleeps, so it has closed that helper's socket.
    QTRY_VERIFY(childrenOf(client).size() == 2 && pollTimeout(client.process.processId()) != 0);
    const int before = openSockets(client);
    {
        ClientFixture another;
        QVERIFY(another.reconnect());
        another.sendPin(cert, ::wrongPin);
        // The client has replied to a later call, so it has accepted this one.
        QCOMPARE(another.certList(), QStringList{cert});
        QVERIFY(openSockets(client) > before);
    }
    QTRY_COMPARE(openSockets(client), before);
    QVERIFY(makeUnruly("none"));
    QTRY_VERIFY(reply.isFinished());
    QCOMPARE(reply.value(), success);
    QCOMPARE(client.validateCert(cert, ::wrongPin), failed);
    QCOMPARE(ClientFixture::attempts(), 1);
    QCOMPARE(TestDevice::readFile(QStringLiteral("/home/alice/wrong-pins.one")), QByteArray("1"));
}

void TstClientToken::queuedTooLong()
{
    ClientFixture client;
    const QString cert = enrolled(client, goodCert());
    QVERIFY(!cert.isEmpty());
    QVERIFY(makeUnruly("hang"));
    const QDBusPendingReply<QString> served = client.sendPin(cert, pin);
    const QDBusPendingReply<QString> queued = client.sendPin(cert, pin);
    // The client has replied to a later call, so it has accepted these.
    QVERIFY(!client.checkPassword(password).isEmpty());
    QElapsedTimer clock;
    clock.start();
    QTRY_COMPARE(helpers(client).size(), 1);
    QTRY_COMPARE(childrenOf(client).size(), 2);
    QStringList waiting = childrenOf(client);
    waiting.removeOne(helpers(client).constFirst());
    QTRY_VERIFY(isPrepared(waiting.constFirst()));
    // Stopped, so that no time is left for the queued call.
    kill(pid_t(client.process.processId()), SIGSTOP);
    QTRY_VERIFY_WITH_TIMEOUT(clock.hasExpired(callTimeout), 30000);
    kill(pid_t(client.process.processId()), SIGCONT);
    QTRY_VERIFY(served.isFinished() && queued.isFinished());
    QCOMPARE(served.value(), moduleFailed);
    QCOMPARE(queued.value(), moduleFailed);
    // No helper has got the queued call.
    QTRY_COMPARE(childrenOf(client), waiting);
}

void TstClientToken::pinBlocked()
{
    QVERIFY(set("lock-after", 0));
    ClientFixture client;
    const QString cert = enrolled(client, goodCert());
    QVERIFY(!cert.isEmpty());
    QVERIFY(makeUnruly("none"));
    QCOMPARE(client.validateCert(cert, ::wrongPin), failed);
    // Each failed attempt uses exactly one of the token's tries.
    QCOMPARE(TestDevice::readFile(QStringLiteral("/home/alice/wrong-pins.one")), QByteArray("1"));
    QCOMPARE(client.validateCert(cert, ::wrongPin), failed);
    // The last try blocks the PIN. After that, the right PIN fails too.
    QCOMPARE(client.validateCert(cert, ::wrongPin), lock);
    QCOMPARE(client.validateCert(cert, pin), lock);
    QCOMPARE(ClientFixture::attempts(), 2);
    // Another token is not affected.
    QVERIFY(SoftTokens::add(two));
    QVERIFY(SoftTokens::enroll(two, id1, goodCert()));
    QCOMPARE(client.validateCert(QStringLiteral("pkcs11:token=two;type=cert"), pin), success);
    QCOMPARE(client.validateCert(cert, pin), lock);
}

void TstClientToken::pinNotAskedFor()
{
    ClientFixture client;
    const QString cert = enrolled(client, goodCert());
    QVERIFY(!cert.isEmpty());
    QVERIFY(makeUnruly("keypad"));
    // A successful signature does not prove that the PIN in the call was right.
    QCOMPARE(client.validateCert(cert, ::wrongPin), failed);
    QCOMPARE(ClientFixture::attempts(), 1);
    QVERIFY(makeUnruly("none"));
    QCOMPARE(client.validateCert(cert, pin), success);
}

void TstClientToken::defaultCert()
{
    ClientFixture client;
    const QString cert = enrolled(client, goodCert());
    QVERIFY(!cert.isEmpty());
    QCOMPARE(client.validateCert({}, pin), badDefault);
    QVERIFY(set("default-cert", cert));
    QCOMPARE(client.validateCert({}, pin), success);
    QCOMPARE(client.validateCert({}, ::wrongPin), failed);
    QCOMPARE(client.validateCert(cert, pin), success);
    QVERIFY(SoftTokens::remove());
    QCOMPARE(client.validateCert({}, pin), noToken);
}

void TstClientToken::badDefaultCert_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QString>("defaultCert");
    QTest::addColumn<bool>("isThere");
    const QByteArray base = SoftTokens::loginTemplate();
    QTest::newRow("somebody else's") << QByteArray(base).replace("alice", "bob") << QString() << true;
    QTest::newRow("not for logging in") << without(base, "tls_www_client") << QString() << true;
    QTest::newRow("somebody else's, by a URI that says less")
        << QByteArray(base).replace("alice", "bob") << QStringLiteral("pkcs11:token=one") << true;
    QTest::newRow("no such certificate") << base << QStringLiteral("pkcs11:token=one;id=%09;type=cert") << false;
    QTest::newRow("no URI") << base << QStringLiteral("mine") << false;
}

void TstClientToken::badDefaultCert()
{
    QFETCH(QByteArray, content);
    QFETCH(QString, defaultCert);
    QFETCH(bool, isThere);
    ClientFixture client;
    const QString cert = enrolled(client, SoftTokens::issue(QStringLiteral("case"), content));
    QVERIFY(!cert.isEmpty());
    const QString name = defaultCert.isEmpty() ? cert : defaultCert;
    QVERIFY(set("default-cert", name));
    QCOMPARE(client.validateCert({}, pin), badDefault);
    QCOMPARE(client.validateCert(name, pin), badDefault);
    QCOMPARE(client.validateCert(cert, pin), isThere ? badDefault : success);
    QCOMPARE(ClientFixture::attempts(), 0);
}

void TstClientToken::twoTokens()
{
    const QString otherPin = QStringLiteral("27182818");
    QVERIFY(SoftTokens::add(one));
    QVERIFY(SoftTokens::enroll(one, id1, goodCert()));
    QVERIFY(SoftTokens::add(two, otherPin));
    // The same id as on the other token.
    const QString ec = SoftTokens::issue(QStringLiteral("ec"), SoftTokens::loginTemplate(), QStringLiteral("ec"));
    QVERIFY(SoftTokens::enroll(two, id1, ec, QStringLiteral("ec"), otherPin));
    ClientFixture client;
    QVERIFY(client.start(SoftTokens::environment()));

    const QStringList certs = client.certList();
    QCOMPARE(certs.size(), 2);
    const QString first = certs.filter(QStringLiteral("token=one;")).value(0);
    const QString second = certs.filter(QStringLiteral("token=two;")).value(0);
    QCOMPARE(client.validateCert(first, pin), success);
    QCOMPARE(client.validateCert(second, otherPin), success);
    QCOMPARE(client.validateCert(first, otherPin), failed);
    QCOMPARE(client.validateCert(second, pin), failed);
    QCOMPARE(ClientFixture::attempts(), 2);
    for (const QString &cert : {first, second}) {
        QVERIFY(
            set("default-cert", QString(cert.section(QLatin1Char(';'), 0, 3) + QStringLiteral(";id=%01;type=cert"))));
        QCOMPARE(client.certList().constFirst(), cert);
    }
    // A URI that may stand for either is no choice.
    QCOMPARE(client.validateCert(QStringLiteral("pkcs11:id=%01;type=cert"), pin), failed);
    QCOMPARE(ClientFixture::attempts(), 2);
}

void TstClientToken::removedAndPutBack()
{
    ClientFixture client;
    const QString cert = enrolled(client, goodCert());
    QVERIFY(!cert.isEmpty());
    for (int i = 0; i < 3; ++i) {
        QVERIFY(SoftTokens::remove());
        QCOMPARE(client.certList(), QStringList());
        QCOMPARE(client.validateCert(cert, pin), noToken);
        QVERIFY(SoftTokens::putBack());
        QCOMPARE(client.certList(), QStringList{cert});
        QCOMPARE(client.validateCert(cert, pin), success);
    }
    // Another token's certificate is unaffected.
    QVERIFY(SoftTokens::remove());
    QVERIFY(SoftTokens::add(one));
    QVERIFY(SoftTokens::enroll(one, id1, goodCert()));
    QCOMPARE(client.validateCert(cert, pin), noToken);
    QCOMPARE(ClientFixture::attempts(), 0);
}

void TstClientToken::removedMeanwhile()
{
    ClientFixture client;
    const QString cert = enrolled(client, goodCert());
    QVERIFY(!cert.isEmpty());
    QVERIFY(makeUnruly("remove"));
    QCOMPARE(client.validateCert(cert, pin), noToken);
    QVERIFY(QFileInfo::exists(QStringLiteral("/home/alice/removed")));
    QCOMPARE(ClientFixture::attempts(), 0);
}

void TstClientToken::moduleFails_data()
{
    QTest::addColumn<QString>("module");
    QTest::addColumn<QByteArray>("how");
    QTest::addColumn<QByteArray>("warning");
    const QString unruly = Installed::unrulyToken;
    const QByteArray notLoaded = "tarsk.kavet_client: Cannot load the token module: ";
    const QByteArray hasFailed = "tarsk.kavet_client: The token module failed: ";
    QTest::newRow("absent") << QStringLiteral("/nowhere.so") << QByteArray() << notLoaded;
    QTest::newRow("no module") << QStringLiteral("/usr/lib/x86_64-linux-gnu/libz.so.1") << QByteArray() << notLoaded;
    QTest::newRow("no library") << QStringLiteral("/etc/passwd") << QByteArray() << notLoaded;
    QTest::newRow("does not start") << unruly << QByteArray("initialize") << notLoaded;
    QTest::newRow("error") << unruly << QByteArray("error") << hasFailed;
    QTest::newRow("error, and then does not start") << unruly << QByteArray("break") << hasFailed;
    QTest::newRow("crash") << unruly << QByteArray("crash") << QByteArray();
    QTest::newRow("exit") << unruly << QByteArray("exit") << QByteArray();
}

void TstClientToken::moduleFails()
{
    QFETCH(QString, module);
    QFETCH(QByteArray, how);
    QFETCH(QByteArray, warning);
    ClientFixture client;
    const QString cert = enrolled(client, goodCert());
    QVERIFY(!cert.isEmpty());
    QVERIFY(makeUnruly(how));
    QVERIFY(set("module", module));
    QCOMPARE(client.validateCert(cert, pin), moduleFailed);
    // Nothing is known about a helper that has ended by itself.
    QTRY_VERIFY2(warning.isEmpty() ? client.output().isEmpty() : client.output().contains(warning),
                 client.output().constData());
    QCOMPARE(ClientFixture::attempts(), 0);
    QVERIFY(makeUnruly("none"));
    QCOMPARE(client.validateCert(cert, pin), success);
}

void TstClientToken::modulePrints()
{
    ClientFixture client;
    const QString cert = enrolled(client, goodCert());
    QVERIFY(!cert.isEmpty());
    QVERIFY(makeUnruly("print"));
    QCOMPARE(client.certList(), QStringList{cert});
}

void TstClientToken::answersOthersMeanwhile()
{
    QVERIFY(ClientFixture::setPassword(password));
    ClientFixture client;
    const QString cert = enrolled(client, goodCert());
    QVERIFY(!cert.isEmpty());
    QVERIFY(makeUnruly("hang"));
    QElapsedTimer clock;
    clock.start();
    const QDBusPendingReply<QString> reply = client.sendPin(cert, pin);
    QTRY_COMPARE(helpers(client).size(), 1);
    QCOMPARE(client.checkPassword(password), success);
    QCOMPARE(client.certList(), QStringList{cert});
    QVERIFY(!reply.isFinished());
    // Another call is queued, and its timeout already runs. It is the later one by more than timers may fire late.
    QTRY_VERIFY(clock.hasExpired(callTimeout / 5));
    const QDBusPendingReply<QString> queued = client.sendPin(cert, pin);
    QCOMPARE(client.checkPassword(password), success);
    QVERIFY(makeUnruly("stall"));
    const QDBusPendingReply<QStringList> stalled =
        client.connection().asyncCall(ClientFixture::request(QStringLiteral("getCertList"), {}));
    // The replies arrive within the caller's timeout.
    QTRY_VERIFY_WITH_TIMEOUT(reply.isFinished() && queued.isFinished() && stalled.isFinished(), 30000);
    QVERIFY2(reply.isValid(), qPrintable(reply.error().message()));
    QCOMPARE(reply.value(), moduleFailed);
    QCOMPARE(queued.value(), moduleFailed);
    QVERIFY(stalled.isValid());
    QCOMPARE(stalled.value(), QStringList());
    QTRY_VERIFY(helpers(client).isEmpty());
    QCOMPARE(client.checkPassword(password), success);
    QCOMPARE(ClientFixture::attempts(), 0);
}

void TstClientToken::floodOfCalls()
{
    const auto counts = [](const QVector<QDBusPendingReply<QString>> &replies, QDBusError::ErrorType type) {
        return std::count_if(replies.begin(), replies.end(), [type](const QDBusPendingReply<QString> &reply) {
            return reply.isFinished() && reply.error().type() == type;
        });
    };
    constexpr int calls = 100;
    constexpr int underWay = 4;
    QVERIFY(ClientFixture::setPassword(password));
    ClientFixture client;
    const QString cert = enrolled(client, goodCert());
    QVERIFY(!cert.isEmpty());
    QVERIFY(makeUnruly("hang"));
    QVector<QDBusPendingReply<QString>> replies;
    for (int i = 0; i < calls; ++i)
        replies << client.sendPin(cert, pin);
    QTRY_COMPARE(counts(replies, QDBusError::LimitsExceeded), calls - underWay);
    // Calls to the token run one at a time.
    QCOMPARE(helpers(client).size(), 1);
    QCOMPARE(client.checkPassword(password), success);

    // Another peer has its own limit.
    ClientFixture another;
    QVERIFY(another.reconnect());
    QCOMPARE(another.certList(), QStringList{cert});
    QCOMPARE(another.checkPassword(password), success);

    // A reply makes room for one call of the first peer.
    kill(helpers(client).constFirst().toInt(), SIGKILL);
    QTRY_COMPARE(counts(replies, QDBusError::NoError), 1);
    for (int i = 0; i < 2; ++i)
        replies << client.sendPin(cert, pin);
    QTRY_COMPARE(counts(replies, QDBusError::LimitsExceeded), calls - underWay + 1);
    // With all replies, it has its full limit again.
    QVERIFY(makeUnruly("none"));
    QTRY_COMPARE(helpers(client).size(), 1);
    kill(helpers(client).constFirst().toInt(), SIGKILL);
    QTRY_COMPARE(counts(replies, QDBusError::NoError), underWay + 1);
    QCOMPARE(client.validateCert(cert, pin), success);
}

// Unlike PINs, which wait for each other, each of these calls starts a process at once.
void TstClientToken::floodOfLists()
{
    constexpr int underWay = 4;
    ClientFixture client;
    QVERIFY(!enrolled(client, goodCert()).isEmpty());
    QVERIFY(makeUnruly("stall"));
    QVector<QDBusPendingReply<QStringList>> replies;
    for (int i = 0; i < 3 * underWay; ++i)
        replies << client.connection().asyncCall(ClientFixture::request(QStringLiteral("getCertList"), {}));
    for (int i = underWay; i < replies.size(); ++i) {
        QTRY_VERIFY(replies.at(i).isFinished());
        QCOMPARE(replies.at(i).error().type(), QDBusError::LimitsExceeded);
        QCOMPARE(replies.at(i).error().message(), QStringLiteral("Too many token calls are pending"));
    }
    // The others are still served; one more process waits for the next call.
    for (int i = 0; i < underWay; ++i)
        QVERIFY(!replies.at(i).isFinished());
    QVERIFY(childrenOf(client).size() <= underWay + 1);
}

void TstClientToken::helperEndsWithClient_data()
{
    QTest::addColumn<bool>("atFork");
    QTest::addColumn<bool>("clientFirst");
    QTest::newRow("killed while the helper runs") << false << false;
    QTest::newRow("killed after the fork") << true << false;
    QTest::newRow("killed before the forked helper runs") << true << true;
}

void TstClientToken::helperEndsWithClient()
{
    QFETCH(bool, atFork);
    QFETCH(bool, clientFirst);
    ClientFixture client;
    const QString cert = enrolled(client, goodCert());
    QVERIFY(!cert.isEmpty());
    QVERIFY(makeUnruly("hang"));
    const auto pid = pid_t(client.process.processId());
    if (atFork) {
        QVERIFY(endWaiting(client));
        QCOMPARE(ptrace(PTRACE_SEIZE, pid, nullptr, PTRACE_O_TRACEFORK | PTRACE_O_TRACECLONE), 0L);
    }
    client.sendPin(cert, pin);
    const auto processes = [&client, atFork] {
        return atFork ? childrenOf(client) : helpers(client);
    };
    QTRY_COMPARE(processes().size(), 1);
    const QString helper = processes().constFirst();
    const QString directory = QStringLiteral("/proc/") + helper;
    if (atFork) {
        // The fork stops both processes. The client remains stopped until it is killed.
        QCOMPARE(waitpid(pid, nullptr, __WALL), pid);
        QCOMPARE(waitpid(helper.toInt(), nullptr, __WALL), helper.toInt());
    }
    const auto goOn = [&helper] {
        return ptrace(PTRACE_DETACH, helper.toInt(), nullptr, nullptr) == 0;
    };
    QVERIFY(!atFork || clientFirst || goOn());
    kill(pid, SIGKILL);
    QVERIFY(client.process.waitForFinished());
    QVERIFY(!clientFirst || goOn());
    const auto hasEnded = [&directory] {
        return !QFileInfo::exists(directory) || TestDevice::readFile(directory + QStringLiteral("/cmdline")).isEmpty();
    };
    QVERIFY2(waitUntil(hasEnded), TestDevice::readFile(directory + QStringLiteral("/status")).constData());
}

void TstClientToken::peerVanishesMeanwhile()
{
    ClientFixture client;
    const QString cert = enrolled(client, goodCert());
    QVERIFY(!cert.isEmpty());
    QVERIFY(makeUnruly("hang"));
    client.sendPin(cert, pin);
    QTRY_COMPARE(helpers(client).size(), 1);
    QVERIFY(client.reconnect());
    kill(helpers(client).constFirst().toInt(), SIGKILL);
    QTRY_VERIFY(helpers(client).isEmpty());
    QVERIFY(makeUnruly("none"));
    QCOMPARE(client.validateCert(cert, pin), success);
}

void TstClientToken::waitsForTheNextCall()
{
    ClientFixture client;
    QVERIFY(SoftTokens::add(one));
    QVERIFY(SoftTokens::enroll(one, id1, goodCert()));
    QVERIFY(client.start(SoftTokens::environment()));
    QCOMPARE(client.checkPassword(password), QStringLiteral("errauthtype"));
    QVERIFY(childrenOf(client).isEmpty()); // not before the first call
    const QString cert = client.certList().value(0);
    QTRY_COMPARE(childrenOf(client).size(), 1);
    const QString waiting = childrenOf(client).constFirst();
    QVERIFY(makeUnruly("wait"));
    const QDBusPendingReply<QString> reply = client.sendPin(cert, pin);
    QTRY_COMPARE(helpers(client), QStringList{waiting});
    QTRY_COMPARE(childrenOf(client).size(), 2);
    QVERIFY(makeUnruly("none"));
    QTRY_VERIFY(reply.isFinished());
    QCOMPARE(reply.value(), success);
    // A helper serves one call.
    QTRY_VERIFY(!childrenOf(client).contains(waiting));
    QCOMPARE(childrenOf(client).size(), 1);
    QCOMPARE(client.certList(), QStringList{cert});

    // What has changed since the helper was started is seen as it is now.
    QVERIFY(SoftTokens::add(two));
    QVERIFY(SoftTokens::enroll(two, id2, goodCert()));
    QCOMPARE(client.certList().size(), 2);
    QVERIFY(SoftTokens::enroll(one, id3, goodCert()));
    QCOMPARE(client.certList().size(), 3);
    QVERIFY(SoftTokens::remove());
    QCOMPARE(client.certList(), QStringList());
    QCOMPARE(client.validateCert(cert, pin), noToken);
    QVERIFY(SoftTokens::putBack());
    QCOMPARE(client.validateCert(cert, pin), success);
}

void TstClientToken::settingsInUtf8()
{
    const QString anchors = QStringLiteral("/home/alice/Schlüssel.pem");
    ClientFixture client;
    const QString cert = enrolled(client, goodCert());
    QVERIFY(!cert.isEmpty());
    QVERIFY(TestDevice::writeFile(anchors, TestDevice::readFile(SoftTokens::authority)));
    // QSettings would encode the path in its own way, an editor does not.
    QVERIFY(TestDevice::writeFile(ClientFixture::settingsPath, "[General]\nmodule=" + SoftTokens::module.toUtf8()
                                                                   + "\ntrust-anchors=" + anchors.toUtf8() + '\n'));
    QVERIFY(TestDevice::setOwner(ClientFixture::settingsPath, TestDevice::alice, TestDevice::alice));
    QCOMPARE(client.validateCert(cert, pin), success);
    QVERIFY(ClientFixture::setPassword(password));
    QCOMPARE(client.validateCert(cert, pin), success);
    QCOMPARE(client.checkPassword(password), success);
}

void TstClientToken::settingsOfTheMoment()
{
    ClientFixture client;
    QVERIFY(!enrolled(client, goodCert()).isEmpty());
    QVERIFY(SoftTokens::enroll(one, id2, SoftTokens::issue(QStringLiteral("late"), expired())));
    QVERIFY(set("default-cert", QStringLiteral("pkcs11:token=one;id=%01")));
    QCOMPARE(client.validateCert({}, pin), success);
    QTRY_COMPARE(childrenOf(client).size(), 1);
    // The helper that waits now must not go by what it may have read already, even if the file looks unchanged.
    QTRY_VERIFY(TestDevice::readFile(QStringLiteral("/proc/%1/maps").arg(childrenOf(client).constFirst()))
                    .contains("libsofthsm2.so"));
    const QByteArray settings = TestDevice::readFile(ClientFixture::settingsPath);
    const QDateTime time = QFileInfo(ClientFixture::settingsPath).lastModified();
    QVERIFY(settings.contains("id=%01"));
    QVERIFY(TestDevice::writeFile(ClientFixture::settingsPath, QByteArray(settings).replace("id=%01", "id=%02")));
    QFile file(ClientFixture::settingsPath);
    QVERIFY(file.open(QIODevice::ReadWrite) && file.setFileTime(time, QFileDevice::FileModificationTime));
    file.close();
    QCOMPARE(client.validateCert({}, pin), badDefault);
}

// After some minutes without calls, which the preloaded clock skips.
void TstClientToken::waitingHelperIsGivenUp()
{
    QVERIFY(SoftTokens::add(one));
    QVERIFY(SoftTokens::enroll(one, id1, goodCert()));
    ClientFixture client;
    QVERIFY(client.start(SoftTokens::environment() + ClientFixture::hastyClock(240)));
    const QStringList certs = client.certList();
    QCOMPARE(certs.size(), 1);
    QTRY_VERIFY(childrenOf(client).isEmpty());
    QVERIFY(waitUntil([&client] { return pollTimeout(client.process.processId()) == -1; }));
    QCOMPARE(client.validateCert(certs.constFirst(), pin), success);
    QTRY_VERIFY(childrenOf(client).isEmpty());
    QVERIFY(client.output().isEmpty());
}

void TstClientToken::helperForACall()
{
    ClientFixture client;
    const QString cert = enrolled(client, goodCert());
    QVERIFY(!cert.isEmpty());
    QVERIFY(endWaiting(client));
    QVERIFY(makeUnruly("record"));
    QCOMPARE(client.certList(), QStringList{cert});
    QVERIFY(
        waitUntil([&client] { return childrenOf(client).size() == 1 && isPrepared(childrenOf(client).constFirst()); }));
    // With a call to serve, a helper initialises the module only for it. The other process is the next helper.
    const QByteArrayList processes =
        TestDevice::readFile(QStringLiteral("/home/alice/initialised")).trimmed().split('\n');
    QCOMPARE(processes.size(), 2);
    QVERIFY(processes.at(0) != processes.at(1));
    QVERIFY(processes.contains(childrenOf(client).constFirst().toLatin1()));
}

void TstClientToken::slowHelperForACall()
{
    ClientFixture client;
    const QString cert = enrolled(client, goodCert());
    QVERIFY(!cert.isEmpty());
    QVERIFY(endWaiting(client));
    QVERIFY(makeUnruly("stall"));
    const auto pid = pid_t(client.process.processId());
    QCOMPARE(ptrace(PTRACE_SEIZE, pid, nullptr, PTRACE_O_TRACEFORK | PTRACE_O_TRACECLONE), 0L);
    const QDBusPendingReply<QString> reply = client.sendPin(cert, pin);
    QTRY_COMPARE(childrenOf(client).size(), 1);
    const pid_t helper = childrenOf(client).constFirst().toInt();
    QCOMPARE(waitpid(pid, nullptr, __WALL), pid);
    QCOMPARE(waitpid(helper, nullptr, __WALL), helper);
    QCOMPARE(ptrace(PTRACE_DETACH, pid, nullptr, nullptr), 0L);
    // The helper for the call remains stopped. When the client sleeps, it has started the next helper, too, and it
    // gives that one up.
    QTRY_VERIFY(pollTimeout(pid) != 0);
    QTRY_COMPARE(childrenOf(client), QStringList{QString::number(helper)});
    QVERIFY(makeUnruly("none"));
    QCOMPARE(ptrace(PTRACE_DETACH, helper, nullptr, nullptr), 0L);
    QTRY_VERIFY(reply.isFinished());
    QCOMPARE(reply.value(), success);
}

void TstClientToken::waitingHelperEnds()
{
    ClientFixture client;
    const QString cert = enrolled(client, goodCert());
    QVERIFY(!cert.isEmpty());
    QVERIFY(endWaiting(client));
    QCOMPARE(client.validateCert(cert, pin), success);
    // Stopped, so that the client does not notice its end before the call.
    const auto pid = pid_t(client.process.processId());
    QTRY_COMPARE(childrenOf(client).size(), 1);
    QTRY_VERIFY(isHelper(childrenOf(client).constFirst()));
    kill(pid, SIGSTOP);
    kill(childrenOf(client).constFirst().toInt(), SIGKILL);
    const QDBusPendingReply<QString> reply = client.sendPin(cert, pin);
    kill(pid, SIGCONT);
    QTRY_VERIFY(reply.isFinished());
    QCOMPARE(reply.value(), success);

    // Killed after the client has sent it a call, but before it has taken up the call.
    QTRY_COMPARE(childrenOf(client).size(), 1);
    const QString helper = childrenOf(client).constFirst();
    QTRY_VERIFY(isPrepared(helper));
    kill(helper.toInt(), SIGSTOP);
    const QDBusPendingReply<QString> sent = client.sendPin(cert, pin);
    QTRY_COMPARE(childrenOf(client).size(), 2);
    kill(helper.toInt(), SIGKILL);
    QTRY_VERIFY(sent.isFinished());
    QCOMPARE(sent.value(), success);
}

void TstClientToken::waitingHelperHangs()
{
    ClientFixture client;
    const QString cert = enrolled(client, goodCert());
    QVERIFY(!cert.isEmpty());
    QVERIFY(endWaiting(client));
    QVERIFY(makeUnruly("stall"));
    // Both the helper for this call and the one for the next call hang while they load the module.
    const QDBusPendingReply<QStringList> stalled =
        client.connection().asyncCall(ClientFixture::request(QStringLiteral("getCertList"), {}));
    QTRY_COMPARE(TestDevice::readFile(QStringLiteral("/home/alice/stalled")), QByteArray("\n\n"));
    const QString first = childrenOf(client).constFirst();
    QVERIFY(makeUnruly("none"));
    QCOMPARE(client.validateCert(cert, pin), success);
    kill(first.toInt(), SIGKILL);
    QTRY_VERIFY(stalled.isFinished());
    QCOMPARE(stalled.value(), QStringList());
}

void TstClientToken::helperDiesOfAnySignal()
{
    ClientFixture client;
    const QString cert = enrolled(client, goodCert());
    QVERIFY(!cert.isEmpty());
    QVERIFY(makeUnruly("hang"));
    const QDBusPendingReply<QString> reply = client.sendPin(cert, pin);
    QTRY_COMPARE(helpers(client).size(), 1);
    // Its number is a helper's exit code for success.
    kill(helpers(client).constFirst().toInt(), SIGRTMAX);
    QTRY_VERIFY(reply.isFinished());
    QCOMPARE(reply.value(), moduleFailed);
}

void TstClientToken::helperDiesAtItsStart()
{
    ClientFixture client;
    const QString cert = enrolled(client, goodCert());
    QVERIFY(!cert.isEmpty());
    QVERIFY(endWaiting(client));
    const auto pid = pid_t(client.process.processId());
    QCOMPARE(ptrace(PTRACE_SEIZE, pid, nullptr, PTRACE_O_TRACEFORK | PTRACE_O_TRACECLONE | PTRACE_O_TRACEEXEC), 0L);
    const QDBusPendingReply<QString> reply = client.sendPin(cert, pin);
    QTRY_COMPARE(childrenOf(client).size(), 1);
    const pid_t helper = childrenOf(client).constFirst().toInt();
    QCOMPARE(waitpid(pid, nullptr, __WALL), pid);
    QCOMPARE(ptrace(PTRACE_DETACH, pid, nullptr, nullptr), 0L);
    int status = 0;
    QCOMPARE(waitpid(helper, &status, __WALL), helper);
    while (status >> 8 != (SIGTRAP | PTRACE_EVENT_EXEC << 8)) {
        QCOMPARE(ptrace(PTRACE_CONT, helper, nullptr, nullptr), 0L);
        QCOMPARE(waitpid(helper, &status, __WALL), helper);
    }
    kill(helper, SIGKILL);
    QCOMPARE(waitpid(helper, nullptr, __WALL), helper);
    // No other takes its place, because that might go on without end.
    QTRY_VERIFY(reply.isFinished());
    QCOMPARE(reply.value(), moduleFailed);
}

void TstClientToken::helperCannotStart()
{
    ClientFixture client;
    const QString cert = enrolled(client, goodCert());
    QVERIFY(!cert.isEmpty());
    QVERIFY(endWaiting(client));
    const QFile::Permissions before = QFile::permissions(ClientFixture::program);
    QVERIFY(QFile::setPermissions(ClientFixture::program, QFile::ReadOwner));
    QCOMPARE(client.validateCert(cert, pin), moduleFailed);
    QVERIFY(QFile::setPermissions(ClientFixture::program, before));
    QCOMPARE(client.validateCert(cert, pin), success);
}

void TstClientToken::outOfDescriptors()
{
    ClientFixture client;
    const QString cert = enrolled(client, goodCert());
    QVERIFY(!cert.isEmpty());
    QTRY_COMPARE(childrenOf(client).size(), 1);
    // The client has replied to a later call, so it has closed what it had opened for the earlier one.
    QVERIFY(!client.checkPassword(QStringLiteral("any")).isEmpty());
    QVERIFY(limitDescriptors(client, firstFree(client)));
    QCOMPARE(client.validateCert(cert, pin), moduleFailed);
    QCOMPARE(client.validateCert(cert, pin), moduleFailed);
#ifndef __SANITIZE_ADDRESS__ // The sanitizer itself needs a descriptor then.
    // Nor is there one for other peers' handshakes. Each of these peers is forgotten.
    QVERIFY(limitDescriptors(client, firstFree(client) + 1));
    for (int i = 0; i < ClientFixture::maximumPeers; ++i) {
        const RawConnection connection;
        QVERIFY(connection.isConnected() && connection.hasEnded());
    }
#endif
    QVERIFY(limitDescriptors(client, 1024));
    QVERIFY(client.reconnect());
    QCOMPARE(client.validateCert(cert, pin), success);
    // No helper waits for a call that it will never get.
    QTRY_COMPARE(childrenOf(client).size(), 1);
    client.process.terminate();
    QVERIFY(client.process.waitForFinished());
    QVERIFY2(!client.output().contains("QSocketNotifier"), client.output().constData());
}

void TstClientToken::closesOnExec()
{
    ClientFixture client;
    const QString cert = enrolled(client, goodCert());
    QVERIFY(!cert.isEmpty());
    QVERIFY(makeUnruly("wait"));
    const QString process = QString::number(client.process.processId());
    const QStringList inherited = inheritable(QStringLiteral("self"));
    // One request is served, one is queued, and a peer is in the middle of its handshake.
    client.sendPin(cert, pin);
    client.sendPin(cert, pin);
    const RawConnection connection;
    QVERIFY(connection.send(RawConnection::handshake.left(RawConnection::handshake.indexOf("BEGIN"))));
    QVERIFY(connection.receives("OK "));
    QTRY_COMPARE(helpers(client).size(), 1);
    QTRY_COMPARE(openFiles(process, QStringLiteral("memfd:request")), 2);
    QCOMPARE(inheritable(process), inherited);
    // The token module opens files, and closes them.
    QTRY_COMPARE(inheritable(helpers(client).constFirst()), inherited);
}

void TstClientToken::endsSilently_data()
{
    QTest::addColumn<int>("calls");
    QTest::newRow("idle") << 0;
    QTest::newRow("while it serves a call") << 1;
    QTest::newRow("while others are queued") << 3;
}

void TstClientToken::endsSilently()
{
    QFETCH(int, calls);
    ClientFixture client;
    const QString cert = enrolled(client, goodCert());
    QVERIFY(!cert.isEmpty());
    QTRY_COMPARE(childrenOf(client).size(), 1);
    QVERIFY(makeUnruly("hang"));
    QVector<QDBusPendingReply<QString>> replies;
    for (int i = 0; i < calls; ++i)
        replies << client.sendPin(cert, pin);
    QTRY_COMPARE(helpers(client).size(), calls != 0 ? 1 : 0);
    QTRY_COMPARE(openFiles(QString::number(client.process.processId()), QStringLiteral("memfd:request")), calls);
    client.process.terminate();
    QVERIFY(client.process.waitForFinished());
    QCOMPARE(client.process.exitStatus(), QProcess::NormalExit);
    QCOMPARE(client.process.exitCode(), 0);
    QCOMPARE(client.process.readAll(), QByteArray());
}

void TstClientToken::unwritableRequest_data()
{
    QTest::addColumn<QString>("size");
    QTest::newRow("nothing") << QStringLiteral("0");
    QTest::newRow("a part") << QStringLiteral("8");
}

void TstClientToken::unwritableRequest()
{
    QFETCH(QString, size);
    // The client inherits this, so that the limit makes its writes fail.
    std::signal(SIGXFSZ, SIG_IGN);
    ClientFixture client;
    const QString cert = enrolled(client, goodCert());
    std::signal(SIGXFSZ, SIG_DFL);
    QVERIFY(!cert.isEmpty());
    // The user may limit her own processes.
    const auto limit = [&client](const QString &bytes) {
        QProcess process;
        ClientFixture::asUser(
            process, QStringLiteral("prlimit"),
            {QStringLiteral("--pid=%1").arg(client.process.processId()), QStringLiteral("--fsize=%1:").arg(bytes)});
        process.start();
        return process.waitForFinished() && process.exitCode() == 0;
    };
    // One call is served, and others wait for their turn.
    QVERIFY(makeUnruly("wait"));
    const QDBusPendingReply<QString> served = client.sendPin(cert, pin);
    QTRY_COMPARE(helpers(client).size(), 1);
    QVERIFY(limit(size));
    QVector<QDBusPendingReply<QString>> replies;
    replies << client.sendPin(cert, ::wrongPin) << client.sendPin(cert, pin);
    QTRY_COMPARE(client.output().count("tarsk.kavet_client: Cannot pass a request to the helper: File too large\n"), 2);
    QVERIFY(makeUnruly("none"));
    QTRY_VERIFY(served.isFinished());
    QCOMPARE(served.value(), success);
    for (const QDBusPendingReply<QString> &reply : qAsConst(replies)) {
        QTRY_VERIFY(reply.isFinished());
        QCOMPARE(reply.value(), moduleFailed);
    }
    // The client has replied to a later call, so it has ended each helper that got none of these.
    QVERIFY(!client.checkPassword(password).isEmpty());
    QCOMPARE(childrenOf(client).size(), 1);
    QVERIFY(limit(QStringLiteral("unlimited")));
    QCOMPARE(client.validateCert(cert, pin), success);
    QCOMPARE(ClientFixture::attempts(), 0);
}

void TstClientToken::noSecrets()
{
    const QString longPin = QStringLiteral("31415926535897932384").repeated(10);
    QVERIFY(SoftTokens::add(one, longPin));
    QVERIFY(SoftTokens::enroll(one, id1, goodCert(), QStringLiteral("rsa"), longPin));
    ClientFixture client;
    QVERIFY(client.start(SoftTokens::environment()));
    const QStringList certs = client.certList();
    QCOMPARE(certs.size(), 1);
    QCOMPARE(client.validateCert(certs.constFirst(), longPin), success);
    const QString wrong = QString(longPin).replace(0, 1, QLatin1Char('1'));
    QCOMPARE(client.validateCert(certs.constFirst(), wrong), failed);
    QCOMPARE(client.certList().size(), 1);
    const QString part = longPin.right(30);
    QVERIFY(!ClientFixture::memoryHoldsText(client.process.processId(), part));

    QVERIFY(makeUnruly("hang"));
    client.sendPin(certs.constFirst(), longPin);
    QTRY_COMPARE(helpers(client).size(), 1);
    const QString helper = QStringLiteral("/proc/%1").arg(helpers(client).constFirst());
    QTRY_VERIFY(ClientFixture::memoryHolds(helpers(client).constFirst().toInt(), part.toUtf8()));
    // The client has already wiped it.
    QVERIFY(!ClientFixture::memoryHoldsText(client.process.processId(), part));
    const QByteArray open = TestDevice::readFile(helper + QStringLiteral("/cmdline"))
                            + TestDevice::readFile(helper + QStringLiteral("/environ"))
                            + TestDevice::readFile(ClientFixture::settingsPath) + client.output();
    QVERIFY(open.contains("--token-helper"));
    QVERIFY(!open.contains(part.toUtf8()));
    QCOMPARE(QFileInfo(helper + QStringLiteral("/mem")).ownerId(), 0U);
}

void TstClientToken::noSecretsWhateverTheEnd_data()
{
    QTest::addColumn<QByteArray>("state");
    QTest::addColumn<QString>("answer");
    QTest::newRow("right") << QByteArray("right") << success;
    QTest::newRow("wrong") << QByteArray("none") << failed;
    QTest::newRow("blocked") << QByteArray("blocked") << lock;
    QTest::newRow("past the limit") << QByteArray("limit") << lock;
    QTest::newRow("token absent") << QByteArray("absent") << noToken;
    QTest::newRow("token removed meanwhile") << QByteArray("remove") << noToken;
    QTest::newRow("module fails") << QByteArray("error") << moduleFailed;
    QTest::newRow("module crashes") << QByteArray("crash") << moduleFailed;
    QTest::newRow("module does not start") << QByteArray("initialize") << moduleFailed;
    QTest::newRow("no tokens") << QByteArray("password") << QStringLiteral("errauthtype");
    QTest::newRow("too many calls") << QByteArray("crowded")
                                    << QStringLiteral("org.freedesktop.DBus.Error.LimitsExceeded");
    QTest::newRow("waiting for its turn") << QByteArray("queued") << QString();
    QTest::newRow("caller gone while it waits") << QByteArray("gone queued") << QString();
    QTest::newRow("caller gone meanwhile") << QByteArray("gone") << QString();
}

void TstClientToken::noSecretsWhateverTheEnd()
{
    QFETCH(QByteArray, state);
    QFETCH(QString, answer);
    // The token's own PIN if the test needs a right one. It is long, so that its freed memory is not reused soon.
    const QString secret = QStringLiteral("16180339887498948482").repeated(10);
    const bool isRight = answer != failed && answer != lock;
    const QString tokenPin = isRight ? secret : pin;
    QVERIFY(SoftTokens::add(one, tokenPin));
    QVERIFY(SoftTokens::enroll(one, id1, goodCert(), QStringLiteral("rsa"), tokenPin));
    ClientFixture client;
    QVERIFY(client.start(SoftTokens::environment()));
    const QString cert = client.certList().value(0);
    QVERIFY(!cert.isEmpty());

    ClientFixture another;
    QVERIFY(another.reconnect());
    const bool isBusy = state == "crowded" || state == "queued" || state == "gone queued";
    QVERIFY(makeUnruly(isBusy || state == "gone" ? QByteArray("wait") : state));
    if (state == "blocked")
        QVERIFY(TestDevice::writeFile(QStringLiteral("/home/alice/wrong-pins.one"), "3"));
    else if (state == "limit")
        QVERIFY(ClientFixture::setAttempts("05"));
    else if (state == "absent")
        QVERIFY(SoftTokens::remove());
    else if (state == "password")
        QVERIFY(set("auth-type", QStringLiteral("password")));
    const auto ask = [&cert](ClientFixture &peer, const QString &withPin) {
        peer.sendPin(cert, withPin);
    };
    if (isBusy) {
        ask(client, secret);
        QTRY_COMPARE(helpers(client).size(), 1);
    }
    for (int i = 0; state == "crowded" && i < 4; ++i)
        ask(another, QStringLiteral("1"));
    if (!answer.isNull())
        QCOMPARE(another.validateCert(cert, secret), answer);
    else
        ask(another, secret);
    if (state == "gone")
        QTRY_COMPARE(helpers(client).size(), 1);
    // The client has replied to a later call, so it has accepted this one.
    QVERIFY(!another.checkPassword(QStringLiteral("any")).isEmpty());
    if (state.startsWith("gone"))
        QVERIFY(another.reconnect());
    QVERIFY(!client.checkPassword(QStringLiteral("any")).isEmpty());
    QVERIFY(!another.checkPassword(QStringLiteral("any")).isEmpty());
    for (const QString &part : {secret.left(16), secret.right(16)})
        QVERIFY(!ClientFixture::memoryHoldsText(client.process.processId(), part));
    QVERIFY(!client.output().contains(secret.left(16).toUtf8()));
}

void TstClientToken::methodAuthenticates()
{
    QVERIFY(ClientFixture::takeLaunchersPlace(SoftTokens::environment()));
    QVERIFY(SoftTokens::add(one));
    QVERIFY(SoftTokens::enroll(one, id1, goodCert()));

    MethodFixture fixture;
    QStringList certs;
    const auto authenticate = [&](const QString &withPin) {
        fixture.daemon.calls.clear();
        fixture.method.authenticate(TestDevice::alice,
                                    {{QStringLiteral("cert"), certs.value(0)}, {QStringLiteral("pin"), withPin}});
        return waitUntil([&fixture] { return !fixture.daemon.outcomes().isEmpty(); })
                   ? fixture.daemon.outcomes().constFirst()
                   : RecordingDaemon::Call{QStringLiteral("nothing"), {}};
    };
    const auto failedWith = [](SettingsKavet::ResultCode code) {
        return RecordingDaemon::failed(SettingsKavet::EnterPasswordOrPin, code);
    };
    fixture.method.authenticate(TestDevice::alice, {});
    QTRY_COMPARE(fixture.daemon.outcomes().size(), 1);
    fixture.method.getOption(0, QStringLiteral("certs"));
    const auto listed = [&] {
        const QVector<RecordingDaemon::Call> changes = fixture.daemon.callsOf(QStringLiteral("optionChanged"));
        for (const RecordingDaemon::Call &change : changes) {
            if (change.arguments.at(1) == QLatin1String("certs"))
                certs = change.arguments.at(2).toStringList();
        }
        return !certs.isEmpty();
    };
    QTRY_VERIFY(listed());
    QCOMPARE(certs.size(), 1);

    QCOMPARE(authenticate(pin), RecordingDaemon::succeeded());
    QCOMPARE(authenticate(::wrongPin), failedWith(SettingsKavet::AuthFailed));
    QVERIFY(SoftTokens::remove());
    QCOMPARE(authenticate(pin), failedWith(SettingsKavet::NoUsbDevice));
    QVERIFY(set("default-cert", certs.constFirst()));
    QVERIFY(SoftTokens::putBack());
    QVERIFY(set("mapping", QStringLiteral("cn")));
    QCOMPARE(authenticate(pin), failedWith(SettingsKavet::BadDefaultCert));
    QVERIFY(set("module", QStringLiteral("/nowhere.so")));
    QCOMPARE(authenticate(pin), failedWith(SettingsKavet::ConnectionError));
    QVERIFY(set("auth-type", QStringLiteral("password")));
    QCOMPARE(authenticate(pin), failedWith(SettingsKavet::ErrAuthType));
    fixture.d->currentUid = 0; // Else the client would be started again.
    fixture.d->child.terminate();
    fixture.d->child.waitForFinished();
}

QTEST_GUILESS_MAIN(TstClientToken)
#include "tst_clienttoken.moc"
