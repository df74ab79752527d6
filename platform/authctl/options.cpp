// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "commands.h"
#include "output.h"
#include "service.h"
#include "users.h"

namespace {

} // namespace

ExitCode Commands::options(Service &service, const Output &output, const Request &request)
{
    // An empty user name is an error. It must not select the method-wide options.
    const bool isUsers = request.optionUser.has_value();
    const uint uid = isUsers ? userId(*request.optionUser) : Output::NoUser;
    const QString method = service.methodOrFirst(request.method);

    if (!request.option) {
        const QVariantMap values =
            Service::result(isUsers ? service.GetUserMethodOptions(uid, method) : service.GetMethodOptions(method))
                .value();
        for (auto value = values.cbegin(); value != values.cend(); ++value)
            output.option(uid, method, value.key(), value.value());
        return Success;
    }

    const QString option = *request.option;
    if (request.value) {
        const QDBusVariant value(*request.value);
        Service::result(isUsers ? service.SetUserMethodOption(uid, method, option, value)
                                : service.SetMethodOption(method, option, value));
    }
    const QDBusVariant value = Service::result(isUsers ? service.GetUserMethodOption(uid, method, option)
                                                       : service.GetMethodOption(method, option))
                                   .value();
    output.option(uid, method, option, value.variant());
    return Success;
}
