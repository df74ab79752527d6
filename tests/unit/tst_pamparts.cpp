// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "certlabels.h"
#include "deadline.h"
#include "errors.h"
#include "harmlessbytes.h"
#include "harmlesstext.h"
#include "options.h"
#include "outcome.h"
#include "protocol.h"
#include "resultcodes.h"
#include "states.h"

#include <authd/authservice.h>

#include <QFile>
#include <QTest>

#include <string>
#include <vector>

#include <rapidcheck.h>
#include <security/pam_modules.h>

namespace {

Options options(std::vector<const char *> arguments)
{
    return {int(arguments.size()), arguments.data()};
}

QStringList labels(const std::vector<std::string> &certs)
{
    QStringList list;
    for (const std::string &label : certLabels(certs))
        list << QString::fromStdString(label);
    return list;
}

} // namespace

/// The parts of the PAM module that need neither libpam nor the bus.
class TstPamParts : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void protocol();
    void resultCodes();
    void documentation();
    void locks();
    void refusals();
    void optionValues();
    void badOptions();
    void certificateLabels();
    void everyCharacterIsHarmless();
    void bytesAreHarmless();
    void deadline();
};

void TstPamParts::protocol()
{
    QCOMPARE(LibAuthd::AuthService::Service, QLatin1String(Protocol::Service));
    QCOMPARE(LibAuthd::AuthService::ObjectPath, QLatin1String(Protocol::ObjectPath));
    QCOMPARE(LibAuthd::AuthService::Interface, QLatin1String(Protocol::Interface));

    QCOMPARE(Errors::AccessDenied, QLatin1String(Protocol::Errors::AccessDenied));
    QCOMPARE(Errors::InvalidArgs, QLatin1String(Protocol::Errors::InvalidArgs));
    QCOMPARE(Errors::LimitsExceeded, QLatin1String(Protocol::Errors::LimitsExceeded));
    QCOMPARE(Errors::NoSuchUser, QLatin1String(Protocol::Errors::NoSuchUser));
    QCOMPARE(Errors::NoSuchMethod, QLatin1String(Protocol::Errors::NoSuchMethod));
    QCOMPARE(Errors::NoSuchOption, QLatin1String(Protocol::Errors::NoSuchOption));
    QCOMPARE(Errors::UserLocked, QLatin1String(Protocol::Errors::UserLocked));
    QCOMPARE(Errors::Busy, QLatin1String(Protocol::Errors::Busy));

    QCOMPARE(States::Queued, QLatin1String(Protocol::States::Queued));
    QCOMPARE(States::Pending, QLatin1String(Protocol::States::Pending));
    QCOMPARE(States::Locked, QLatin1String(Protocol::States::Locked));
    QCOMPARE(States::Restarted, QLatin1String(Protocol::States::Restarted));
    QCOMPARE(States::Reason, QLatin1String(Protocol::States::Reason));
    QCOMPARE(States::Duration, QLatin1String(Protocol::States::Duration));
    QCOMPARE(LibAuthd::Vocabulary::InputRequestType, QLatin1String(Protocol::States::InputRequestType));
    QCOMPARE(States::UntilUnlocked, Protocol::States::UntilUnlocked);

    QCOMPARE(Reasons::Cancelled, QLatin1String(Protocol::Reasons::Cancelled));
    QCOMPARE(Reasons::Replaced, QLatin1String(Protocol::Reasons::Replaced));
    QCOMPARE(Reasons::TimedOut, QLatin1String(Protocol::Reasons::TimedOut));
    QCOMPARE(Reasons::CutShort, QLatin1String(Protocol::Reasons::CutShort));
    QCOMPARE(Reasons::Locked, QLatin1String(Protocol::Reasons::Locked));
    QCOMPARE(Reasons::SessionStopped, QLatin1String(Protocol::Reasons::SessionStopped));

    QCOMPARE(LibAuthd::Vocabulary::Authenticated, QLatin1String(Protocol::Signals::Authenticated));
    QCOMPARE(LibAuthd::Vocabulary::AuthenticationFailed, QLatin1String(Protocol::Signals::AuthenticationFailed));
    QCOMPARE(LibAuthd::Vocabulary::AttemptGivenUp, QLatin1String(Protocol::Signals::AttemptGivenUp));
    QCOMPARE(LibAuthd::Vocabulary::StateChanged, QLatin1String(Protocol::Signals::StateChanged));
    QCOMPARE(LibAuthd::Vocabulary::MethodOptionChanged, QLatin1String(Protocol::Signals::MethodOptionChanged));
}

void TstPamParts::resultCodes()
{
    for (const Credential credential : {Credential::Password, Credential::Certificate}) {
        for (const ResultCodes::Rule &rule : ResultCodes::Rules) {
            const Outcome outcome = Outcomes::failed(rule.code, credential);
            QVERIFY(outcome.result != PAM_SUCCESS && outcome.result != PAM_IGNORE);
            QVERIFY(!outcome.text.empty());
            // A program may ask again after what counts, until the limit.
            if (rule.isCounted)
                QVERIFY(outcome.result == PAM_AUTH_ERR || outcome.result == PAM_MAXTRIES);
        }
        QCOMPARE(Outcomes::failed(4711, credential).result, PAM_AUTH_ERR);
        QCOMPARE(Outcomes::failed(7, credential).result, PAM_MAXTRIES);
        QCOMPARE(Outcomes::failed(8, credential).result, PAM_MAXTRIES);
        QCOMPARE(Outcomes::failed(13, credential).result, PAM_PERM_DENIED);
    }
    QCOMPARE(Outcomes::failed(6, Credential::Password).result, PAM_PERM_DENIED);
    QCOMPARE(Outcomes::failed(6, Credential::Certificate).result, PAM_MAXTRIES);
    QCOMPARE(QString::fromStdString(Outcomes::failed(6, Credential::Certificate).text),
             QStringLiteral("PIN blocked, or this user is locked"));
    QCOMPARE(Outcomes::givenUp("locked").result, PAM_PERM_DENIED);
    QCOMPARE(Outcomes::givenUp("a new reason").result, PAM_AUTHINFO_UNAVAIL);
}

void TstPamParts::documentation()
{
    QFile file(QStringLiteral(PAM_PAGE));
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QString page = QString::fromUtf8(file.readAll());
    const QMap<int, QString> names = {{PAM_AUTH_ERR, QStringLiteral("PAM_AUTH_ERR")},
                                      {PAM_MAXTRIES, QStringLiteral("PAM_MAXTRIES")},
                                      {PAM_PERM_DENIED, QStringLiteral("PAM_PERM_DENIED")},
                                      {PAM_AUTHINFO_UNAVAIL, QStringLiteral("PAM_AUTHINFO_UNAVAIL")}};
    for (const ResultCodes::Rule &rule : ResultCodes::Rules) {
        if (rule.code == 0)
            continue;
        const Outcome password = Outcomes::failed(rule.code, Credential::Password);
        const Outcome certificate = Outcomes::failed(rule.code, Credential::Certificate);
        const QString result = QLatin1Char('`') + names.value(password.result) + QLatin1Char('`');
        const QString results = password.result == certificate.result
                                    ? result
                                    : result + QStringLiteral(" with a password, `") + names.value(certificate.result)
                                          + QStringLiteral("` with a certificate");
        const QString row = QStringLiteral("\n| %1 | %2 | %3 | %4 |\n")
                                .arg(QString::number(rule.code), QString::fromStdString(password.text),
                                     QString::fromStdString(certificate.text), results);
        QVERIFY2(page.contains(row), qPrintable(row));
    }
}

void TstPamParts::locks()
{
    QCOMPARE(QString::fromStdString(Outcomes::locked("", 30).text),
             QStringLiteral("This user is locked for 30 seconds"));
    QCOMPARE(QString::fromStdString(Outcomes::locked("why\n", 0xffffffff).text),
             QStringLiteral("This user is locked until an administrator unlocks it (why\\u000a)"));
    QCOMPARE(Outcomes::locked("why", 1).result, PAM_PERM_DENIED);
    QCOMPARE(Outcomes::lockedNow("why", 1).result, PAM_MAXTRIES);
}

void TstPamParts::refusals()
{
    const auto result = [](const char *error) {
        return Outcomes::refused(error, "text").result;
    };
    QCOMPARE(result(Protocol::Errors::UserLocked), PAM_PERM_DENIED);
    QCOMPARE(result(Protocol::Errors::NoSuchUser), PAM_USER_UNKNOWN);
    QCOMPARE(result(Protocol::Errors::AccessDenied), PAM_CRED_INSUFFICIENT);
    QCOMPARE(result(Protocol::Errors::InvalidArgs), PAM_SERVICE_ERR);
    for (const char *error : {Protocol::Errors::Busy, Protocol::Errors::LimitsExceeded, Protocol::Errors::NoSuchMethod,
                              Protocol::Errors::NoSuchOption, "org.freedesktop.DBus.Error.NameHasNoOwner", ""})
        QCOMPARE(result(error), PAM_AUTHINFO_UNAVAIL);
    QCOMPARE(QString::fromStdString(Outcomes::refused(Protocol::Errors::UserLocked, "\x1b[2J").text),
             QStringLiteral("\\u001b[2J"));
    QCOMPARE(QString::fromStdString(Outcomes::refused("\x1b[2J", "").cause), QStringLiteral("\\u001b[2J"));
}

void TstPamParts::optionValues()
{
    const Options none = options({});
    QVERIFY(none.method.empty() && !none.cert && !none.timeout && none.firstPass == Options::Ignore);
    const Options all = options({"method=kavet", "cert=pkcs11:token=a=b", "timeout=300", "use_first_pass"});
    QCOMPARE(all.method, std::string("kavet"));
    QCOMPARE(*all.cert, std::string("pkcs11:token=a=b"));
    QCOMPARE(*all.timeout, 300U);
    QCOMPARE(all.firstPass, Options::Use);
    QVERIFY(all.ignored.empty());
    QCOMPARE(options({"try_first_pass"}).firstPass, Options::Try);
    QCOMPARE(*options({"timeout=1"}).timeout, 1U);
}

void TstPamParts::badOptions()
{
    for (const char *bad :
         {"timeout=0", "timeout=301", "timeout=", "timeout=1s", "timeout=-1", "timeout= 1",
          "timeout=99999999999999999999", "method=", "cert=", "cert", "debug", "nullok", "", "METHOD=x"}) {
        const Options read = options({bad});
        QCOMPARE(read.ignored, std::vector<std::string>{bad});
        QVERIFY(read.method.empty() && !read.cert && !read.timeout && read.firstPass == Options::Ignore);
    }
}

void TstPamParts::certificateLabels()
{
    QCOMPARE(labels({}), QStringList());
    QCOMPARE(
        labels({"pkcs11:model=m;token=my%20badge;id=%01;object=caf%C3%A9;type=cert?module-path=x;token=y", "other",
                "pkcs11:object=a", "pkcs11:", "pkcs11:token=100%;object=%4;type=cert", "x:token=a;object=b"}),
        (QStringList{QString::fromUtf8("café (my badge)"), QStringLiteral("other"), QStringLiteral("pkcs11:object=a"),
                     QStringLiteral("pkcs11:"), QStringLiteral("%4 (100%)"), QStringLiteral("x:token=a;object=b")}));
    // Two of the same name are told apart.
    QCOMPARE(labels({"pkcs11:token=a;object=b;id=1", "pkcs11:token=a;object=b;id=2", "pkcs11:token=a;object=c"}),
             (QStringList{QStringLiteral("pkcs11:token=a;object=b;id=1"),
                          QStringLiteral("pkcs11:token=a;object=b;id=2"), QStringLiteral("c (a)")}));
    QCOMPARE(labels({"pkcs11:token=%1b[2J;object=%0a%ff%00"}),
             QStringList{QStringLiteral("\\u000a?\\u0000 (\\u001b[2J)")});
    const bool holds = rc::check("every label is harmless", [] {
        const auto parts = *rc::gen::container<std::vector<std::string>>(rc::gen::container<std::string>(
            rc::gen::element('%', '1', 'b', ';', '=', '?', '\x1b', '\x9b', '\xc2', '\xe2', '\x80', '\xae')));
        std::vector<std::string> certs;
        certs.reserve(parts.size());
        for (const std::string &part : parts)
            certs.push_back(std::string("pkcs11:token=a").append(part).append(";object=b").append(part));
        for (const std::string &label : certLabels(certs))
            RC_ASSERT(harmless(label) == label);
    });
    QVERIFY(holds);
}

void TstPamParts::everyCharacterIsHarmless()
{
    // As for texts of Qt.
    for (char32_t character = 0; character <= 0x10ffff; ++character) {
        if (character >= 0xd800 && character <= 0xdfff)
            continue;
        const QString text = QString::fromUcs4(&character, 1);
        const std::string bytes = text.toStdString();
        if (harmless(bytes) != harmless(text).toStdString())
            QFAIL(qPrintable(QString::number(character, 16)));
    }
}

void TstPamParts::bytesAreHarmless()
{
    QCOMPARE(harmless(std::string()), std::string());
    QCOMPARE(harmless(std::string_view("a\x9b\xc0\x9b\xed\xa0\x80\xf5\x80\x80\x80\xe2\x80")),
             std::string("a????????????"));
    const bool holds = rc::check("the result is UTF-8 without harmful characters", [](const std::string &bytes) {
        const std::string shown = harmless(bytes);
        const QString text = QString::fromUtf8(shown.data(), int(shown.size()));
        RC_ASSERT(text.toStdString() == shown);
        RC_ASSERT(harmless(text) == text);
    });
    QVERIFY(holds);
}

void TstPamParts::deadline()
{
    Deadline deadline(1);
    QVERIFY(deadline.left() > 0 && deadline.left() <= 1000000);
    {
        const Deadline::Pause pause(deadline);
        QTest::qSleep(1500);
        QCOMPARE(deadline.left(), quint64(0));
    }
    QVERIFY(deadline.left() > 0);
    QTRY_COMPARE(deadline.left(), quint64(0));
}

QTEST_APPLESS_MAIN(TstPamParts)

#include "tst_pamparts.moc"
