// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "sequences/event.h"
#include "sequences/model.h"
#include "sequences/peer.h"
#include "sequences/system.h"

#include <QLoggingCategory>
#include <QProcess>
#include <QTest>

#include <rapidcheck.h>
#include <rapidcheck/state.h>

#include <csignal>
#include <cstdio>
#include <iterator>
#include <limits>
#include <sstream>

using namespace Sequences;

namespace {

constexpr int sequencesByDefault = 2000;
constexpr int longestSequence = 60;

QMap<QString, int> kindsSeen;
QMap<QString, int> situationsSeen;
QMap<int, int> lengthsSeen;
QStringList logLines;
const QMap<int, QString> levels = {{QtDebugMsg, QStringLiteral("debug")},
                                   {QtInfoMsg, QStringLiteral("info")},
                                   {QtWarningMsg, QStringLiteral("warning")},
                                   {QtCriticalMsg, QStringLiteral("critical")},
                                   {QtFatalMsg, QStringLiteral("fatal")}};
QMap<size_t, int> rowsTaken;

void keepLogLine(QtMsgType level, const QMessageLogContext &context, const QString &text)
{
    static QMutex mutex;
    const QMutexLocker locker(&mutex);
    const QString line = levels.value(level) + QStringLiteral(": ") + text;
    if (qstrcmp(context.category, "authd.method.kavet") == 0)
        System::log(line);
    logLines << QLatin1String(context.category) + QLatin1Char(' ') + line;
    if (level == QtFatalMsg)
        std::fprintf(stderr, "%s\n", qPrintable(text));
}

void takeDown(const World &world)
{
    for (size_t row = 0; row < rules().size(); ++row)
        rowsTaken[row] += world.rowsTaken.test(row);
    for (const QString &situation : world.situations)
        ++situationsSeen[situation];
}

[[noreturn]] void fail(std::string text)
{
    text += "\n  the last messages:";
    const QStringList last = logLines.mid(qMax(0, logLines.size() - 16));
    for (const QString &line : last)
        text += "\n    " + line.toStdString();
    // Print it before shrinking, because shorter sequences may not fail.
    static bool isFirst = true;
    if (isFirst)
        std::fprintf(stderr, "First failure: %s\n", text.c_str());
    isFirst = false;
    RC_FAIL(text);
}

class Happening : public rc::state::Command<Model, System>
{
public:
    explicit Happening(const Event &event)
        : m_event(event)
    {
    }

    void checkPreconditions(const Model &before) const override { RC_PRE(before.allows(m_event)); }
    void apply(Model &model) const override { model.applyAll(m_event); }
    void show(std::ostream &stream) const override { stream << m_event; }

    void run(const Model &, System &system) const override
    {
        const QString difference = system.perform(m_event);
        if (!difference.isEmpty()) {
            std::ostringstream text;
            text << "after " << m_event << ":" << difference.toStdString();
            fail(text.str());
        }
        ++kindsSeen[nameOf(m_event.kind)];
        takeDown(system.world());
    }

private:
    const Event m_event;
};

using HappeningPointer = std::shared_ptr<const Happening::CommandType>;

constexpr struct
{
    int weight;
    Kind kind;
} weights[] = {{16, Kind::Authenticate},
               {4, Kind::Reset},
               {5, Kind::EndClient},
               {2, Kind::StopClient},
               {14, Kind::PutSocket},
               {2, Kind::RemoveSocket},
               {2, Kind::ChangeSocketOwner},
               {1, Kind::TouchClientDirectory},
               {4, Kind::DropLink},
               {5, Kind::Reply},
               {3, Kind::FetchCerts},
               {2, Kind::SetCertsAnswer},
               {3, Kind::ReplyCerts},
               {5, Kind::StartSession},
               {3, Kind::StopSession},
               {3, Kind::CreateMarker},
               {2, Kind::RemoveMarker},
               {2, Kind::TouchHome},
               {3, Kind::WritePolicy},
               {2, Kind::ReplacePolicy},
               {2, Kind::PlantPolicy},
               {1, Kind::RemovePolicy},
               {3, Kind::WriteUserFile},
               {2, Kind::ReplaceUserFile},
               {3, Kind::PlantUserFile},
               {1, Kind::RemoveUserFile},
               {1, Kind::TouchSharedDirectory},
               {1, Kind::WritePackagedPolicy},
               {1, Kind::RemovePackagedPolicy},
               {1, Kind::RemoveMethodSettings},
               {1, Kind::SetLimit},
               {1, Kind::LockPartition},
               {2, Kind::UnlockPartition},
               {4, Kind::IncreaseAttempts},
               {1, Kind::ResetAttempts},
               {1, Kind::GetAttempts},
               {2, Kind::MarkForDeletion},
               {4, Kind::SetLauncher},
               {1, Kind::SetGroup},
               {1, Kind::MoveClientDirectory},
               {1, Kind::BlockSharedDirectory},
               {1, Kind::SetManifest},
               {1, Kind::SetWiper},
               {3, Kind::ReplyWiper},
               {6, Kind::Repair},
               {1, Kind::Restart}};
static_assert(std::size(weights) == size_t(Kind::Count), "every kind is drawn");

rc::Gen<HappeningPointer> anyHappening(const Model &model)
{
    using namespace rc;
    std::vector<Kind> kinds;
    for (const auto &weight : weights)
        kinds.insert(kinds.end(), size_t(weight.weight), weight.kind);
    const QVector<Kind> next = model.next();
    kinds.insert(kinds.end(), next.cbegin(), next.cend());
    const uint delayedUser = model.delayedUser();
    const bool isDelayed = delayedUser != alice;
    const auto users = gen::weightedElement<uint>({{14, alice}, {6, bob}, {4, carol}, {1, 0}, {1, unknownUser}});
    // Variants with small numbers are the common ones.
    const auto common = gen::weightedElement<int>({{16, 0}, {4, 1}, {2, 2}, {2, 3}, {2, 4}, {2, 5}, {2, 6}, {1, 7}});
    const auto any = gen::inRange(0, 60);
    const auto answer = gen::oneOf(gen::elementOf(std::vector<QString>(answers.cbegin(), answers.cend())),
                                   gen::element(QString(answers.first()), QStringLiteral("<hold>")));
    const auto mostly = gen::weightedElement<bool>({{3, true}, {1, false}});
    // Only the next event can come before a start fails.
    const World &world = model.worlds().first();
    const bool startsFail = world.get(LauncherMode) == IsMissing;
    const bool isFailing = world.is(ClientStarting) && world.get(ProcessMode) == IsMissing;
    const bool mayBeOvertaken = world.isReplyUnderWay();
    const uint another = world.get(User) == int(alice) ? bob : alice;
    const auto seldom = gen::weightedElement<bool>({{startsFail ? 1U : 4U, false}, {1U, true}});
    return gen::map(gen::tuple(gen::elementOf(kinds), users, common, any, answer, mostly, seldom, seldom, seldom),
                    [delayedUser, isDelayed, isFailing, mayBeOvertaken,
                     another](const std::tuple<Kind, uint, int, int, QString, bool, bool, bool, bool> &parts) {
                        Event event;
                        int variant = 0;
                        std::tie(event.kind, event.user, event.variant, variant, event.answer, event.flag,
                                 event.hurried, event.delayed, event.overtaken) = parts;
                        switch (event.kind) {
                        case Kind::Authenticate:
                            event.variant %= AuthDataCount;
                            if (event.flag && isDelayed)
                                event.user = delayedUser;
                            if (event.flag && isFailing)
                                event.user = another;
                            break;
                        case Kind::PutSocket:
                            event.variant %= SocketChoiceCount;
                            break;
                        case Kind::ChangeSocketOwner:
                            event.variant %= socketOwnerChoices;
                            break;
                        case Kind::ReplyCerts:
                            event.variant = variant % HoldCerts;
                            break;
                        case Kind::SetCertsAnswer:
                            event.variant =
                                event.answer == QLatin1String("<hold>") ? HoldCerts : variant % CertsAnswerCount;
                            break;
                        case Kind::SetLauncher:
                            event.variant = variant % LauncherCount;
                            break;
                        case Kind::SetGroup:
                            event.variant = variant % GroupCount;
                            break;
                        case Kind::SetManifest:
                            event.variant = variant % ManifestCount;
                            break;
                        case Kind::SetWiper:
                            event.variant = event.answer == QLatin1String("<hold>") ? WiperHolds : variant % WiperCount;
                            break;
                        case Kind::PlantPolicy:
                        case Kind::PlantUserFile:
                            event.variant = variant % PlantCount;
                            break;
                        case Kind::GetAttempts:
                            if (!event.flag)
                                event.user = 0;
                            break;
                        case Kind::CreateMarker:
                        case Kind::TouchHome:
                            if (event.flag)
                                event.user = delayedUser;
                            break;
                        case Kind::EndClient:
                            event.variant = variant;
                            event.overtaken = event.overtaken || mayBeOvertaken;
                            break;
                        case Kind::Reply:
                            event.variant = variant;
                            event.hurried = event.hurried || event.flag; // so that it can be overtaken
                            break;
                        case Kind::WritePolicy:
                        case Kind::ReplacePolicy:
                        case Kind::WriteUserFile:
                        case Kind::ReplaceUserFile:
                        case Kind::WritePackagedPolicy:
                        case Kind::SetLimit:
                            event.variant = variant;
                            break;
                        default:
                            break;
                        }
                        return HappeningPointer(std::make_shared<Happening>(event));
                    });
}

rc::Gen<Setup> anySetup()
{
    using namespace rc;
    return gen::map(gen::tuple(gen::weightedElement<int>(
                                   {{20, Stock}, {2, NoManifest}, {1, Damaged}, {1, NoOrganization}, {1, NoCommand}}),
                               gen::arbitrary<bool>(), gen::arbitrary<bool>(), gen::arbitrary<bool>(),
                               gen::arbitrary<bool>()),
                    [](const std::tuple<int, bool, bool, bool, bool> &parts) {
                        Setup setup;
                        std::tie(setup.manifest, setup.manifestIsLink, setup.packagedPolicy, setup.sharedDirectory,
                                 setup.currentPolicy) = parts;
                        setup.currentPolicy = setup.currentPolicy && setup.sharedDirectory;
                        return setup;
                    });
}

} // namespace

class TstSequences : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void modelAndMethodAgree();
    void sequencesReachEverything();

private:
    int m_sequences = sequencesByDefault;
    bool m_isReplay = false;
    std::unique_ptr<Peer> m_peer;
};

void TstSequences::initTestCase()
{
    // QtTest's handler would also run in a client that is terminated between fork and exec.
    std::signal(SIGTERM, SIG_DFL);
    QCOMPARE(QProcess::execute(QStringLiteral(SYSTEM_BUS), {}), 0);
    System::prepareDevice();
    m_peer = std::make_unique<Peer>(System::peerProgram);

    if (qEnvironmentVariableIsSet("KAVET_SEQUENCES")) {
        bool isNumber = false;
        m_sequences = qEnvironmentVariableIntValue("KAVET_SEQUENCES", &isNumber);
        QVERIFY2(isNumber && m_sequences > 0, "KAVET_SEQUENCES must be a number of sequences");
    }
    m_isReplay = qgetenv("RC_PARAMS").contains("reproduce");
    // Parameters from the environment come last and take precedence.
    qputenv("RC_PARAMS", QByteArrayLiteral("max_success=") + QByteArray::number(m_sequences)
                             + " max_size=" + QByteArray::number(longestSequence) + ' ' + qgetenv("RC_PARAMS"));
    // The log is the only trace of a dropped reply.
    QLoggingCategory::setFilterRules(QStringLiteral("authd.method.kavet.debug=true"));
    qInstallMessageHandler(keepLogLine);
}

void TstSequences::cleanupTestCase()
{
    m_peer.reset();
}

void TstSequences::modelAndMethodAgree()
{
    rc::detail::TestMetadata metadata;
    metadata.id = metadata.description = "modelAndMethodAgree";
    const rc::detail::TestResult result = rc::detail::checkTestable(
        [this] {
            logLines.clear();
            const Setup setup = *anySetup();
            const Model model(setup);
            const auto happenings = *rc::state::gen::commands(model, anyHappening);
            System system(setup, *m_peer);
            const QString difference = system.compareStart();
            if (!difference.isEmpty())
                fail("at the start:" + difference.toStdString());
            takeDown(system.world());
            rc::state::runAll(happenings, model, system);
            ++lengthsSeen[int(happenings.size()) / 10 * 10];
        },
        metadata);

    std::ostringstream text;
    rc::detail::printResultMessage(result, text);
    if (result.is<rc::detail::FailureResult>()) {
        rc::detail::Configuration replay;
        replay.testParams = rc::detail::configuration().testParams;
        replay.reproduce.insert({metadata.id, result.get<rc::detail::FailureResult>().reproduce});
        text << "\nTo replay it: RC_PARAMS=\"" << rc::detail::configToMinimalString(replay) << '"';
    }
    // QtTest truncates long messages.
    const bool agree = result.is<rc::detail::SuccessResult>();
    if (!agree)
        std::fprintf(stderr, "%s\n", text.str().c_str());
    QVERIFY2(agree, text.str().c_str());
}

void TstSequences::sequencesReachEverything()
{
    for (auto kind = kindsSeen.cbegin(); kind != kindsSeen.cend(); ++kind)
        std::printf("%7d %s\n", kind.value(), qPrintable(kind.key()));
    for (auto row = rowsTaken.cbegin(); row != rowsTaken.cend(); ++row)
        std::printf("%7d %s\n", row.value(), qPrintable(nameOfRow(row.key())));
    for (auto situation = situationsSeen.cbegin(); situation != situationsSeen.cend(); ++situation)
        std::printf("%7d %s\n", situation.value(), qPrintable(situation.key()));
    for (auto length = lengthsSeen.cbegin(); length != lengthsSeen.cend(); ++length)
        std::printf("%7d sequences of %d events and more\n", length.value(), length.key());
    std::fflush(stdout);

    if (m_sequences < sequencesByDefault || m_isReplay)
        QSKIP("Only as many sequences as are run by default are sure to reach everything.");
    for (int kind = 0; kind < int(Kind::Count); ++kind)
        QVERIFY2(kindsSeen.contains(nameOf(Kind(kind))), qPrintable(nameOf(Kind(kind))));
    for (const char *situation :
         {"answered after the link", "files brought back", "link cut", "socket brought back", "termination ignored"})
        QVERIFY2(situationsSeen.contains(QLatin1String(situation)), situation);
    QStringList unused;
    for (size_t row = 0; row < rules().size(); ++row) {
        if (rowsTaken.value(row) == 0)
            unused << nameOfRow(row);
    }
    const QString rare = QStringLiteral("reply overtaken");
    if (!situationsSeen.contains(rare))
        unused << rare;
    // A run with a new seed may miss a rare row or situation.
    QVERIFY2(unused.isEmpty() || !qgetenv("RC_PARAMS").contains("seed="),
             qPrintable(unused.join(QStringLiteral("; "))));
    QVERIFY(lengthsSeen.lastKey() >= 30);
}

int main(int argc, char *argv[])
{
    // Long runs exceed QtTest's limit of five minutes for a test function.
    if (!qEnvironmentVariableIsSet("QTEST_FUNCTION_TIMEOUT"))
        qputenv("QTEST_FUNCTION_TIMEOUT", QByteArray::number(std::numeric_limits<int>::max()));
    QCoreApplication application(argc, argv);
    TstSequences test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_sequences.moc"
