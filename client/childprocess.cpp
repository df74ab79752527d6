// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "client/childprocess.h"

#include "plugin/logging.h"
#include "settings/constants.h"

#include <appmanifest/manifestentry.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <csignal>
#include <cstring>
#include <iterator>

#include <grp.h>
#include <unistd.h>

namespace {

constexpr char tracerField[] = "\nTracerPid:";

// Runs in the forked child, so it makes only async-signal-safe calls. A message handler could need a lock that another
// thread held at the fork, and anything it stored would die with the child. The parent reads standard error.
void warnFromChild(const QLoggingCategory &category, const char *text)
{
    if (!category.isWarningEnabled())
        return;

    char line[128];
    char *end = line;
    for (const char *piece : {category.categoryName(), ": ", text, "\n"})
        end = stpncpy(end, piece, size_t(std::end(line) - end));
    // There is nowhere left to report an error.
    (void)!write(STDERR_FILENO, line, size_t(end - line));
}

} // namespace

ChildProcess::ChildProcess(QObject *parent)
    : QProcess(parent)
    , m_log(kavet())
{
}

ChildProcess::~ChildProcess() = default;

bool ChildProcess::detectManifest()
{
    const QFileInfo manifest(Constants::Paths::manifest);
    if (manifest.isSymLink()) {
        manifestExists = true;
        manifestIsSymLink = true;
        manifestLinkTarget = manifest.symLinkTarget();
        if (!QFileInfo::exists(manifestLinkTarget)) {
            manifestParsed = false;
            return true;
        }
    }

    manifestExists = manifest.exists();
    return manifestExists && parseManifest();
}

bool ChildProcess::tryToParseManifest()
{
    if (!manifestExists)
        return false;
    if (manifestParsed)
        return true;
    if (!manifestIsSymLink)
        return false;
    return parseManifest();
}

bool ChildProcess::parseManifest()
{
    const auto manifest = AppManifest::ManifestEntry::fromFilename(Constants::Paths::manifest.toStdString());
    if (!manifest) {
        qCCritical(kavet) << "Cannot open or parse manifest file" << Constants::Paths::manifest;
        manifestExists = false;
        manifestParsed = false;
        return false;
    }

    appName = QString::fromStdString(manifest->appName());
    orgName = QString::fromStdString(manifest->appOrgname());
    exec = QString::fromStdString(manifest->exec());
    if (!orgName.isEmpty() && !appName.isEmpty())
        sharedDirectory = Constants::Paths::shared + QDir::separator() + orgName + QDir::separator() + appName;

    manifestParsed = true;
    return true;
}

// The kernel reports the end of a traced process to the tracer, and to the parent only after the tracer has reaped it.
void ChildProcess::killForGood()
{
    kill();
    QFile file(QStringLiteral("/proc/%1/status").arg(processId()));
    if (!file.open(QIODevice::ReadOnly))
        return;
    const QByteArray status = file.readAll();
    const int begin = status.indexOf(tracerField) + int(std::strlen(tracerField));
    const pid_t tracer = status.mid(begin, status.indexOf('\n', begin) - begin).trimmed().toInt();
    if (tracer > 0 && QFileInfo(QStringLiteral("/proc/%1").arg(tracer)).ownerId() != 0)
        ::kill(tracer, SIGKILL);
}

// QProcess starts a subclass with fork(2), so the C library has reset its allocator's locks for getgrnam(). Qt may hold
// locks of its own; all that is used of it here is the logging category, which the constructor has made.
void ChildProcess::setupChildProcess()
{
    gid_t groups[std::size(Constants::Process::supplementaryGroups)];
    for (size_t i = 0; i < std::size(groups); ++i) {
        const struct group *entry = getgrnam(Constants::Process::supplementaryGroups[i]);
        if (!entry)
            warnFromChild(m_log, "Cannot get GID.");
        groups[i] = entry ? entry->gr_gid : gid;
    }

    // The user comes last: the group calls need root.
    if (setgroups(std::size(groups), groups) != 0)
        warnFromChild(m_log, "setgroups() failed.");
    if (setresgid(gid, gid, gid) != 0)
        warnFromChild(m_log, "setresgid() failed.");
    if (setresuid(uid, uid, uid) != 0)
        warnFromChild(m_log, "setresuid() failed.");
}
