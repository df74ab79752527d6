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
#include <sys/uio.h>
#include <unistd.h>

namespace {

constexpr char tracerField[] = "\nTracerPid:";

// For the forked child: a message handler may need locks that another thread held at the moment of the fork, and what
// it collects ends with the child. Standard error needs no lock and reaches the parent.
void warnFromChild(const char *text)
{
    if (!kavet().isWarningEnabled())
        return;

    const char *const pieces[] = {kavet().categoryName(), ": ", text, "\n"};
    iovec line[std::size(pieces)];
    for (size_t i = 0; i < std::size(pieces); ++i)
        line[i] = {const_cast<char *>(pieces[i]), std::strlen(pieces[i])};
    // Nobody is left to be told when this fails.
    (void)!writev(STDERR_FILENO, line, int(std::size(line)));
}

} // namespace

ChildProcess::ChildProcess(QObject *parent)
    : QProcess(parent)
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

// The kernel tells a traced process's end to the tracer first, and to the parent only when the tracer has taken note.
void ChildProcess::killForGood()
{
    kill();
    QFile file(QStringLiteral("/proc/%1/status").arg(processId()));
    if (!file.open(QIODevice::ReadOnly))
        return;
    const QByteArray status = file.readAll();
    const int begin = status.indexOf(tracerField) + int(std::strlen(tracerField));
    const pid_t tracer = status.mid(begin, status.indexOf('\n', begin) - begin).trimmed().toInt();
    const QFileInfo process(QStringLiteral("/proc/%1").arg(tracer));
    if (tracer > 0 && process.exists() && process.ownerId() != 0)
        ::kill(tracer, SIGKILL);
}

// The process class forks with fork(2) for its subclasses, so that the C library's own locks are in order here; nothing
// of Qt is used.
void ChildProcess::setupChildProcess()
{
    gid_t groups[std::size(Constants::Process::supplementaryGroups)];
    for (size_t i = 0; i < std::size(groups); ++i) {
        const struct group *entry = getgrnam(Constants::Process::supplementaryGroups[i]);
        if (!entry)
            warnFromChild("Cannot get GID.");
        groups[i] = entry ? entry->gr_gid : gid;
    }

    // The user comes last: the group calls need root.
    if (setgroups(std::size(groups), groups) != 0)
        warnFromChild("setgroups() failed.");
    if (setresgid(gid, gid, gid) != 0)
        warnFromChild("setresgid() failed.");
    if (setresuid(uid, uid, uid) != 0)
        warnFromChild("setresuid() failed.");
}
