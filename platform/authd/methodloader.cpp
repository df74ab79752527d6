// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "methodloader.h"

#include "log.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonObject>
#include <QLibrary>
#include <QPluginLoader>

#include <algorithm>
#include <tuple>

namespace {

const QLatin1String interfaceId(qobject_interface_iid<AuthPluginInterface *>());

struct Candidate
{
    QString file;
    QString name;
    QJsonObject description;

    int priority() const { return description.value(QLatin1String("Priority")).toInt(); }
};

void refuse(const QString &file, const char *reason, const QString &details = QString())
{
    Log::write(Log::Warning, "method-refused",
               {{"file", file}, {"reason", QString::fromLatin1(reason)}, {"details", details}});
}

std::vector<Candidate> findCandidates(const QString &directory)
{
    std::vector<Candidate> candidates;
    const QFileInfoList files = QDir(directory).entryInfoList(QDir::Files, QDir::Name);
    for (const QFileInfo &entry : files) {
        const QString file = entry.absoluteFilePath();
        if (!QLibrary::isLibrary(file)) {
            refuse(file, "not a library");
            continue;
        }
        const QPluginLoader loader(file);
        const QJsonObject metaData = loader.metaData();
        if (metaData.isEmpty()) {
            refuse(file, "no plugin metadata", loader.errorString());
            continue;
        }
        const QJsonObject description = metaData.value(QLatin1String("MetaData")).toObject();
        const QString name = description.value(QLatin1String("Name")).toString();
        if (name.isEmpty()) {
            refuse(file, "no name in the metadata");
            continue;
        }
        candidates.push_back({file, name, description});
    }
    return candidates;
}

} // namespace

std::vector<Method> loadMethods(const QString &directory)
{
    std::vector<Candidate> candidates = findCandidates(directory);
    std::sort(candidates.begin(), candidates.end(), [](const Candidate &a, const Candidate &b) {
        return std::make_tuple(-a.priority(), a.name, a.file) < std::make_tuple(-b.priority(), b.name, b.file);
    });

    std::vector<Method> methods;
    for (const Candidate &candidate : candidates) {
        const bool taken = std::any_of(methods.cbegin(), methods.cend(),
                                       [&candidate](const Method &method) { return method.name == candidate.name; });
        if (taken) {
            refuse(candidate.file, "name already taken", candidate.name);
            continue;
        }
        QPluginLoader loader(candidate.file);
        loader.setLoadHints(QLibrary::ResolveAllSymbolsHint | QLibrary::PreventUnloadHint);
        std::unique_ptr<QObject> object(loader.instance());
        if (!object) {
            refuse(candidate.file, "cannot be loaded", loader.errorString());
            continue;
        }
        auto *plugin = qobject_cast<AuthPluginInterface *>(object.get());
        if (!plugin) {
            refuse(candidate.file, "another interface", QLatin1String("wanted ") + interfaceId);
            continue;
        }
        if (plugin->name() != candidate.name) {
            refuse(candidate.file, "name differs from the metadata", plugin->name());
            continue;
        }
        (void)object.release(); // The method owns it from here on.
        methods.push_back({candidate.name, candidate.description.value(QLatin1String("Descr")).toString(),
                           candidate.description.value(QLatin1String("Version")).toString(), candidate.priority(),
                           std::unique_ptr<AuthPluginInterface>(plugin)});
        Log::write(Log::Info, "method-loaded",
                   {{"method", candidate.name}, {"priority", candidate.priority()}, {"file", candidate.file}});
    }
    return methods;
}
