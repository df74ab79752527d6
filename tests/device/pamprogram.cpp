// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <string>
#include <sys/time.h>
#include <unistd.h>
#include <vector>

#include <security/pam_appl.h>

// A program that authenticates a user through PAM:
//   pamprogram [OPTION...] SERVICE USER OPERATION...
// An operation is "authenticate", "setcred", "account", "open", "close", or "wait" for a line of standard input. The
// program reads the answers to the module's questions from standard input, a line each; without a line, the
// conversation fails. It reports each event in a line of standard output, with its line breaks as "|":
//   secret TEXT, question TEXT, error TEXT, info TEXT
//   OPERATION CODE
//   and what a module must not do: inherits FILE, stole N, leaks N, signals changed
// The exit code is the last operation's PAM result, or 99 if the module has done something that it must not do.
// Options:
//   --silent, --no-null    PAM_SILENT, PAM_DISALLOW_NULL_AUTHTOK
//   --answer=TEXT          answer every question with TEXT; standard input is not read
//   --no-answer            answer every question with success, but without a text
//   --block-signals        ignore SIGPIPE and SIGCHLD, and block them
//   --alarms               handle SIGALRM a thousand times a second
//   --session=ID           the login manager's name of the session
namespace {

constexpr int FirstFree = 3; // the descriptors below are the standard ones

constexpr int Violation = 99;
bool hasViolation = false;

struct Program
{
    const char *answer = nullptr;
    bool isSpeechless = false;
    std::vector<int> descriptors; ///< Those that were open at the start.

    bool hasInherited(int descriptor) const
    {
        return std::find(descriptors.begin(), descriptors.end(), descriptor) != descriptors.end();
    }
};

void report(const char *what, std::string text)
{
    for (char &character : text) {
        if (character == '\n')
            character = '|';
    }
    std::printf("%s %s\n", what, text.c_str());
    std::fflush(stdout);
}

void reportViolation(const char *what, const std::string &text)
{
    hasViolation = true;
    report(what, text);
}

std::vector<int> openDescriptors()
{
    std::vector<int> descriptors;
    DIR *const directory = opendir("/proc/self/fd");
    while (const dirent *entry = readdir(directory)) {
        const int descriptor = std::atoi(entry->d_name);
        if (entry->d_name[0] != '.' && descriptor != dirfd(directory))
            descriptors.push_back(descriptor);
    }
    closedir(directory);
    return descriptors;
}

void checkDescriptors(const Program &program)
{
    for (const int descriptor : openDescriptors()) {
        if (program.hasInherited(descriptor))
            continue;
        if (descriptor < FirstFree) {
            reportViolation("stole", std::to_string(descriptor));
        } else if (!(fcntl(descriptor, F_GETFD) & FD_CLOEXEC)) {
            reportViolation("inherits", std::to_string(descriptor));
        }
    }
}

/// Reads a line into memory that the module frees; null at the end of input. Leaves no copy elsewhere.
char *readLine()
{
    auto *const line = static_cast<char *>(std::calloc(1, PAM_MAX_RESP_SIZE));
    for (size_t size = 0; size < PAM_MAX_RESP_SIZE - 1; ++size) {
        ssize_t count = 0;
        do
            count = read(STDIN_FILENO, line + size, 1);
        while (count == -1 && errno == EINTR);
        if (count != 1)
            break;
        if (line[size] == '\n') {
            line[size] = '\0';
            return line;
        }
    }
    std::free(line);
    return nullptr;
}

int converse(int count, const pam_message **messages, pam_response **responses, void *data)
{
    const auto &program = *static_cast<Program *>(data);
    checkDescriptors(program);
    auto *const answers = static_cast<pam_response *>(std::calloc(size_t(count), sizeof(pam_response)));
    *responses = answers;
    for (int index = 0; index < count; ++index) {
        const pam_message &message = *messages[index];
        const bool isQuestion = message.msg_style == PAM_PROMPT_ECHO_OFF || message.msg_style == PAM_PROMPT_ECHO_ON;
        report(message.msg_style == PAM_PROMPT_ECHO_OFF  ? "secret"
               : message.msg_style == PAM_PROMPT_ECHO_ON ? "question"
               : message.msg_style == PAM_ERROR_MSG      ? "error"
                                                         : "info",
               message.msg);
        if (!isQuestion || program.isSpeechless)
            continue;
        answers[index].resp = program.answer ? strdup(program.answer) : readLine();
        if (!answers[index].resp) {
            std::free(answers);
            *responses = nullptr;
            return PAM_CONV_ERR;
        }
    }
    return PAM_SUCCESS;
}

/// The dispositions and the mask of the signals, as bytes to compare.
std::vector<unsigned char> signals()
{
    std::vector<unsigned char> bytes;
    const auto append = [&bytes](const auto &value) {
        const auto *const begin = reinterpret_cast<const unsigned char *>(&value);
        bytes.insert(bytes.end(), begin, begin + sizeof(value));
    };
    for (int signal = 1; signal < SIGRTMIN; ++signal) {
        struct sigaction action = {};
        sigaction(signal, nullptr, &action);
        append(action.sa_handler);
        append(action.sa_flags);
    }
    sigset_t mask;
    sigemptyset(&mask);
    sigprocmask(SIG_SETMASK, nullptr, &mask);
    append(mask);
    return bytes;
}

void blockSignals()
{
    sigset_t blocked;
    sigemptyset(&blocked);
    for (const int signal : {SIGPIPE, SIGCHLD}) {
        std::signal(signal, SIG_IGN);
        sigaddset(&blocked, signal);
    }
    sigprocmask(SIG_BLOCK, &blocked, nullptr);
}

void startAlarms()
{
    struct sigaction action = {};
    action.sa_handler = [](int) {
    }; // and without SA_RESTART
    sigaction(SIGALRM, &action, nullptr);
    constexpr timeval Interval = {0, 1000};
    const itimerval timer = {Interval, Interval};
    setitimer(ITIMER_REAL, &timer, nullptr);
}

const char *valueOf(const char *argument, const char *option)
{
    const size_t size = std::strlen(option);
    return std::strncmp(argument, option, size) == 0 ? argument + size : nullptr;
}

int operate(pam_handle_t *pam, const std::string &operation, int flags)
{
    if (operation == "authenticate")
        return pam_authenticate(pam, flags);
    if (operation == "setcred")
        return pam_setcred(pam, (flags & PAM_SILENT) | PAM_ESTABLISH_CRED);
    if (operation == "account")
        return pam_acct_mgmt(pam, flags);
    if (operation == "open")
        return pam_open_session(pam, flags & PAM_SILENT);
    if (operation == "close")
        return pam_close_session(pam, flags & PAM_SILENT);
    std::free(readLine());
    return PAM_SUCCESS;
}

} // namespace

int main(int argc, char **argv)
{
    if (std::getenv("PAMPROGRAM")) // Shows whether a preloaded recorder works.
        return PAM_SYSTEM_ERR;
    Program program;
    program.descriptors = openDescriptors();
    int flags = 0;
    const char *session = nullptr;
    int next = 1;
    for (; next < argc && argv[next][0] == '-'; ++next) {
        const std::string option = argv[next];
        if (option == "--silent")
            flags |= PAM_SILENT;
        else if (option == "--no-null")
            flags |= PAM_DISALLOW_NULL_AUTHTOK;
        else if (option == "--block-signals")
            blockSignals();
        else if (option == "--alarms")
            startAlarms();
        else if (option == "--no-answer")
            program.isSpeechless = true;
        else if (const char *answer = valueOf(argv[next], "--answer="))
            program.answer = answer;
        else if (const char *id = valueOf(argv[next], "--session="))
            session = id;
    }
    if (argc - next < 3)
        return PAM_SYSTEM_ERR;
    const char *const service = argv[next++];
    const char *const user = argv[next++];
    const auto signalsBefore = signals();

    const pam_conv conversation = {converse, &program};
    pam_handle_t *pam = nullptr;
    int result = pam_start(service, user, &conversation, &pam);
    if (session)
        pam_putenv(pam, (std::string("XDG_SESSION_ID=") + session).c_str());
    const size_t descriptorsBefore = openDescriptors().size();
    for (; next < argc && result != PAM_ABORT; ++next) {
        result = operate(pam, argv[next], flags);
        report(argv[next], std::to_string(result));
        const size_t descriptors = openDescriptors().size();
        if (descriptors > descriptorsBefore + 1) // One may be the system log's.
            reportViolation("leaks", std::to_string(descriptors - descriptorsBefore));
        checkDescriptors(program);
    }
    pam_end(pam, result);
    if (signals() != signalsBefore)
        reportViolation("signals", "changed");
    return hasViolation ? Violation : result;
}
