// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "commands.h"
#include "output.h"
#include "service.h"
#include "states.h"
#include "users.h"

ExitCode Commands::state(Service &service, const Output &output, const Request &request)
{
    const uint uid = userId(request.user);
    const auto reply = Service::result(service.GetState(uid));
    const QString state = reply.argumentAt<1>();
    output.state(reply.argumentAt<0>(), uid, state, reply.argumentAt<2>());
    return state == States::Locked ? Locked : Success;
}

ExitCode Commands::cancel(Service &service, const Output &output, const Request &request)
{
    const uint uid = userId(request.user);
    Service::result(service.Cancel(Service::result(service.GetState(uid)).argumentAt<0>()));
    output.done(uid);
    return Success;
}

ExitCode Commands::session(Service &service, const Output &output, const Request &request)
{
    const uint uid = userId(request.user);
    const bool manageClient = !request.unmanaged;
    Service::result(request.sessionEvent == SessionStart ? service.SessionStarted(uid, manageClient)
                                                         : service.SessionStopped(uid, manageClient));
    output.done(uid);
    return Success;
}

ExitCode Commands::unlock(Service &service, const Output &output, const Request &request)
{
    const uint uid = userId(request.user);
    Service::result(service.Unlock(uid));
    output.done(uid);
    return Success;
}
