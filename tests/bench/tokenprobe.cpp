// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "certificate.h"
#include "clientsettings.h"
#include "keyproof.h"
#include "tokenobjects.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>

#include <cstdio>
#include <cstdlib>
#include <optional>

using namespace TokenObjects;

namespace {

/// Prints a step's time in nanoseconds.
template <typename Step>
void take(const char *name, const Step &step)
{
    QElapsedTimer timer;
    timer.start();
    const bool isGood = step();
    std::printf("%lld %s\n", timer.nsecsElapsed(), name);
    if (!isGood)
        std::exit(EXIT_FAILURE);
}

} // namespace

/// Usage: tokenprobe URI <PIN
/// Takes the steps of a certificate check as the client's helper does, and prints how long each takes.
int main(int argc, char *argv[])
{
    const QCoreApplication application(argc, argv);
    const QByteArray cert = argv[argc - 1];
    QFile input;
    input.open(stdin, QIODevice::ReadOnly);
    const QByteArray pin = input.readAll();

    const ClientSettings settings;
    std::optional<Modules> modules;
    const auto load = [&modules, &settings] {
        modules.emplace(settings.module());
        return modules->loaded();
    };
    take("load the module's libraries and initialise it", load);
    modules.reset();
    // As in the waiting helper, nothing has to be read from disk now.
    take("initialise the module again", load);
    Objects found;
    take("find the certificate", [&] {
        return find(cert, GNUTLS_PKCS11_OBJ_FLAG_CRT, found) == GNUTLS_E_SUCCESS && found.size() == 1
               && requiresPin(tokenPart(uri(found.front())));
    });
    Certificate certificate;
    take("check the certificate", [&] {
        certificate = certificateOf(found.front());
        return isTrusted(certificate, {}, settings) && belongsTo(certificate, QStringLiteral("alice"), settings);
    });
    take("log in, sign, and verify the signature", [&] {
        return proveKey(tokenPart(uri(found.front())), id(found.front()), certificate, pin) == GNUTLS_E_SUCCESS;
    });
    return EXIT_SUCCESS;
}
