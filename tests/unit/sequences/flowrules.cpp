// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "rules.h"

namespace Sequences {

namespace {

constexpr int fullBudget = 11;
constexpr char connected[] = "flow: connected";
constexpr char launched[] = "flow: launched";
constexpr char resetStage[] = "reset: stage";

constexpr char connect[] = "connect";
constexpr char link[] = "link";
constexpr char call[] = "call";
constexpr char callOverNewLink[] = "call: over a new link";
constexpr char send[] = "send";
constexpr char listOverLink[] = "get certificate list: over the link";

// "REQUEST/CODE", as the daemon gets them
constexpr char askWithoutConnection[] = "inputRequested 0/0";
constexpr char ask[] = "inputRequested 2/0";
constexpr char cannotStart[] = "finish false 1/3";
constexpr char cannotConnect[] = "finish false 1/4";
constexpr char cannotCommunicate[] = "finish false 2/5";

#define CANNOT_CONNECT(reason)                                                                                         \
    "warning: Cannot connect to the Kavet client socket "                                                              \
    "\"unix:path=/run/aux-auth/tarsk/kavet_client/kavet.socket\" "                                                     \
    "QDBusError(\"org.freedesktop.DBus.Error.NoServer\", \"Failed to connect to socket "                               \
    "/run/aux-auth/tarsk/kavet_client/kavet.socket: " reason "\")"

} // namespace

const Table &flowRules()
{
    static const Table table = {
        {authenticate,
         {same(User, EventUser)},
         {copy(PendingData, EventData), copy(PendingCredential, EventCredential), run(flow)}},
        // One user's outcome would be taken for another's.
        {authenticate,
         {},
         {set(Request, none), copy(User, EventUser), copy(PendingData, EventData),
          copy(PendingCredential, EventCredential), run(flow)}},

        {reset,
         {},
         {set(PendingData, none), set(Request, none), set(User, 0), set(Budget, fullBudget), run(resetStage)}},
        {resetStage, {is(ClientRunning, no)}, {set(Stage, MustLaunch)}},
        {resetStage, {is(SocketPresent, no)}, {set(Stage, MustConnect)}},
        {resetStage, {}, {set(Stage, Linked)}},

        {flow, {is(Partition, yes)}, {write(askWithoutConnection)}},
        {flow, {is(User, 0)}, {}},
        {flow, {isNot(Process, NotRunning), differ(ServedUser, User)}, {run(killClient)}},
        {flow, {is(ClientStarting, yes)}, {}},
        {flow, {is(Stage, MustLaunch)}, {run(launch), run(launched)}},
        {launched, {is(Outcome, no)}, {write(cannotStart)}},
        {launched, {}, {set(Stage, MustConnect), run(flow)}},
        {flow, {is(Stage, MustConnect)}, {run(connect), run(connected)}},
        {connected, {is(Outcome, no)}, {write(cannotConnect)}},
        {connected, {}, {set(Stage, Linked), run(flow)}},
        // The data are sent once.
        {flow, {is(PendingData, none)}, {write(ask)}},
        {flow, {is(PendingData, CertOnly)}, {set(PendingData, none), write(ask)}},
        {flow, {is(PendingData, EmptyMap)}, {set(PendingData, none), write(ask)}},
        {flow, {}, {copy(Sending, PendingCredential), set(PendingData, none), run(call)}},

        // A request is current until it has an outcome. The reply to any other is dropped.
        {callAnswered,
         {differ(Arrived, Request)},
         {write("debug: %1 Dropped the reply to a request that is no longer current", {ArrivedMethod})}},
        {callAnswered, {says(Answer, "success")}, {set(Request, none), write("succeed")}},
        {callAnswered, {says(Answer, "<many>")}, {set(Request, none), write("succeed")}},
        {callAnswered, {says(Answer, "lock")}, {set(Request, none), write("finish false 2/6")}},
        {callAnswered, {says(Answer, "remove")}, {set(Request, none), write("finish false 2/7")}},
        {callAnswered, {says(Answer, "nousb")}, {set(Request, none), write("finish false 2/9")}},
        {callAnswered, {says(Answer, "connerr")}, {set(Request, none), write("finish false 2/10")}},
        {callAnswered, {says(Answer, "failed")}, {set(Request, none), write("finish false 2/11")}},
        {callAnswered, {says(Answer, "firstcererr")}, {set(Request, none), write("finish false 2/12")}},
        {callAnswered, {says(Answer, "errauthtype")}, {set(Request, none), write("finish false 2/14")}},
        {callAnswered,
         {says(Answer, "<error>")},
         {set(Request, none), write("warning: %1 failed: QDBusError(\"tarsk.Error\", \"No luck\")", {ArrivedMethod}),
          write(cannotCommunicate)}},
        {callAnswered,
         {says(Answer, "<number>")},
         {set(Request, none),
          write("warning: %1 failed: QDBusError(\"org.freedesktop.DBus.Error.InvalidSignature\", "
                "\"Unexpected reply signature: got \\\"i\\\", expected \\\"s\\\"\")",
                {ArrivedMethod}),
          write(cannotCommunicate)}},
        {callAnswered,
         {says(Answer, "<nothing>")},
         {set(Request, none),
          write("warning: %1 failed: QDBusError(\"org.freedesktop.DBus.Error.InvalidSignature\", "
                "\"Unexpected reply signature: got \\\"\\\", expected \\\"s\\\"\")",
                {ArrivedMethod}),
          write(cannotCommunicate)}},
        {callAnswered, {}, {set(Request, none), write("finish false 2/11")}},

        {callLost,
         {differ(Arrived, Request)},
         {write("debug: %1 Dropped the reply to a request that is no longer current", {ArrivedMethod})}},
        {callLost,
         {},
         {set(Request, none), write("warning: %1 failed: LINK ENDED", {ArrivedMethod}), write(cannotCommunicate)}},
    };
    return table;
}

const Table &linkRules()
{
    static const Table table = {
        {connect, {is(ClientRunning, no)}, {outcome(no)}},
        {connect, {is(SocketPresent, no)}, {outcome(no)}},
        {connect, {is(LinkOpen, yes)}, {outcome(yes)}},
        // A client that has been told to end serves nobody.
        {connect, {is(ServedUser, nobody)}, {outcome(no)}},
        // Nor does a client serve another user.
        {connect, {isNot(User, 0), differ(ServedUser, User)}, {outcome(no)}},
        {connect, {is(SocketThere, no)}, {write(CANNOT_CONNECT("No such file or directory")), outcome(no)}},
        {connect, {is(Listener, nobody)}, {write(CANNOT_CONNECT("Connection refused")), outcome(no)}},
        {connect, {is(Listener, 0)}, {run(link)}},
        {connect, {same(Listener, ServedUser)}, {run(link)}},
        {connect, {}, {write(CANNOT_CONNECT("Operation not permitted")), outcome(no)}},
        {link, {is(CertsPending, yes)}, {OpenLink, set(CertsPending, no), run(getCertList), outcome(yes)}},
        {link, {}, {OpenLink, outcome(yes)}},

        // After a reset the stage says "linked" if there is a socket, even if there is no link.
        {call, {is(LinkOpen, yes)}, {run(send)}},
        {call, {}, {set(Request, none), run(connect), run(callOverNewLink)}},
        {callOverNewLink,
         {is(Outcome, no)},
         {write("warning: %1 failed: LINK ENDED", {SendingMethod}), write(cannotCommunicate)}},
        {callOverNewLink, {}, {run(send)}},
        {send, {}, {copy(Request, Sending), SendCall}},

        {getCertificates, {}, {run(getCertList), returns("%1", {CertsReturned})}},
        {getCertList, {is(CertsInFlight, yes)}, {set(CertsPending, no), outcome(no)}},
        {getCertList, {}, {run(connect), run(listOverLink)}},
        {listOverLink, {is(Outcome, no)}, {set(CertsPending, yes)}},
        {listOverLink, {}, {set(CertsPending, no), set(CertsInFlight, yes), SendCertCall, outcome(yes)}},

        // An error, too, is reported, as an empty list.
        {certificatesAnswered,
         {is(CertsReply, SomeCerts)},
         {write("optionChanged 0 certs [pkcs11:one,pkcs11:two]"), set(CertsInFlight, no)}},
        {certificatesAnswered,
         {is(CertsReply, MostCerts)},
         {write("optionChanged 0 certs [1000]"), set(CertsInFlight, no)}},
        {certificatesAnswered, {is(CertsReply, NoCerts)}, {write("optionChanged 0 certs []"), set(CertsInFlight, no)}},
        {certificatesAnswered,
         {is(CertsReply, CertsError)},
         {write("warning: getCertList failed: \"No luck\""), write("optionChanged 0 certs []"),
          set(CertsInFlight, no)}},
        {certificatesAnswered,
         {is(CertsReply, CertsNumber)},
         {write("warning: getCertList failed: "
                "\"Unexpected reply signature: got \\\"i\\\", expected \\\"as\\\"\""),
          write("optionChanged 0 certs []"), set(CertsInFlight, no)}},
        {certificatesAnswered,
         {is(CertsReply, CertsNothing)},
         {write("warning: getCertList failed: "
                "\"Unexpected reply signature: got \\\"\\\", expected \\\"as\\\"\""),
          write("optionChanged 0 certs []"), set(CertsInFlight, no)}},
        {certificatesAnswered,
         {is(CertsReply, CertsLost)},
         {write("warning: getCertList failed: LINK ENDED"), write("optionChanged 0 certs []"), set(CertsInFlight, no)}},
        {certificatesAnswered,
         {},
         {write("warning: getCertList failed: \"The list of certificates is too long\""),
          write("optionChanged 0 certs []"), set(CertsInFlight, no)}},

        {linkFlooded,
         {},
         {write("warning: Dropping the link to the client: it has sent more than a reply needs"), CloseLink}},
    };
    return table;
}

} // namespace Sequences
