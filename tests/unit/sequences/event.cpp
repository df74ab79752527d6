// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "event.h"

#include <ostream>

namespace Sequences {

QString nameOf(Kind kind)
{
    static const char *const names[] = {"Authenticate",
                                        "Reset",
                                        "EndClient",
                                        "StopClient",
                                        "PutSocket",
                                        "RemoveSocket",
                                        "ChangeSocketOwner",
                                        "TouchClientDirectory",
                                        "DropLink",
                                        "Reply",
                                        "FetchCerts",
                                        "SetCertsAnswer",
                                        "ReplyCerts",
                                        "StartSession",
                                        "StopSession",
                                        "CreateMarker",
                                        "RemoveMarker",
                                        "TouchHome",
                                        "WritePolicy",
                                        "ReplacePolicy",
                                        "PlantPolicy",
                                        "RemovePolicy",
                                        "WriteUserFile",
                                        "ReplaceUserFile",
                                        "PlantUserFile",
                                        "RemoveUserFile",
                                        "TouchSharedDirectory",
                                        "WritePackagedPolicy",
                                        "RemovePackagedPolicy",
                                        "RemoveMethodSettings",
                                        "SetLimit",
                                        "LockPartition",
                                        "UnlockPartition",
                                        "IncreaseAttempts",
                                        "ResetAttempts",
                                        "GetAttempts",
                                        "MarkForDeletion",
                                        "SetLauncher",
                                        "SetGroup",
                                        "MoveClientDirectory",
                                        "BlockSharedDirectory",
                                        "SetManifest",
                                        "SetWiper",
                                        "ReplyWiper",
                                        "Repair",
                                        "Restart"};
    static_assert(sizeof names / sizeof *names == size_t(Kind::Count), "every kind has a name");
    return QLatin1String(names[int(kind)]);
}

QString lateAnswer(const QString &answer)
{
    static const QStringList others = {QStringLiteral("<hold>"), QStringLiteral("<drop>"), QStringLiteral("<flood>"),
                                       QStringLiteral("<die>")};
    return others.contains(answer) ? answers.first() : answer;
}

std::ostream &operator<<(std::ostream &stream, const Event &event)
{
    return stream << nameOf(event.kind).toStdString() << " user=" << event.user << " variant=" << event.variant
                  << " answer=\"" << event.answer.toStdString() << '"' << (event.flag ? " flag" : "")
                  << (event.hurried ? " hurried" : "") << (event.delayed ? " delayed" : "")
                  << (event.overtaken ? " overtaken" : "");
}

std::ostream &operator<<(std::ostream &stream, const Setup &setup)
{
    return stream << "manifest=" << setup.manifest << (setup.manifestIsLink ? " (a link)" : "")
                  << (setup.packagedPolicy ? " packaged policy" : "")
                  << (setup.sharedDirectory ? " shared directory" : "")
                  << (setup.currentPolicy ? " current policy" : "");
}

} // namespace Sequences
