// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause

// A token module that misbehaves as soft tokens never do. It forwards everything to the soft tokens' module, but blocks
// a token's PIN after three wrong tries. The file unruly-token in the home directory makes the next signature
// misbehave:
//   error    the module fails
//   break    the module fails, and cannot be initialised any more
//   remove   the tokens in the home directory move from tokens to removed, and the module says so
//   crash    the process dies of a signal
//   exit     the process exits with success
//   hang     never returns
//   wait     returns when the file says something else
//   forge    signs another text
// or at once:
//   keypad   the token has a keypad, on which the PIN 31415926 is typed at each login
//   initialize   the module cannot be initialised
//   stall    initialising the module never returns; each time adds a line to the file stalled
//   print    writes to standard output
//   record   writes the text that it signs to the file signed. Each process adds its id to the file initialised when it
//            initialises the module, and to the file finalised the number of sessions that are open when it finalises
//            it
//   expired  the PIN has expired
//   blank    the token is not initialised
//   open     the token requires no PIN
//   unreadable   the objects of the token "one" cannot be read
//   occupied the token "one" opens no session
//   unlisted the module cannot list its slots, of which it tells the number
//   hesitant the token gives one object at a time
//   vast     the labels of public keys seem to be as long as may be
//   unlabelled   certificates have no labels
//   secretive    the labels of certificates cannot be read
// The file wrong-pins.LABEL there, with the token's label, holds the count of wrong tries. Only removing the file
// unblocks a token.

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <string>

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <p11-kit/pkcs11.h>

namespace {

constexpr int maximumTries = 3;
constexpr unsigned pollInterval = 10000; // Microseconds.
constexpr char softModule[] = "/usr/lib/softhsm/libsofthsm2.so";

CK_FUNCTION_LIST functions;
CK_FUNCTION_LIST *soft;
int openSessions = 0;

std::string inHome(const char *name)
{
    const char *home = getenv("HOME");
    return std::string(home ? home : "") + '/' + name;
}

std::string behaviour()
{
    std::string word;
    std::ifstream(inHome("unruly-token")) >> word;
    return word;
}

/// The label of a slot's token.
std::string labelOf(CK_SLOT_ID slot)
{
    CK_TOKEN_INFO info = {};
    soft->C_GetTokenInfo(slot, &info);
    std::string label(reinterpret_cast<const char *>(info.label), sizeof(info.label)); // Padded with spaces.
    label.erase(label.find_last_not_of(' ') + 1);
    return label;
}

/// The slot that a session is with.
CK_SLOT_ID slotOf(CK_SESSION_HANDLE session)
{
    CK_SESSION_INFO info = {};
    soft->C_GetSessionInfo(session, &info);
    return info.slotID;
}

/// The file with the count of wrong tries for a slot's token.
std::string counter(CK_SLOT_ID slot)
{
    return inHome("wrong-pins.") + labelOf(slot);
}

int wrongPins(CK_SLOT_ID slot)
{
    int count = 0;
    std::ifstream(counter(slot)) >> count;
    return count;
}

CK_RV initialize(void *arguments)
{
    if (behaviour() == "initialize")
        return CKR_GENERAL_ERROR;
    if (behaviour() == "stall")
        std::ofstream(inHome("stalled"), std::ios::app) << std::endl;
    while (behaviour() == "stall")
        pause();
    if (behaviour() == "print") {
        std::puts("pkcs11:token=printed;type=cert");
        std::fflush(stdout);
    }
    if (behaviour() == "record")
        std::ofstream(inHome("initialised"), std::ios::app) << getpid() << std::endl;
    return soft->C_Initialize(arguments);
}

CK_RV finalize(void *reserved)
{
    if (behaviour() == "record")
        std::ofstream(inHome("finalised"), std::ios::app) << openSessions << std::endl;
    return soft->C_Finalize(reserved);
}

CK_RV getSlotList(unsigned char onlyWithToken, CK_SLOT_ID *slots, unsigned long *count)
{
    return slots && behaviour() == "unlisted" ? CKR_DEVICE_ERROR : soft->C_GetSlotList(onlyWithToken, slots, count);
}

CK_RV openSession(CK_SLOT_ID slot, CK_FLAGS flags, void *application, CK_NOTIFY notify, CK_SESSION_HANDLE *session)
{
    if (behaviour() == "occupied" && labelOf(slot) == "one")
        return CKR_SESSION_COUNT;
    const CK_RV result = soft->C_OpenSession(slot, flags, application, notify, session);
    openSessions += result == CKR_OK;
    return result;
}

CK_RV closeSession(CK_SESSION_HANDLE session)
{
    --openSessions;
    return soft->C_CloseSession(session);
}

CK_RV getTokenInfo(CK_SLOT_ID slot, CK_TOKEN_INFO *info)
{
    const CK_RV result = soft->C_GetTokenInfo(slot, info);
    if (result == CKR_OK && behaviour() == "keypad")
        info->flags |= CKF_PROTECTED_AUTHENTICATION_PATH;
    if (result == CKR_OK && behaviour() == "blank")
        info->flags &= ~CKF_TOKEN_INITIALIZED;
    if (result == CKR_OK && behaviour() == "open")
        info->flags &= ~CKF_LOGIN_REQUIRED;
    if (result == CKR_OK && wrongPins(slot) >= maximumTries)
        info->flags |= CKF_USER_PIN_LOCKED;
    return result;
}

CK_RV findObjects(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE *objects, unsigned long size, unsigned long *count)
{
    const std::string how = behaviour();
    return how == "unreadable" && labelOf(slotOf(session)) == "one"
               ? CKR_DEVICE_ERROR
               : soft->C_FindObjects(session, objects, how == "hesitant" ? 1 : size, count);
}

CK_RV getAttributeValue(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE *attributes,
                        unsigned long count)
{
    CK_RV result = soft->C_GetAttributeValue(session, object, attributes, count);
    const std::string how = behaviour();
    const bool isVast = how == "vast";
    CK_OBJECT_CLASS kind = 0;
    CK_ATTRIBUTE asked = {CKA_CLASS, &kind, sizeof(kind)};
    if ((!isVast && how != "unlabelled" && how != "secretive")
        || soft->C_GetAttributeValue(session, object, &asked, 1) != CKR_OK
        || kind != (isVast ? CKO_PUBLIC_KEY : CKO_CERTIFICATE))
        return result;
    for (unsigned long i = 0; i < count; ++i) {
        if (attributes[i].type != CKA_LABEL)
            continue;
        if (!isVast)
            result = how == "secretive" ? CKR_ATTRIBUTE_SENSITIVE : CKR_ATTRIBUTE_TYPE_INVALID;
        else if (attributes[i].pValue)
            result = CKR_BUFFER_TOO_SMALL;
        attributes[i].ulValueLen = isVast ? std::numeric_limits<int>::max() : CK_UNAVAILABLE_INFORMATION;
    }
    return result;
}

CK_RV login(CK_SESSION_HANDLE session, CK_USER_TYPE user, unsigned char *pin, unsigned long size)
{
    const CK_SLOT_ID slot = slotOf(session);
    const int before = wrongPins(slot);
    if (before >= maximumTries)
        return CKR_PIN_LOCKED;
    if (behaviour() == "expired")
        return CKR_PIN_EXPIRED;
    unsigned char typed[] = "31415926";
    const bool isTyped = behaviour() == "keypad" && !pin;
    const CK_RV result =
        isTyped ? soft->C_Login(session, user, typed, sizeof(typed) - 1) : soft->C_Login(session, user, pin, size);
    if (result == CKR_PIN_INCORRECT)
        std::ofstream(counter(slot)) << before + 1;
    else if (result == CKR_OK)
        std::ofstream(counter(slot)) << 0;
    return result;
}

CK_RV sign(CK_SESSION_HANDLE session, unsigned char *data, unsigned long size, unsigned char *signature,
           unsigned long *signatureSize)
{
    const std::string word = behaviour();
    if (word == "break") {
        std::remove(inHome("unruly-token").c_str()); // It may be another user's.
        std::ofstream(inHome("unruly-token")) << "initialize";
    }
    if (word == "error" || word == "break")
        return CKR_GENERAL_ERROR;
    if (word == "remove") {
        std::rename(inHome("tokens").c_str(), inHome("removed").c_str());
        mkdir(inHome("tokens").c_str(), S_IRWXU);
        return CKR_DEVICE_REMOVED;
    }
    if (word == "crash")
        raise(SIGKILL);
    if (word == "exit")
        _exit(EXIT_SUCCESS);
    while (word == "hang")
        pause();
    while (behaviour() == "wait")
        usleep(pollInterval);
    if (word == "record" && signature)
        std::ofstream(inHome("signed")).write(reinterpret_cast<const char *>(data), long(size));
    if (word == "forge" && signature) // Without a buffer, the caller only asks for the signature's size.
        data[size - 1] ^= 1;
    return soft->C_Sign(session, data, size, signature, signatureSize);
}

CK_RV functionList(CK_FUNCTION_LIST **list)
{
    *list = &functions;
    return CKR_OK;
}

} // namespace

extern "C" __attribute__((visibility("default"))) CK_RV C_GetFunctionList(CK_FUNCTION_LIST **list)
{
    void *module = dlopen(softModule, RTLD_NOW | RTLD_LOCAL);
    if (!module)
        return CKR_GENERAL_ERROR;
    const auto getSoft = reinterpret_cast<CK_C_GetFunctionList>(dlsym(module, "C_GetFunctionList"));
    if (!getSoft || getSoft(&soft) != CKR_OK)
        return CKR_GENERAL_ERROR;
    functions = *soft;
    functions.C_GetFunctionList = functionList;
    functions.C_Initialize = initialize;
    functions.C_Finalize = finalize;
    functions.C_GetSlotList = getSlotList;
    functions.C_OpenSession = openSession;
    functions.C_CloseSession = closeSession;
    functions.C_GetTokenInfo = getTokenInfo;
    functions.C_FindObjects = findObjects;
    functions.C_GetAttributeValue = getAttributeValue;
    functions.C_Login = login;
    functions.C_Sign = sign;
    *list = &functions;
    return CKR_OK;
}
